#pragma once

/// Marks what hosts of the session library link with.
#define KORIMG_SESSION_API __attribute__((visibility("default")))
