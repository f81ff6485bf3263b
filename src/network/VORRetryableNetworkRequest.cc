#include "network/VORRetryableNetworkRequest.h"

namespace vorlen {

std::shared_ptr<HttpTask> dataTaskWithRetryableRequest(const std::shared_ptr<HttpSession>& session,
                                                       const VORRetryableNetworkRequest& request,
                                                       uint64_t attempt, uint64_t retriesLeft,
                                                       HttpSession::DataCompletion completion,
                                                       std::shared_ptr<Queue> retryQueue) {
  if (!retryQueue) retryQueue = Queue::global(QueuePriority::UserInitiated);
  return session->dataTask(
      request.httpRequest(),
      [session, request, attempt, retriesLeft, completion = std::move(completion), retryQueue](
          const std::vector<uint8_t>& data, const std::optional<HttpResponse>& response,
          const std::optional<HttpError>& error) {
        if (!error) {
          if (completion) completion(data, response, std::nullopt);
          return;
        }
        std::shared_ptr<Clock> clock = retryQueue->clock() ? retryQueue->clock() : Clock::system();
        // No expiry date counts as expired from the start: such requests are never retried.
        bool expired = !request.expire() || clock->now() - *request.expire() > Duration::zero();
        if (expired || retriesLeft == 0) {
          if (completion) completion(data, response, error);
          return;
        }
        auto retry = [session, request, attempt, retriesLeft, completion, retryQueue] {
          dataTaskWithRetryableRequest(session, request, attempt + 1, retriesLeft - 1, completion, retryQueue)
              ->resume();
        };
        if (request.delayOnFail()) {
          retryQueue->after(seconds(VORRetryableNetworkRequest::kRetryDelaySeconds), std::move(retry));
        } else {
          retryQueue->async(std::move(retry));
        }
      });
}

}  // namespace vorlen
