// HttpRequest: one HTTP request as the sessions send it.
//
// `headers` is an ordered map with exact (case-sensitive) names, as the request builder fills it; a
// header with an empty value is sent empty. `timeoutSeconds` is the idle time-out of the request (no
// bytes moved for that long fails it with "timed out"); unset means the session's request time-out.
//
// Threading: plain value type.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vorlen {

enum class HttpCachePolicy {
  UseProtocolCachePolicy,        // a session with a response cache answers fresh entries from it
  ReloadIgnoringLocalCacheData,  // always goes to the network (the response may still be stored)
};

struct HttpRequest {
  std::string url;
  std::string method = "GET";
  std::map<std::string, std::string> headers;
  std::vector<uint8_t> body;
  std::optional<double> timeoutSeconds;
  HttpCachePolicy cachePolicy = HttpCachePolicy::UseProtocolCachePolicy;

  // The value of a header, compared without regard to case; nullopt when absent.
  std::optional<std::string> header(std::string_view name) const;
};

}  // namespace vorlen
