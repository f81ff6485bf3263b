#include "network/HttpTask.h"

#include "network/HttpSession.h"

namespace vorlen {

HttpTask::HttpTask(std::weak_ptr<HttpSession> session, uint64_t identifier, Kind kind, HttpRequest request,
                   std::filesystem::path uploadFile)
    : session_(std::move(session)),
      identifier_(identifier),
      kind_(kind),
      request_(std::move(request)),
      uploadFile_(std::move(uploadFile)) {}

HttpTask::State HttpTask::state() const {
  std::lock_guard lock(mu_);
  return state_;
}

std::optional<HttpResponse> HttpTask::response() const {
  std::lock_guard lock(mu_);
  return response_;
}

std::optional<TaskMetrics> HttpTask::metrics() const {
  std::lock_guard lock(mu_);
  return metrics_;
}

std::optional<HttpError> HttpTask::error() const {
  std::lock_guard lock(mu_);
  return error_;
}

std::string HttpTask::taskDescription() const {
  std::lock_guard lock(mu_);
  return description_;
}

void HttpTask::setTaskDescription(std::string description) {
  std::lock_guard lock(mu_);
  description_ = std::move(description);
}

std::optional<uint64_t> HttpTask::numberOfFeedbacks() const {
  std::lock_guard lock(mu_);
  return numberOfFeedbacks_;
}

void HttpTask::setNumberOfFeedbacks(std::optional<uint64_t> count) {
  std::lock_guard lock(mu_);
  numberOfFeedbacks_ = count;
}

void HttpTask::resume() {
  if (auto session = session_.lock()) session->_resume(shared_from_this());
}

void HttpTask::cancel() {
  if (auto session = session_.lock()) session->_cancel(shared_from_this());
}

}  // namespace vorlen
