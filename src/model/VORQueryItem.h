// VORQueryItem: one name/value pair that a client adds to the query of its request. A value that is
// absent ("name") differs from an empty one ("name=").
//
// Record: {"$class": "VORQueryItem", "name": string (required), "value": string}.
//
// Threading: a plain value.
#pragma once

#include <optional>
#include <string>

#include "model/TypedRecord.h"

namespace vorlen {

struct VORQueryItem : TypedRecord<VORQueryItem> {
  static constexpr const char* kClassName = "VORQueryItem";
  static const RecordBinding<VORQueryItem>& binding();

  std::string name;
  std::optional<std::string> value;

  bool operator==(const VORQueryItem&) const = default;
};

}  // namespace vorlen
