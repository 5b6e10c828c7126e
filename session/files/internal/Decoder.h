// Decoders of other makers, kept away from this process.
#pragma once

#include "session/files/internal/Packets.h"

namespace korimg::files {

/// Puts a file in the hands of a decoder that lives in a process of its own, with limits of memory and time:
/// whatever damaged data does to it, here it is an error. The processes are children of `korimg-decoder`,
/// which lies beside this program or in ../libexec/korimg, and is started once. Of many files that are open
/// only those asked last keep their process, the others get another one when they are asked again.
class Decoder {
 public:
  /// `file` must outlive this. `open` says by "kind" who decodes it, and what that one wants to know. Errors
  /// speak of the file `shown`.
  Decoder(const std::filesystem::path& shown, const File& file, const nlohmann::json& open);
  ~Decoder();
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;

  /// Answers what the decoder says of the file.
  nlohmann::json Open();
  /// Sends a request, with the descriptor of a file for pixels, and waits for the answer. From one thread at
  /// a time.
  /// @throws FileError with what the decoder says, or that it failed.
  nlohmann::json Ask(const nlohmann::json& request, const File& target);

 private:
  struct Idle;

  nlohmann::json Connect();
  nlohmann::json Exchange(const nlohmann::json& request, int descriptor);

  std::filesystem::path shown_;
  const File& file_;
  nlohmann::json open_;
  FileDescriptor socket_;  ///< of its process, unless it has none
};

/// Makes a file of zeros in memory, for decoders to write to. Errors speak of the file `shown`.
File MemoryFile(const std::filesystem::path& shown, std::size_t bytes);

}  // namespace korimg::files
