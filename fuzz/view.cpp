// Requests to the viewer: a line of method and target, one of the host, one of the origin, and a body.
#include <memory>
#include <thread>

#include "fuzz/Support.h"
#include "viewer/api/Api.h"

using namespace korimg;
using namespace korimg::viewer;

namespace {

constexpr const char* kToken = "0123456789abcdef0123456789abcdef";

struct Served {
  Router router{kToken};
  std::unique_ptr<Context> context;

  Served() {
    session::Job& job = fuzz::QuietJob();
    const std::filesystem::path path = fuzz::Folder() / "image.fits";
    const auto writer = files::ImageWriter::Create(path, {.width = 300, .height = 70});
    std::vector<float> pixels(300 * 70);
    for (std::size_t i = 0; i < pixels.size(); ++i) {
      pixels[i] = static_cast<float>(i * 7919 % 1000);
    }
    writer->WriteRows(Band<const float>(pixels.data(), 1, 300, 0, 70));
    writer->Commit();
    context.reset(new Context{.job = job, .files = Files({path})});
    AddPage(router, *context);
    AddImage(router, *context);
    AddOperations(router, *context);
    AddLive(router, *context);
    AddPlan(router, *context);
    AddFinished(router, *context);
    AddWork(router, *context);
  }
};

std::string Line(std::string_view& text) {
  const std::size_t end = std::min(text.find('\n'), text.size());
  const std::string line(text.substr(0, end));
  text.remove_prefix(std::min(end + 1, text.size()));
  return line;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Served served;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::string first = Line(text);
  const std::size_t blank = std::min(first.find(' '), first.size());
  std::string target = first.substr(std::min(blank + 1, first.size()));
  Request request{.method = first.substr(0, blank)};
  const std::size_t mark = std::min(target.find('?'), target.size());
  request.path = target.substr(0, mark);
  // The token is known to half of the requests that would have it.
  if (request.path.starts_with("/T/")) request.path.replace(1, 1, kToken);
  for (std::size_t at = mark + 1; at < target.size();) {
    const std::size_t end = std::min(target.find('&', at), target.size());
    const std::string word = target.substr(at, end - at);
    const std::size_t equals = std::min(word.find('='), word.size());
    request.query.emplace(word.substr(0, equals), equals < word.size() ? word.substr(equals + 1) : "");
    at = end + 1;
  }
  request.host = Line(text);
  request.origin = Line(text);
  request.body = text;
  const Response response = served.router.Answer(request);
  const bool isKnown = request.path.starts_with("/" + std::string(kToken) + "/");
  fuzz::Expect(isKnown || response.status == 404, "nothing without the token: " + request.path);
  fuzz::Expect(response.status != 500, "no error of ours: " + response.body);
  // Commands have paths, for the shell that they are pasted into; and who sends one may get it back.
  const std::string place = fuzz::Folder().parent_path().string() + "/korimg-fuzz";
  const std::string_view sent(reinterpret_cast<const char*>(data), size);
  fuzz::Expect(response.status < 400 || response.body.find(place) == response.body.npos ||
                   sent.find(place) != sent.npos,
               "errors name files without their folders: " + response.body);
  return 0;
}
