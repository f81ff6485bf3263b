// Endpoint: the address of an anonymous listener as it travels in messages: the path of its socket.
//
// Record: {"$class": "Endpoint", "path": string (required)}.
//
// Threading: a plain value.
#pragma once

#include <string>

#include "model/TypedRecord.h"

namespace vorlen {

struct Endpoint : TypedRecord<Endpoint> {
  static constexpr const char* kClassName = "Endpoint";
  static const RecordBinding<Endpoint>& binding();

  std::string path;

  bool operator==(const Endpoint&) const = default;
};

}  // namespace vorlen
