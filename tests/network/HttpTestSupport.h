// Helpers shared by the network tests: waiting for asynchronous completions and recording session
// delegate events. Waits are bounded only so that a broken build fails instead of hanging; no test
// asserts on how long anything takes.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "network/HttpEngine.h"
#include "network/HttpSession.h"
#include "network/HttpSessionDelegate.h"
#include "network/HttpTask.h"
#include "support/Eventually.h"
#include "support/TempDir.h"

namespace vorlen::test {

inline constexpr auto kPatience = std::chrono::seconds(30);

inline std::string text(const std::vector<uint8_t>& bytes) {
  return std::string(bytes.begin(), bytes.end());
}

// Records every call of a data-task completion, and where it ran.
class CompletionProbe {
 public:
  struct Call {
    std::vector<uint8_t> data;
    std::optional<HttpResponse> response;
    std::optional<HttpError> error;
    bool onCallbackQueue = false;
    bool onIoThread = false;
  };

  explicit CompletionProbe(std::shared_ptr<Queue> callbackQueue = nullptr)
      : queue_(std::move(callbackQueue)) {}

  HttpSession::DataCompletion handler() {
    return [this](const std::vector<uint8_t>& data, const std::optional<HttpResponse>& response,
                  const std::optional<HttpError>& error) {
      Call c{data, response, error, queue_ && queue_->isCurrent(), HttpEngine::shared().isIoThread()};
      std::lock_guard lock(mu_);
      calls_.push_back(std::move(c));
      cv_.notify_all();
    };
  }

  // Waits until at least `n` calls happened.
  bool waitFor(size_t n = 1) {
    std::unique_lock lock(mu_);
    return cv_.wait_for(lock, kPatience, [&] { return calls_.size() >= n; });
  }
  size_t count() const {
    std::lock_guard lock(mu_);
    return calls_.size();
  }
  Call last() const {
    std::lock_guard lock(mu_);
    return calls_.back();
  }

 private:
  std::shared_ptr<Queue> queue_;
  mutable std::mutex mu_;
  std::condition_variable cv_;
  std::vector<Call> calls_;
};

// A session delegate that writes down each event as a line of text, and keeps what a test needs to
// check about downloaded files while they still exist.
class RecordingDelegate : public HttpSessionDelegate {
 public:
  struct Download {
    std::filesystem::path file;
    std::string contents;
    unsigned mode = 0;
  };

  void didCompleteWithError(HttpSession& session, const std::shared_ptr<HttpTask>& task,
                            const std::optional<HttpError>& error) override {
    std::lock_guard lock(mu_);
    events_.push_back("complete " + std::to_string(task->taskIdentifier()) +
                      (error ? " error " + std::to_string(error->code) : std::string(" ok")));
    if (!session.callbackQueue()->isCurrent()) wrongQueue_ = true;
    tasks_.push_back(task);
    cv_.notify_all();
  }

  void didFinishDownloadingToFile(HttpSession& session, const std::shared_ptr<HttpTask>& task,
                                  const std::filesystem::path& file) override;

  void didSendBodyData(HttpSession& session, const std::shared_ptr<HttpTask>& /*task*/, int64_t sent,
                       int64_t total, int64_t expected) override {
    std::lock_guard lock(mu_);
    if (!session.callbackQueue()->isCurrent()) wrongQueue_ = true;
    sentSum_ += sent;
    lastTotal_ = total;
    lastExpected_ = expected;
    ++progressCalls_;
  }

  bool waitForCompletions(size_t n = 1) {
    std::unique_lock lock(mu_);
    return cv_.wait_for(lock, kPatience, [&] { return tasks_.size() >= n; });
  }
  std::vector<std::string> events() const {
    std::lock_guard lock(mu_);
    return events_;
  }
  std::vector<Download> downloads() const {
    std::lock_guard lock(mu_);
    return downloads_;
  }
  bool wrongQueue() const {
    std::lock_guard lock(mu_);
    return wrongQueue_;
  }
  int64_t sentSum() const {
    std::lock_guard lock(mu_);
    return sentSum_;
  }
  int64_t lastTotal() const {
    std::lock_guard lock(mu_);
    return lastTotal_;
  }
  int64_t lastExpected() const {
    std::lock_guard lock(mu_);
    return lastExpected_;
  }
  int progressCalls() const {
    std::lock_guard lock(mu_);
    return progressCalls_;
  }

 private:
  mutable std::mutex mu_;
  std::condition_variable cv_;
  std::vector<std::string> events_;
  std::vector<std::shared_ptr<HttpTask>> tasks_;
  std::vector<Download> downloads_;
  bool wrongQueue_ = false;
  int64_t sentSum_ = 0, lastTotal_ = 0, lastExpected_ = 0;
  int progressCalls_ = 0;
};

inline void RecordingDelegate::didFinishDownloadingToFile(HttpSession& session,
                                                          const std::shared_ptr<HttpTask>& task,
                                                          const std::filesystem::path& file) {
  Download d{file, readFile(file), fileMode(file)};
  std::lock_guard lock(mu_);
  if (!session.callbackQueue()->isCurrent()) wrongQueue_ = true;
  events_.push_back("downloaded " + std::to_string(task->taskIdentifier()));
  downloads_.push_back(std::move(d));
}

}  // namespace vorlen::test
