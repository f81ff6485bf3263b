#include "network/HttpEngine.h"

#include <algorithm>

#include "base/Log.h"
#include "base/Queue.h"

namespace vorlen {
namespace {

const Logger& log() {
  return VorlenLogForCategory(VorlenLogCategoryConnection);
}

// Longest sleep of the loop when nothing is due; wake-ups end it early.
constexpr int kMaxPollMs = 1000;

}  // namespace

HttpEngine& HttpEngine::shared() {
  // Never destroyed, like the worker pool and the global queues: work on those may still hand a transfer
  // to the engine while the process exits, and must never meet a half-destroyed one.
  static HttpEngine* engine = new HttpEngine();
  return *engine;
}

HttpEngine::HttpEngine() {
  // Process-wide objects the I/O thread uses are made first, so that they are destroyed after the engine
  // at exit (statics go in reverse order of construction).
  Queue::global(QueuePriority::UserInitiated);
  log();
  static std::once_flag curlInit;
  std::call_once(curlInit, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  multi_ = curl_multi_init();
  curl_multi_setopt(multi_, CURLMOPT_PIPELINING, long(CURLPIPE_MULTIPLEX));
  thread_ = std::thread([this] { run(); });
}

HttpEngine::~HttpEngine() {
  stopping_ = true;
  curl_multi_wakeup(multi_);
  if (thread_.joinable()) thread_.join();
  for (auto& [handle, id] : byHandle_) curl_multi_remove_handle(multi_, handle);
  byHandle_.clear();
  active_.clear();
  commands_.clear();
  curl_multi_cleanup(multi_);
}

void HttpEngine::add(uint64_t id, std::unique_ptr<HttpTransfer> transfer) {
  {
    std::lock_guard lock(mu_);
    commands_.push_back({id, std::move(transfer)});
  }
  curl_multi_wakeup(multi_);
}

void HttpEngine::cancel(uint64_t id) {
  {
    std::lock_guard lock(mu_);
    commands_.push_back({id, nullptr});
  }
  curl_multi_wakeup(multi_);
}

size_t HttpEngine::activeCountForTesting() {
  std::lock_guard lock(mu_);
  return activeCount_;
}

void HttpEngine::run() {
  while (!stopping_) {
    drainCommands();
    int running = 0;
    curl_multi_perform(multi_, &running);
    collectFinished();
    enforceIdleTimeouts();
    {
      std::lock_guard lock(mu_);
      activeCount_ = active_.size();
      if (!commands_.empty()) continue;
    }
    curl_multi_poll(multi_, nullptr, 0, pollTimeoutMs(), nullptr);
  }
}

void HttpEngine::drainCommands() {
  std::vector<Command> commands;
  {
    std::lock_guard lock(mu_);
    commands.swap(commands_);
  }
  for (Command& c : commands) {
    if (c.transfer) {
      CURL* easy = c.transfer->easy();
      if (c.transfer->share()) curl_easy_setopt(easy, CURLOPT_SHARE, c.transfer->share());
      c.transfer->markActivity();
      CURLMcode rc = curl_multi_add_handle(multi_, easy);
      if (rc != CURLM_OK) {
        log().error("cannot start transfer: {}", curl_multi_strerror(rc));
        c.transfer->fail(HttpError::make(HttpError::kUnknown, curl_multi_strerror(rc)));
        continue;
      }
      byHandle_[easy] = c.id;
      active_[c.id] = std::move(c.transfer);
    } else {
      removeAndFail(c.id, HttpError::make(HttpError::kCancelled, "cancelled"));
    }
  }
}

void HttpEngine::removeAndFail(uint64_t id, HttpError error) {
  auto it = active_.find(id);
  if (it == active_.end()) return;  // already ended
  std::unique_ptr<HttpTransfer> transfer = std::move(it->second);
  active_.erase(it);
  byHandle_.erase(transfer->easy());
  curl_multi_remove_handle(multi_, transfer->easy());
  transfer->fail(std::move(error));
}

void HttpEngine::collectFinished() {
  int left = 0;
  while (CURLMsg* msg = curl_multi_info_read(multi_, &left)) {
    if (msg->msg != CURLMSG_DONE) continue;
    CURL* easy = msg->easy_handle;
    CURLcode code = msg->data.result;
    auto h = byHandle_.find(easy);
    if (h == byHandle_.end()) continue;
    uint64_t id = h->second;
    byHandle_.erase(h);
    auto it = active_.find(id);
    std::unique_ptr<HttpTransfer> transfer = std::move(it->second);
    active_.erase(it);
    curl_multi_remove_handle(multi_, easy);
    transfer->complete(code);
  }
}

void HttpEngine::enforceIdleTimeouts() {
  auto now = std::chrono::steady_clock::now();
  std::vector<uint64_t> expired;
  for (const auto& [id, transfer] : active_) {
    if (transfer->idleDeadline() <= now) expired.push_back(id);
  }
  for (uint64_t id : expired) {
    removeAndFail(id, HttpError::make(HttpError::kTimedOut, "The request timed out."));
  }
}

int HttpEngine::pollTimeoutMs() const {
  auto now = std::chrono::steady_clock::now();
  int ms = kMaxPollMs;
  for (const auto& [id, transfer] : active_) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(transfer->idleDeadline() - now).count();
    ms = std::min<long long>(ms, std::max<long long>(left + 1, 0));
  }
  return ms;
}

}  // namespace vorlen
