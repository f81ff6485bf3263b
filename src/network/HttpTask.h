// HttpTask: one request of an HttpSession (a data, download or upload task). A task is made suspended;
// resume() starts it and cancel() stops it. It ends exactly once: its completion handler, or its session
// delegate's didCompleteWithError(), runs once on the session's callback queue. A task cancelled before
// it ends (even one never resumed) ends with the "cancelled" error (-999).
//
// After the end, response(), metrics() and error() describe the outcome; metrics() is absent for a task
// that never reached the network (cancelled while suspended, or refused before sending).
//
// `numberOfFeedbacks` is a tag the upload code puts on a task (absent unless set).
//
// Threading: every method is safe from any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "network/HttpError.h"
#include "network/HttpRequest.h"
#include "network/HttpResponse.h"
#include "network/TaskMetrics.h"

namespace vorlen {

class HttpSession;

class HttpTask : public std::enable_shared_from_this<HttpTask> {
 public:
  enum class Kind { Data, Download, Upload };
  enum class State { Suspended, Running, Canceling, Completed };

  uint64_t taskIdentifier() const { return identifier_; }
  Kind kind() const { return kind_; }
  const HttpRequest& originalRequest() const { return request_; }
  const std::filesystem::path& uploadFile() const { return uploadFile_; }

  State state() const;
  std::optional<HttpResponse> response() const;
  std::optional<TaskMetrics> metrics() const;
  std::optional<HttpError> error() const;

  std::string taskDescription() const;
  void setTaskDescription(std::string description);
  std::optional<uint64_t> numberOfFeedbacks() const;
  void setNumberOfFeedbacks(std::optional<uint64_t> count);

  // Starts a suspended task; does nothing otherwise, or when the session is gone.
  void resume();
  // Cancels a task that has not ended; does nothing otherwise.
  void cancel();

 private:
  friend class HttpSession;

  HttpTask(std::weak_ptr<HttpSession> session, uint64_t identifier, Kind kind, HttpRequest request,
           std::filesystem::path uploadFile);

  const std::weak_ptr<HttpSession> session_;
  const uint64_t identifier_;
  const Kind kind_;
  const HttpRequest request_;
  const std::filesystem::path uploadFile_;

  mutable std::mutex mu_;
  State state_ = State::Suspended;
  uint64_t transferId_ = 0;  // of the HttpEngine transfer, once resumed
  std::optional<HttpResponse> response_;
  std::optional<TaskMetrics> metrics_;
  std::optional<HttpError> error_;
  std::string description_;
  std::optional<uint64_t> numberOfFeedbacks_;
};

}  // namespace vorlen
