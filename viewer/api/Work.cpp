#include "viewer/api/Api.h"

namespace korimg::viewer {

void AddWork(Router& router, Context& context) {
  router.Get("work", [&context](const Request&) { return JsonResponse(context.work.State()); });
  router.Get("work/events", [&context](const Request& request) {
    const double last = NumberOf(request, "last", 0, 9e15);
    Response response{.type = "text/event-stream"};
    response.stream = [&context, last, isGone = request.isGone](const Send& send) {
      context.work.Follow(static_cast<long long>(last), send, isGone);
    };
    return response;
  });
  router.Post("work/cancel", [&context](const Request&) {
    context.work.Cancel();
    return JsonResponse(context.work.State());
  });
}

}  // namespace korimg::viewer
