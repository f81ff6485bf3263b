// VORSessionConfiguration: what a client says about itself when it configures its connection. The
// identifier names the client and keys its state in the daemon; the user agent is the client's agent
// text, from which the daemon builds the agent of the client's requests.
//
// Record: {"$class": "VORSessionConfiguration", "identifier": string, "userAgent": string,
//          "requestTimeout": real (seconds)}.
// requestTimeout bounds each HTTP request made for this client; 0 means the daemon's default
// (kDefaultRequestTimeout).
//
// Threading: a plain value.
#pragma once

#include <string>

#include "model/TypedRecord.h"

namespace vorlen {

struct VORSessionConfiguration : TypedRecord<VORSessionConfiguration> {
  static constexpr const char* kClassName = "VORSessionConfiguration";
  static constexpr double kDefaultRequestTimeout = 30.0;  // seconds
  static const RecordBinding<VORSessionConfiguration>& binding();

  std::string identifier;
  std::string userAgent;
  double requestTimeout = 0.0;

  // requestTimeout, or the default when it is not positive.
  double effectiveRequestTimeout() const {
    return requestTimeout > 0 ? requestTimeout : kDefaultRequestTimeout;
  }

  bool operator==(const VORSessionConfiguration&) const = default;
};

}  // namespace vorlen
