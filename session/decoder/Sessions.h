// What the decoders of other makers are asked, in a process for each file.
#pragma once

#include <memory>
#include <string>

#include "session/files/internal/Packets.h"

namespace korimg::decoder {

/// Decodes one file. What it throws becomes the answer "error".
class Session {
 public:
  virtual ~Session() = default;
  virtual nlohmann::json Opened() const { return nlohmann::json::object(); }
  /// `target` is where pixels go; once given it counts for later requests too.
  virtual nlohmann::json Answer(const nlohmann::json& request, int target) = 0;
};

/// Opens a tile-compressed FITS: "hdu", the "pixels" of its largest tile, and as the table says "tiles" and
/// the bytes of their "heap". Requests say "first" and "count" of pixels, which go to the start of the target
/// as floats; it has their size.
std::unique_ptr<Session> OpenTiles(const std::string& path, const nlohmann::json& open);

/// Opens camera raw. Any request unpacks all pixels of the active area, which go to the target plane by plane
/// as 16 bit.
std::unique_ptr<Session> OpenRaw(const std::string& path, const nlohmann::json& open);

/// Limits what this process may take from now on: bytes of memory beside what it has, and seconds until the
/// next call.
void Limit(double bytes, double seconds);

/// Writes all of it, or throws.
void WriteAll(int target, const void* data, std::size_t size, std::uint64_t offset);

}  // namespace korimg::decoder
