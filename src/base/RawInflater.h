// RawInflater: inflates a raw DEFLATE stream (no zlib or gzip wrapper), as feedback payloads are sent,
// refusing what is broken, cut short, followed by more bytes, or larger than a bound when inflated.
//
// Threading: stateless; safe from any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vorlen {

class RawInflater {
 public:
  struct Failure {
    std::string reason;     // "deflate stream cut short", "body inflates past N bytes", ...
    bool tooLarge = false;  // the stream was sound so far but inflates past `maxBytes`
  };

  // The inflated bytes, or nullopt with *failure (when given) saying why.
  static std::optional<std::string> inflate(std::string_view in, size_t maxBytes, Failure* failure = nullptr);
};

}  // namespace vorlen
