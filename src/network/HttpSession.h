// HttpSession: a set of HTTP tasks sharing settings, a callback queue, an optional in-memory response
// cache and an optional delegate. Transfers run on the process's one I/O thread (HttpEngine); every
// completion handler and delegate call runs on the session's serial callback queue, never on the I/O
// thread, in the order the events happened.
//
// Each session pools its own connections (idle ones are dropped after idleConnectionMaxAgeSeconds), so
// a connection never carries requests of two sessions.
//
// Tasks: dataTask() with a completion handler (data, response, error), downloadTask() into a temporary
// file (mode 0600) and uploadTask() from a file, both reported to the delegate. Every task is made
// suspended; the caller resumes it. A data task that finds a fresh entry in the response cache completes
// from it without touching the network (its metrics say servedFromCache).
//
// A session is shared_ptr-owned. A running task keeps its session alive until its completion has run;
// the delegate is held weakly.
//
// Threading: every public method is safe from any thread.
#pragma once

#include <curl/curl.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "base/Queue.h"
#include "network/HttpError.h"
#include "network/HttpRequest.h"
#include "network/HttpResponse.h"
#include "network/HttpSessionDelegate.h"
#include "network/HttpSessionSettings.h"
#include "network/HttpTask.h"
#include "network/HttpTransfer.h"
#include "network/ResponseCache.h"

namespace vorlen {

class HttpSession : public std::enable_shared_from_this<HttpSession> {
 public:
  // `response` is present whenever a response arrived, with any status; `error` only for transport
  // failures (and then `data` is empty).
  using DataCompletion =
      std::function<void(const std::vector<uint8_t>& data, const std::optional<HttpResponse>& response,
                         const std::optional<HttpError>& error)>;

  static std::shared_ptr<HttpSession> create(HttpSessionSettings settings,
                                             std::weak_ptr<HttpSessionDelegate> delegate = {});
  ~HttpSession();
  HttpSession(const HttpSession&) = delete;
  HttpSession& operator=(const HttpSession&) = delete;

  // A null completion reports the end to the delegate instead.
  std::shared_ptr<HttpTask> dataTask(HttpRequest request, DataCompletion completion);
  std::shared_ptr<HttpTask> downloadTask(HttpRequest request);
  // Sends the file's bytes as the request body (method POST unless the request names another).
  std::shared_ptr<HttpTask> uploadTask(HttpRequest request, std::filesystem::path file);

  // Tasks that have not ended (suspended or running), in creation order.
  std::vector<std::shared_ptr<HttpTask>> getAllTasks() const;

  // Drops every entry of the in-memory response cache; nothing when the session has none.
  void purgeInMemoryCache();

  const HttpSessionSettings& settings() const { return settings_; }
  const std::shared_ptr<Queue>& callbackQueue() const { return settings_.callbackQueue; }
  // The response cache, or null when the session has none.
  ResponseCache* responseCache() const { return cache_.get(); }

 private:
  friend class HttpTask;

  HttpSession(HttpSessionSettings settings, std::weak_ptr<HttpSessionDelegate> delegate);

  std::shared_ptr<HttpTask> makeTask(HttpTask::Kind kind, HttpRequest request, std::filesystem::path file,
                                     DataCompletion completion);
  void _resume(const std::shared_ptr<HttpTask>& task);
  void _cancel(const std::shared_ptr<HttpTask>& task);
  void _post(const std::shared_ptr<HttpTask>& task, HttpTransfer::Result result);
  void _deliver(const std::shared_ptr<HttpTask>& task, HttpTransfer::Result result);  // on the callback queue

  HttpSessionSettings settings_;
  const std::weak_ptr<HttpSessionDelegate> delegate_;
  std::unique_ptr<ResponseCache> cache_;
  CURLSH* share_ = nullptr;  // connection pool and TLS session cache; used on the I/O thread only
  std::atomic<uint64_t> nextTaskId_{0};

  mutable std::mutex mu_;
  std::map<uint64_t, std::shared_ptr<HttpTask>> tasks_;
  std::map<uint64_t, DataCompletion> completions_;
};

}  // namespace vorlen
