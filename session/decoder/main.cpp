// korimg-decoder: has no thread but one, and forks a process for each file that its parent wants decoded. The
// parent's socket is standard input.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include "session/decoder/Sessions.h"

using namespace korimg;
using nlohmann::json;

namespace {

#if defined(__has_feature)
#define KORIMG_HAS_FEATURE(name) __has_feature(name)
#else
#define KORIMG_HAS_FEATURE(name) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || \
    KORIMG_HAS_FEATURE(address_sanitizer) || KORIMG_HAS_FEATURE(thread_sanitizer)
constexpr bool kSanitized = true;  // address space is no measure of memory then
#else
constexpr bool kSanitized = false;
#endif

double BytesNow() {
  double pages = 0;
  if (std::FILE* file = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(file, "%lf", &pages) != 1) pages = 0;
    std::fclose(file);
  }
  return pages * static_cast<double>(sysconf(_SC_PAGESIZE));
}

void SetSoftLimit(int resource, double value) {
  rlimit limit;
  if (getrlimit(static_cast<__rlimit_resource>(resource), &limit) != 0) return;
  if (limit.rlim_max == RLIM_INFINITY || value < static_cast<double>(limit.rlim_max)) {
    limit.rlim_cur = static_cast<rlim_t>(value);
    setrlimit(static_cast<__rlimit_resource>(resource), &limit);
  }
}

/// Answers a connection's requests until nobody listens.
void Serve(int connection) {
  const auto first = files::ReceivePacket(connection);
  if (!first || first->descriptor.Get() < 0) return;
  const auto answered = [&](const auto& work) {
    try {
      return files::SendPacket(connection, work());
    } catch (const std::bad_alloc&) {
      files::SendPacket(connection, {{"error", "damaged: it asks for more memory than such a file takes"}});
    } catch (const std::exception& error) {
      files::SendPacket(connection, {{"error", error.what()}});
    }
    return false;
  };
  std::unique_ptr<decoder::Session> session;
  const bool opened = answered([&] {
    const std::string path = fmt::format("/proc/self/fd/{}", first->descriptor.Get());
    session =
        (first->json.value("kind", "") == "raw" ? decoder::OpenRaw : decoder::OpenTiles)(path, first->json);
    return session->Opened();
  });
  files::FileDescriptor target;
  while (opened) {
    auto request = files::ReceivePacket(connection);
    if (!request) return;
    if (request->descriptor.Get() >= 0) target = std::move(request->descriptor);
    if (!answered([&] { return session->Answer(request->json, target.Get()); })) return;
  }
}

}  // namespace

void decoder::Limit(double bytes, double seconds) {
  rusage used;
  getrusage(RUSAGE_SELF, &used);
  if (!kSanitized) SetSoftLimit(RLIMIT_AS, BytesNow() + bytes);
  SetSoftLimit(RLIMIT_CPU, static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) + 1 + seconds);
  // A process that waits for itself uses no time of the processor. Slow disks are given much; chosen.
  constexpr double kSlowDisk = 20;
  alarm(static_cast<unsigned>(kSlowDisk * (1 + seconds)));
}

void decoder::WriteAll(int target, const void* data, std::size_t size, std::uint64_t offset) {
  for (std::size_t done = 0; done < size;) {
    const ssize_t n =
        pwrite(target, static_cast<const char*>(data) + done, size - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw std::runtime_error(fmt::format("cannot keep its pixels: {}", std::strerror(errno)));
    done += static_cast<std::size_t>(n);
  }
}

int main() {
  // What decoders print is nobody's concern, the sanitizers' reports are.
  const int null = open("/dev/null", O_RDWR);
  dup2(null, STDOUT_FILENO);
  if (!kSanitized) dup2(null, STDERR_FILENO);
  const rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
  std::signal(SIGCHLD, SIG_IGN);  // nobody waits for the children
  while (const auto packet = files::ReceivePacket(STDIN_FILENO)) {
    const pid_t child = fork();
    if (child != 0) continue;
    dup2(null, STDIN_FILENO);
    Serve(packet->descriptor.Get());
    std::_Exit(0);
  }
  return 0;
}
