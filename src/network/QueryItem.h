// QueryItem: one name/value pair of a URL query, held decoded. A value that is absent ("name") differs
// from an empty one ("name=").
//
// Threading: plain value type.
#pragma once

#include <optional>
#include <string>

namespace vorlen {

struct QueryItem {
  std::string name;
  std::optional<std::string> value;

  bool operator==(const QueryItem&) const = default;
};

}  // namespace vorlen
