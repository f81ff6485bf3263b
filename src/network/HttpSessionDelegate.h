// HttpSessionDelegate: receiver of a session's task events, for tasks that have no completion handler
// (download and upload tasks always; data tasks made without one).
//
// Every call arrives on the session's callback queue, never on the I/O thread. For a download task,
// didFinishDownloadingToFile() comes before didCompleteWithError() and only when a response arrived (any
// status); the file (mode 0600) is removed when that call returns, so a delegate that wants it moves it.
// The session holds its delegate weakly: events for a delegate that is gone are dropped.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>

#include "network/HttpError.h"

namespace vorlen {

class HttpSession;
class HttpTask;

class HttpSessionDelegate {
 public:
  virtual ~HttpSessionDelegate() = default;

  // The task ended; `error` is absent when a response arrived (whatever its status).
  virtual void didCompleteWithError(HttpSession& session, const std::shared_ptr<HttpTask>& task,
                                    const std::optional<HttpError>& error) = 0;
  virtual void didFinishDownloadingToFile(HttpSession& /*session*/, const std::shared_ptr<HttpTask>& /*task*/,
                                          const std::filesystem::path& /*file*/) {}
  // Upload progress: bytes sent since the last call, in total, and the total expected.
  virtual void didSendBodyData(HttpSession& /*session*/, const std::shared_ptr<HttpTask>& /*task*/,
                               int64_t /*bytesSent*/, int64_t /*totalBytesSent*/,
                               int64_t /*totalBytesExpectedToSend*/) {}
};

}  // namespace vorlen
