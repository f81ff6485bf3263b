// NetworkTimingData: the timing data of one HTTP task in the form feedback events carry it, and the
// client-facing error of a transport failure.
//
// Timing data: "fetchStart" (seconds since 1970), the phase marks "domainLookupEnd", "connectEnd",
// "secureConnectionEnd", "requestStart", "responseStart", "responseEnd" in milliseconds from the fetch
// start, "redirectCount", "requestBytesSent", "bodyBytesReceived", "reusedConnection", and "protocolName"
// when known. Empty for a task without metrics.
//
// Threading: stateless.
#pragma once

#include <optional>

#include "base/Value.h"
#include "model/VORError.h"
#include "network/HttpError.h"
#include "network/TaskMetrics.h"

namespace vorlen {

class NetworkTimingData {
 public:
  static Value::Dict fromMetrics(const std::optional<TaskMetrics>& metrics);
  // The transport error as a client sees it: the same domain and code, "reason" = the error's message.
  static VORError errorFromTransport(const HttpError& error);
};

}  // namespace vorlen
