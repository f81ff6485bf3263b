// HttpTransfer: the libcurl side of one running task: the easy handle, the request headers and body, the
// response being received (into memory or into a temporary download file) and the upload file being
// read. It is built on the resuming thread and then belongs to the I/O thread (HttpEngine): every method
// below except create() runs there. When it ends it hands a Result to its `finished` callback, on the
// I/O thread; the session moves that work onto its own queue at once.
//
// Download files are created with mode 0600 in the session's temporary folder and handed over in the
// Result; a transfer that fails removes its file itself.
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "network/HttpError.h"
#include "network/HttpRequest.h"
#include "network/HttpResponse.h"
#include "network/HttpSessionSettings.h"
#include "network/TaskMetrics.h"

namespace vorlen {

class HttpTransfer {
 public:
  enum class Sink { Memory, File };

  struct Result {
    std::vector<uint8_t> data;   // Memory sink
    std::filesystem::path file;  // File sink, when a response arrived
    std::optional<HttpResponse> response;
    std::optional<HttpError> error;
    std::optional<TaskMetrics> metrics;  // absent when nothing reached the I/O thread
  };
  struct Callbacks {
    std::function<void(Result)> finished;
    // bytes sent since the last call, total sent, total expected
    std::function<void(int64_t, int64_t, int64_t)> sentBody;
  };

  // Prepares a transfer; an error when it cannot start (malformed request, unreadable upload file, no
  // temporary file).
  static std::variant<std::unique_ptr<HttpTransfer>, HttpError> create(
      const HttpRequest& request, const HttpSessionSettings& settings, Sink sink,
      const std::filesystem::path& uploadFile, Time fetchStart, Callbacks callbacks, CURLSH* share);
  ~HttpTransfer();
  HttpTransfer(const HttpTransfer&) = delete;
  HttpTransfer& operator=(const HttpTransfer&) = delete;

  CURL* easy() const { return easy_; }
  // The session's share handle (connection pool, TLS sessions), attached on the I/O thread; may be null.
  CURLSH* share() const { return share_; }
  // Restarts the idle time-out; the engine calls it when the transfer enters the multi handle.
  void markActivity() { lastActivity_ = std::chrono::steady_clock::now(); }
  // When the idle time-out runs out, given the bytes moved so far.
  std::chrono::steady_clock::time_point idleDeadline() const { return lastActivity_ + idleTimeout_; }

  // libcurl finished the transfer with `code` (the handle is already out of the multi handle).
  void complete(CURLcode code);
  // The transfer was stopped from outside (cancel, idle time-out); the handle is already out.
  void fail(HttpError error);

 private:
  HttpTransfer() = default;

  static size_t onHeader(char* buffer, size_t size, size_t count, void* self);
  static size_t onWrite(char* buffer, size_t size, size_t count, void* self);
  static size_t onRead(char* buffer, size_t size, size_t count, void* self);
  static int onProgress(void* self, curl_off_t dlTotal, curl_off_t dlNow, curl_off_t ulTotal,
                        curl_off_t ulNow);

  TaskMetrics readMetrics() const;
  void finish(Result result);
  void closeFiles();

  CURL* easy_ = nullptr;
  CURLSH* share_ = nullptr;
  curl_slist* headerList_ = nullptr;
  std::string url_;
  std::vector<uint8_t> requestBody_;
  Sink sink_ = Sink::Memory;
  Callbacks callbacks_;
  Time fetchStart_{};

  std::chrono::steady_clock::duration idleTimeout_{};
  std::chrono::steady_clock::time_point lastActivity_{};

  // Response being received. Each status line starts a new header block, so after redirects and interim
  // responses the last block is the final response's.
  std::vector<std::pair<std::string, std::string>> headers_;
  std::vector<uint8_t> body_;
  int downloadFd_ = -1;
  std::filesystem::path downloadPath_;
  bool writeFailed_ = false;
  uint64_t maxDownloadBytes_ = 0;  // 0: no limit
  uint64_t downloaded_ = 0;
  bool tooLarge_ = false;

  int uploadFd_ = -1;
  int64_t uploadSize_ = 0;
  int64_t uploadReported_ = 0;
  curl_off_t lastDownloaded_ = 0;
  curl_off_t lastUploaded_ = 0;
  bool readFailed_ = false;

  bool finished_ = false;
  char errorBuffer_[CURL_ERROR_SIZE] = {};
};

}  // namespace vorlen
