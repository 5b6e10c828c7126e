#include "session/files/internal/Decoder.h"

#include <csignal>
#include <list>
#include <mutex>

#include <dlfcn.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace korimg::files {

namespace fs = std::filesystem;

namespace {

/// The two ends of a new connection.
std::pair<FileDescriptor, FileDescriptor> Connection(const fs::path& shown) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
    ThrowSystemError(shown, "start its decoder", errno);
  return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

/// Where korimg-decoder lies: beside the library that wants it or the program, in a build's folder of them,
/// or as it is installed. The library's own goes before those that the system has installed.
fs::path Program(const fs::path& shown) {
  std::error_code error;
  const fs::path here = fs::read_symlink("/proc/self/exe", error).parent_path();
  Dl_info own{};
  const bool known = dladdr(reinterpret_cast<const void*>(&Program), &own) != 0 && own.dli_fname != nullptr;
  // Of a program it is the name that it was called by.
  const fs::path library = known && own.dli_fname[0] == '/' ? fs::path(own.dli_fname).parent_path() : here;
  for (const fs::path& place : {library, here}) {
    for (const char* folder : {"", "../libexec/korimg", "../../libexec/korimg", "../app"}) {
      const fs::path program = place / folder / "korimg-decoder";
      if (access(program.c_str(), X_OK) == 0) return program;
    }
  }
  throw FileError(
      shown, fmt::format("cannot be decoded without the program korimg-decoder, which belongs into {} or "
                         "../libexec/korimg; install it",
                         library.string()));
}

/// The process that decoders are children of. It has one thread, so that it can fork where this one must not.
class Server {
 public:
  static Server& Get() {
    static Server server;
    return server;
  }

  /// A new decoder's end of a connection goes there. Starts the server when there is none, or it died.
  void Give(const fs::path& shown, FileDescriptor connection) {
    const std::lock_guard lock(mutex_);
    if (SendPacket(control_.Get(), nlohmann::json::object(), connection.Get())) return;
    Stop();
    Start(shown);
    if (!SendPacket(control_.Get(), nlohmann::json::object(), connection.Get()))
      throw FileError(shown, "cannot be decoded: korimg-decoder does not run");
  }

 private:
  Server() = default;
  ~Server() { Stop(); }

  void Start(const fs::path& shown) {
    const std::string program = Program(shown).string();
    auto [here, there] = Connection(shown);
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_adddup2(&actions, there.Get(), STDIN_FILENO);
    // Ctrl-C is for this process, which then has no more use for decoders; nor do they inherit what it
    // ignores.
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    char name[] = "korimg-decoder";
    char* arguments[] = {name, nullptr};
    const int error = posix_spawn(&process_, program.c_str(), &actions, &attributes, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) ThrowSystemError(shown, "start " + program, error);
    control_ = std::move(here);
  }

  /// Without a listener the server ends by itself.
  void Stop() {
    if (control_.Get() < 0) return;
    control_ = FileDescriptor();
    while (waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }

  std::mutex mutex_;
  FileDescriptor control_;
  pid_t process_ = 0;
};

}  // namespace

/// The decoders that have a process and nothing to do, the one asked longest ago first.
struct Decoder::Idle {
  static constexpr size_t kMost = 64;

  static Idle& Get() {
    static Idle idle;
    return idle;
  }

  void Add(Decoder* decoder) {
    const std::lock_guard lock(mutex);
    decoders.push_back(decoder);
    if (decoders.size() <= kMost) return;
    decoders.front()->socket_ = FileDescriptor();
    decoders.pop_front();
  }

  void Remove(Decoder* decoder) {
    const std::lock_guard lock(mutex);
    decoders.remove(decoder);
  }

  std::mutex mutex;
  std::list<Decoder*> decoders;
};

Decoder::Decoder(const fs::path& shown, const File& file, const nlohmann::json& open)
    : shown_(shown), file_(file), open_(open) {}

Decoder::~Decoder() {
  Idle::Get().Remove(this);
}

nlohmann::json Decoder::Open() {
  nlohmann::json answer = Connect();
  socket_ = FileDescriptor();
  return answer;
}

nlohmann::json Decoder::Ask(const nlohmann::json& request, const File& target) {
  Idle::Get().Remove(this);
  if (socket_.Get() < 0) Connect();
  nlohmann::json answer = Exchange(request, target.Descriptor());
  Idle::Get().Add(this);
  return answer;
}

nlohmann::json Decoder::Connect() {
  auto [here, there] = Connection(shown_);
  socket_ = std::move(here);
  Server::Get().Give(shown_, std::move(there));
  return Exchange(open_, file_.Descriptor());
}

nlohmann::json Decoder::Exchange(const nlohmann::json& request, int descriptor) {
  std::string error = "damaged: what unpacks its pixels broke down over them; get the file again";
  if (SendPacket(socket_.Get(), request, descriptor)) {
    if (auto answer = ReceivePacket(socket_.Get())) {
      const auto said = answer->json.find("error");
      if (said == answer->json.end()) return std::move(answer->json);
      if (said->is_string()) error = *said;
    }
  }
  socket_ = FileDescriptor();  // a process that failed has ended
  // What of a camera raw file is missing cannot be told from what is damaged.
  if (HasRawExtension(shown_) && WasJustWritten(shown_)) throw UnfinishedError(shown_, error);
  throw FileError(shown_, error);
}

File MemoryFile(const fs::path& shown, std::size_t bytes) {
  FileDescriptor descriptor(memfd_create("korimg", MFD_CLOEXEC));
  if (descriptor.Get() < 0 || ftruncate(descriptor.Get(), static_cast<off_t>(bytes)) != 0)
    ThrowSystemError(shown, "make a file in memory", errno);
  return {std::move(descriptor), shown, shown};
}

}  // namespace korimg::files
