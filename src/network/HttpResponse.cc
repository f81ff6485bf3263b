#include "network/HttpResponse.h"

#include <strings.h>

namespace vorlen {

std::optional<std::string> HttpResponse::header(std::string_view name) const {
  std::optional<std::string> out;
  for (const auto& [key, value] : headers) {
    if (key.size() != name.size() || strncasecmp(key.data(), name.data(), name.size()) != 0) continue;
    if (out) {
      *out += ", " + value;
    } else {
      out = value;
    }
  }
  return out;
}

}  // namespace vorlen
