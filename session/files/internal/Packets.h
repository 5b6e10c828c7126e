// Messages between a process and its decoders: a JSON object each, and a file descriptor with some of them.
#pragma once

#include <optional>

#include <nlohmann/json.hpp>

#include "session/files/Formats.h"

namespace korimg::files {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(CameraRaw, maker, model, white, black, hasGains, gains)

struct Packet {
  nlohmann::json json;
  FileDescriptor descriptor;  ///< -1 without one
};

/// Sends to a socket of whole packets; text that is no UTF-8 is mended. False when nobody listens any more.
bool SendPacket(int socket, const nlohmann::json& json, int descriptor = -1);

/// Waits for a packet; nothing when the other side is gone, or sends no JSON object.
std::optional<Packet> ReceivePacket(int socket);

}  // namespace korimg::files
