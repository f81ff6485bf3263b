// VORRetryableNetworkRequest: an HTTP request with an optional expiry and a delay-on-fail flag, and
// dataTaskWithRetryableRequest(), which sends it and repeats it after transport failures.
//
// Retry rules. Any response, whatever its HTTP status, is delivered at once and never retried. After a
// transport error: when now - expire > 0 the error is delivered; a request without an expiry counts as
// expired from the start and so is never retried (the bag fetch, more-results and card requests rely on
// this). Otherwise, while retries are left, the request is sent again (attempt + 1, retries - 1) on the
// retry queue, 1.5 s later (on that queue's clock) when delayOnFail is set and at once otherwise; with no
// retries left the error is delivered. The completion runs exactly once, for the last attempt, on the
// session's callback queue.
//
// The task returned is the first attempt's, not yet resumed. Later attempts' tasks are held only by the
// retry machinery: cancelling the returned task does not stop a retry already scheduled.
//
// Threading: the request is a plain value type; dataTaskWithRetryableRequest() is safe from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "base/Clock.h"
#include "base/Queue.h"
#include "network/HttpRequest.h"
#include "network/HttpSession.h"

namespace vorlen {

class VORRetryableNetworkRequest {
 public:
  static constexpr double kRetryDelaySeconds = 1.5;

  VORRetryableNetworkRequest(HttpRequest request, std::optional<Time> expire, bool delayOnFail)
      : httpRequest_(std::move(request)), expire_(expire), delayOnFail_(delayOnFail) {}

  const HttpRequest& httpRequest() const { return httpRequest_; }
  const std::optional<Time>& expire() const { return expire_; }
  bool delayOnFail() const { return delayOnFail_; }

 private:
  HttpRequest httpRequest_;
  std::optional<Time> expire_;
  bool delayOnFail_;
};

// `retryQueue` schedules the later attempts and its clock decides expiry and delay; null means the global
// user-initiated queue.
std::shared_ptr<HttpTask> dataTaskWithRetryableRequest(const std::shared_ptr<HttpSession>& session,
                                                       const VORRetryableNetworkRequest& request,
                                                       uint64_t attempt, uint64_t retriesLeft,
                                                       HttpSession::DataCompletion completion,
                                                       std::shared_ptr<Queue> retryQueue = nullptr);

}  // namespace vorlen
