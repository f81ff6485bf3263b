// IpcEndpoint: the address of a listener that has no registered name (an anonymous listener). It travels
// in messages as the record {"$class": "Endpoint", "path": <socket path>}; a client connects to that path.
//
// Threading: a plain value.
#pragma once

#include <filesystem>
#include <optional>

#include "base/Value.h"

namespace vorlen {

struct IpcEndpoint {
  std::filesystem::path path;

  static constexpr const char* kClassName = "Endpoint";

  Value toValue() const;
  // nullopt unless `v` is an Endpoint record with a non-empty string path.
  static std::optional<IpcEndpoint> fromValue(const Value& v);

  bool operator==(const IpcEndpoint&) const = default;
};

}  // namespace vorlen
