// TaskMetrics: timing data and connection facts of one HTTP task, read from the transfer when it ends.
//
// Phase marks are offsets from `fetchStart` at which the phase had completed (libcurl's *_TIME_T values):
// a phase that did not happen (no DNS on a reused connection, no TLS on plain HTTP) is zero. `fetchStart`
// is read from the session's clock when the transfer is handed to the I/O thread.
//
// Threading: plain value type.
#pragma once

#include <cstdint>
#include <string>

#include "base/Clock.h"

namespace vorlen {

struct TaskMetrics {
  Time fetchStart{};
  Duration domainLookupEnd{};
  Duration connectEnd{};
  Duration secureConnectionEnd{};
  Duration requestStart{};   // request about to be sent (pre-transfer)
  Duration responseStart{};  // first response byte
  Duration responseEnd{};    // transfer complete
  Duration redirectTime{};   // spent in redirects before the final request
  long redirectCount = 0;

  int64_t requestBytesSent = 0;     // request lines and header fields of every request sent
  int64_t bodyBytesSent = 0;        // request body bytes sent
  int64_t headerBytesReceived = 0;  // response status lines and header fields
  int64_t bodyBytesReceived = 0;    // response body bytes as received, before content decoding

  // Connection facts.
  bool reusedConnection = false;  // no new connection was opened for this task
  std::string localAddress;
  long localPort = 0;
  std::string remoteAddress;
  long remotePort = 0;
  std::string protocolName;  // "http/1.0", "http/1.1", "h2", "h3"; empty when unknown

  bool servedFromCache = false;  // answered from the session's response cache, nothing was sent
};

}  // namespace vorlen
