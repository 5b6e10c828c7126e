// Operations told: for people, for programs, and as pages of the documentation.
#pragma once

#include <string>

#include "session/Export.h"
#include "session/operations/Operation.h"

namespace korimg::session {

/// Writes one operation as plain text of several lines.
KORIMG_SESSION_API std::string Manual(const Operation& operation);

/// Writes the operations, or those of a name or family: an object of JSON whose array `operations` holds, for
/// each, name, family, summary, text, rect, header, stores_agree and example, and as `parameters` a JSON
/// schema (draft 2020-12) of the object of its values. Beside the schema's own words a property has `kind`,
/// `unit` and, where it may be left out without a default, no `default`.
KORIMG_SESSION_API std::string OperationsAsJson(const std::string& name = {});

/// Write the first page of the documentation, and that of a family, in Markdown.
KORIMG_SESSION_API std::string IndexPage();
KORIMG_SESSION_API std::string FamilyPage(const std::string& family);

}  // namespace korimg::session
