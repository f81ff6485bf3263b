#include "network/HttpSession.h"

#include <unistd.h>

#include "base/Log.h"
#include "network/HttpEngine.h"

namespace vorlen {
namespace {

const Logger& log() {
  return VorlenLogForCategory(VorlenLogCategoryConnection);
}

}  // namespace

std::shared_ptr<HttpSession> HttpSession::create(HttpSessionSettings settings,
                                                 std::weak_ptr<HttpSessionDelegate> delegate) {
  return std::shared_ptr<HttpSession>(new HttpSession(std::move(settings), std::move(delegate)));
}

HttpSession::HttpSession(HttpSessionSettings settings, std::weak_ptr<HttpSessionDelegate> delegate)
    : settings_(std::move(settings)), delegate_(std::move(delegate)) {
  HttpEngine::shared();  // libcurl's global state is set up before the first handle of any kind
  if (!settings_.clock) settings_.clock = Clock::system();
  if (!settings_.callbackQueue) {
    settings_.callbackQueue = Queue::serial(
        "com.velmo.vorlend.http." + settings_.name,
        settings_.background ? QueuePriority::Utility : QueuePriority::UserInitiated, settings_.clock);
  }
  if (settings_.responseCacheBytes > 0) {
    cache_ = std::make_unique<ResponseCache>(settings_.responseCacheBytes, settings_.clock);
  }
  // The session's own connection pool (and TLS session cache when resumption is allowed): connections
  // are never handed from one session to another.
  share_ = curl_share_init();
  if (share_) {
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
    if (settings_.tlsSessionReuse) curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  }
}

HttpSession::~HttpSession() {
  // Every transfer holds its session, so no easy handle uses the share any more.
  if (share_) curl_share_cleanup(share_);
}

std::shared_ptr<HttpTask> HttpSession::dataTask(HttpRequest request, DataCompletion completion) {
  return makeTask(HttpTask::Kind::Data, std::move(request), {}, std::move(completion));
}

std::shared_ptr<HttpTask> HttpSession::downloadTask(HttpRequest request) {
  return makeTask(HttpTask::Kind::Download, std::move(request), {}, nullptr);
}

std::shared_ptr<HttpTask> HttpSession::uploadTask(HttpRequest request, std::filesystem::path file) {
  if (request.method == "GET") request.method = "POST";
  return makeTask(HttpTask::Kind::Upload, std::move(request), std::move(file), nullptr);
}

std::shared_ptr<HttpTask> HttpSession::makeTask(HttpTask::Kind kind, HttpRequest request,
                                                std::filesystem::path file, DataCompletion completion) {
  uint64_t id = nextTaskId_.fetch_add(1) + 1;
  std::shared_ptr<HttpTask> task(
      new HttpTask(weak_from_this(), id, kind, std::move(request), std::move(file)));
  std::lock_guard lock(mu_);
  tasks_[id] = task;
  if (completion) completions_[id] = std::move(completion);
  return task;
}

std::vector<std::shared_ptr<HttpTask>> HttpSession::getAllTasks() const {
  std::lock_guard lock(mu_);
  std::vector<std::shared_ptr<HttpTask>> out;
  out.reserve(tasks_.size());
  for (const auto& [id, task] : tasks_) out.push_back(task);
  return out;
}

void HttpSession::purgeInMemoryCache() {
  if (cache_) cache_->purge();
}

void HttpSession::_resume(const std::shared_ptr<HttpTask>& task) {
  std::lock_guard lock(task->mu_);
  if (task->state_ != HttpTask::State::Suspended) return;
  task->state_ = HttpTask::State::Running;

  if (task->kind_ == HttpTask::Kind::Data && cache_) {
    if (auto hit = cache_->lookup(task->request_)) {
      HttpTransfer::Result result;
      result.data = std::move(hit->data);
      result.response = std::move(hit->response);
      TaskMetrics metrics;
      metrics.fetchStart = settings_.clock->now();
      metrics.servedFromCache = true;
      result.metrics = metrics;
      _post(task, std::move(result));
      return;
    }
  }

  HttpTransfer::Callbacks callbacks;
  // The transfer keeps the session alive until its result is on the callback queue.
  callbacks.finished = [self = shared_from_this(), task](HttpTransfer::Result result) {
    self->_post(task, std::move(result));
  };
  if (task->kind_ == HttpTask::Kind::Upload) {
    callbacks.sentBody = [self = shared_from_this(), task](int64_t sent, int64_t total, int64_t expected) {
      self->settings_.callbackQueue->async([self, task, sent, total, expected] {
        if (auto delegate = self->delegate_.lock())
          delegate->didSendBodyData(*self, task, sent, total, expected);
      });
    };
  }
  auto sink = task->kind_ == HttpTask::Kind::Download ? HttpTransfer::Sink::File : HttpTransfer::Sink::Memory;
  auto made = HttpTransfer::create(task->request_, settings_, sink, task->uploadFile_, settings_.clock->now(),
                                   std::move(callbacks), share_);
  if (auto* error = std::get_if<HttpError>(&made)) {
    HttpTransfer::Result result;
    result.error = std::move(*error);
    _post(task, std::move(result));
    return;
  }
  HttpEngine& engine = HttpEngine::shared();
  task->transferId_ = engine.nextTransferId();
  engine.add(task->transferId_, std::move(std::get<std::unique_ptr<HttpTransfer>>(made)));
}

void HttpSession::_cancel(const std::shared_ptr<HttpTask>& task) {
  std::lock_guard lock(task->mu_);
  switch (task->state_) {
    case HttpTask::State::Suspended: {
      task->state_ = HttpTask::State::Canceling;
      HttpTransfer::Result result;
      result.error = HttpError::make(HttpError::kCancelled, "cancelled", task->request_.url);
      _post(task, std::move(result));
      break;
    }
    case HttpTask::State::Running:
      task->state_ = HttpTask::State::Canceling;
      if (task->transferId_ != 0) HttpEngine::shared().cancel(task->transferId_);
      break;
    case HttpTask::State::Canceling:
    case HttpTask::State::Completed:
      break;
  }
}

void HttpSession::_post(const std::shared_ptr<HttpTask>& task, HttpTransfer::Result result) {
  settings_.callbackQueue->async([self = shared_from_this(), task, result = std::move(result)]() mutable {
    self->_deliver(task, std::move(result));
  });
}

void HttpSession::_deliver(const std::shared_ptr<HttpTask>& task, HttpTransfer::Result result) {
  {
    std::lock_guard lock(task->mu_);
    task->state_ = HttpTask::State::Completed;
    task->response_ = result.response;
    task->metrics_ = result.metrics;
    task->error_ = result.error;
  }
  DataCompletion completion;
  {
    std::lock_guard lock(mu_);
    tasks_.erase(task->identifier_);
    if (auto it = completions_.find(task->identifier_); it != completions_.end()) {
      completion = std::move(it->second);
      completions_.erase(it);
    }
  }
  if (result.error) {
    log().debug("task {} of {} failed: {} {}", task->identifier_, settings_.name, result.error->code,
                result.error->message);
  }
  bool fromCache = result.metrics && result.metrics->servedFromCache;
  if (cache_ && !fromCache && !result.error && result.response && task->kind_ == HttpTask::Kind::Data) {
    cache_->store(task->request_, *result.response, result.data);
  }

  auto delegate = delegate_.lock();
  if (!result.file.empty()) {
    // The downloaded file lives only for the duration of this call; a delegate that wants it moves it.
    if (!completion && delegate && !result.error)
      delegate->didFinishDownloadingToFile(*this, task, result.file);
    ::unlink(result.file.c_str());
  }
  if (completion) {
    completion(result.data, result.response, result.error);
  } else if (delegate) {
    delegate->didCompleteWithError(*this, task, result.error);
  }
}

}  // namespace vorlen
