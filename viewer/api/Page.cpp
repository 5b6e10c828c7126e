#include "session/job/Job.h"
#include "viewer/api/Api.h"
#include "viewer/server/Assets.h"
#include "viewer/server/ChildToken.h"

namespace korimg::viewer {
namespace {

class TokenOfRequest : public ChildToken {
 public:
  TokenOfRequest(std::function<bool()> isGone, std::shared_ptr<session::CancelToken> parent)
      : ChildToken(std::move(parent)), isGone_(std::move(isGone)) {}
  bool IsCancelled() override { return ChildToken::IsCancelled() || isGone_(); }

 private:
  std::function<bool()> isGone_;
};

}  // namespace

std::shared_ptr<session::CancelToken> TokenOf(const Request& request, session::Job& job) {
  return std::make_shared<TokenOfRequest>(request.isGone, job.options.cancel);
}

void AddPage(Router& router, Context& context) {
  for (const Asset& asset : Assets()) {
    router.Get(asset.name == "index.html" ? "" : std::string(asset.name), [&asset](const Request&) {
      return Response{.type = std::string(asset.type), .body = std::string(asset.bytes)};
    });
  }
  router.Get("files", [&context](const Request&) {
    Json list = Json::array();
    for (const Files::Entry& entry : context.files.List()) {
      list.push_back({{"id", entry.id}, {"name", entry.name}});
    }
    return JsonResponse(list);
  });
}

}  // namespace korimg::viewer
