// HttpSessionSettings: the configuration of one HTTP session, fixed when the session is made.
//
// Threading: plain value type.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "base/Clock.h"
#include "base/Queue.h"

namespace vorlen {

struct HttpSessionSettings {
  std::string name = "http";  // labels the callback queue and log lines

  // In-memory response cache budget in bytes; 0 disables the cache.
  size_t responseCacheBytes = 0;

  // Idle connections older than this are closed instead of being reused.
  double idleConnectionMaxAgeSeconds = 10.0;
  // TCP fast open on new connections, and resumption of earlier TLS sessions.
  bool tcpFastOpen = false;
  bool tlsSessionReuse = false;
  // Prefer HTTP/2 and multiplex requests to one host over one connection.
  bool http2Multiplexing = true;

  // Idle time-out of a request (no bytes moved) when the request sets none, and the limit of a whole
  // transfer, in seconds.
  double requestTimeoutSeconds = 60.0;
  double resourceTimeoutSeconds = 604800.0;

  // A download task whose body grows past this many bytes is stopped and fails with
  // kDataLengthExceedsMaximum (-1103); 0 means no limit.
  uint64_t maxDownloadBytes = 0;

  // Background sessions run in this process as well; the identifier names them in logs.
  bool background = false;
  std::string backgroundIdentifier;

  // Serial queue for completions and delegate callbacks; null makes one named "<name>.callbacks".
  std::shared_ptr<Queue> callbackQueue;
  // Clock for task timing marks and response-cache freshness; null means the system clock.
  std::shared_ptr<Clock> clock;
  // Folder of downloaded temporary files; empty means $TMPDIR, else /tmp.
  std::filesystem::path temporaryDirectory;
};

}  // namespace vorlen
