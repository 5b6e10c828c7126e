#include "viewer/Viewer.h"

#include <chrono>
#include <thread>

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "viewer/api/Api.h"
#include "viewer/server/Http.h"

extern char** environ;

namespace korimg::viewer {
namespace {

bool IsLoopback(const std::string& address) {
  return address.starts_with("127.") || address == "::1" || address == "localhost";
}

/// Has the user's browser show an address, without a shell. What it says goes nowhere.
void OpenBrowser(session::Job& job, const std::string& address) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    posix_spawn_file_actions_addopen(&actions, stream, "/dev/null", O_RDWR, 0);
  }
  std::string program = "xdg-open", argument = address;
  char* const words[] = {program.data(), argument.data(), nullptr};
  pid_t child = 0;
  const int failure = posix_spawnp(&child, program.c_str(), &actions, nullptr, words, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failure != 0) {
    job.Say("No browser could be opened (xdg-open is missing): open the address yourself.");
    return;
  }
  std::thread([child] { waitpid(child, nullptr, 0); }).detach();
}

}  // namespace

void View(session::Job& job, const ViewOptions& options) {
  std::vector<std::filesystem::path> paths = options.paths;
  if (!options.watch.empty()) paths.push_back(options.watch);
  Context context{.job = job, .files = Files(paths)};
  if (!options.watch.empty()) {
    context.live = std::make_unique<Live>(
        job, WatchedFolder{std::filesystem::canonical(options.watch), options.masters});
  }
  const std::string token = NewToken();
  Router router(token, !IsLoopback(options.address));
  AddPage(router, context);
  AddImage(router, context);
  AddOperations(router, context);
  AddLive(router, context);
  AddPlan(router, context);
  AddFinished(router, context);
  AddWork(router, context);
  const HttpServer server({.address = options.address, .port = options.port},
                          [&router](const Request& request) { return router.Answer(request); });
  const bool isIpv6 = options.address.find(':') != std::string::npos;
  const std::string page = fmt::format(
      "http://{}:{}/{}/", isIpv6 ? "[" + options.address + "]" : options.address, server.Port(), token);
  job.Tell(fmt::format("{{\"address\":\"{}\"}}", page), page + "   (Ctrl-C ends it)");
  if (options.opensBrowser) OpenBrowser(job, page);
  while (!job.options.cancel || !job.options.cancel->IsCancelled()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

}  // namespace korimg::viewer
