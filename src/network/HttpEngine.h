// HttpEngine: the one I/O thread of the process that drives every HTTP transfer through a libcurl multi
// handle (curl_multi_poll / curl_multi_wakeup loop). Sessions hand it prepared transfers and cancel them
// by id; when a transfer ends, its `finished` callback runs on the I/O thread and must only post work to
// another queue.
//
// Connections are pooled per session (each session attaches its own share handle to its transfers);
// idle time-outs of requests are enforced here, so they need not be whole seconds.
//
// Threading: add() and cancel() are safe from any thread and never block on network work. Transfers are
// touched only by the I/O thread once added. The engine lives until process exit; its destructor stops
// the thread and drops unfinished transfers without calling them back.
#pragma once

#include <curl/curl.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "network/HttpTransfer.h"

namespace vorlen {

class HttpEngine {
 public:
  static HttpEngine& shared();

  uint64_t nextTransferId() { return nextId_.fetch_add(1) + 1; }
  void add(uint64_t id, std::unique_ptr<HttpTransfer> transfer);
  // Ends the transfer with "cancelled" unless it has already ended.
  void cancel(uint64_t id);
  // Transfers in the multi handle right now; for tests.
  size_t activeCountForTesting();

  bool isIoThread() const { return std::this_thread::get_id() == thread_.get_id(); }

  ~HttpEngine();
  HttpEngine(const HttpEngine&) = delete;
  HttpEngine& operator=(const HttpEngine&) = delete;

 private:
  HttpEngine();
  void run();
  void drainCommands();
  void collectFinished();
  void enforceIdleTimeouts();
  int pollTimeoutMs() const;
  void removeAndFail(uint64_t id, HttpError error);

  struct Command {
    uint64_t id;
    std::unique_ptr<HttpTransfer> transfer;  // null: cancel
  };

  CURLM* multi_ = nullptr;
  std::atomic<uint64_t> nextId_{0};
  std::atomic<bool> stopping_{false};

  std::mutex mu_;
  std::vector<Command> commands_;
  size_t activeCount_ = 0;  // guarded by mu_, mirrors active_.size()

  // I/O thread only.
  std::map<uint64_t, std::unique_ptr<HttpTransfer>> active_;
  std::map<CURL*, uint64_t> byHandle_;

  std::thread thread_;
};

}  // namespace vorlen
