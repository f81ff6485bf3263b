// HttpResponse: the status, header fields and final URL (after redirects) of an HTTP response.
//
// Header fields keep their wire order and spelling; header() looks a name up without regard to case and
// joins repeated fields with ", " as HTTP allows.
//
// Threading: plain value type.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vorlen {

struct HttpResponse {
  long status = 0;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string url;

  std::optional<std::string> header(std::string_view name) const;
};

}  // namespace vorlen
