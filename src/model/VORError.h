// VORError: an error as clients receive it: a domain, a numeric code and user information whose
// "reason" entry holds a short explanation ("invalid configuration", "timeout").
//
// Record: {"$class": "VORError", "domain": string (required), "code": integer (required),
//          "userInfo": dictionary}.
//
// Threading: a plain value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "model/TypedRecord.h"

namespace vorlen {

struct VORError : TypedRecord<VORError> {
  static constexpr const char* kClassName = "VORError";
  static const RecordBinding<VORError>& binding();

  std::string domain;
  int64_t code = 0;
  Value::Dict userInfo;

  // An error of the daemon's domain with {"reason": reason}.
  static VORError make(int64_t code, std::string reason);
  // The "reason" entry when it is a string.
  std::optional<std::string> reason() const;
  // "<domain> <code>: <reason>" for log lines.
  std::string describe() const;

  bool operator==(const VORError&) const = default;
};

}  // namespace vorlen
