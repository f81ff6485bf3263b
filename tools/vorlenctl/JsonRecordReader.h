// JsonRecordReader: turns a JSON object written by a person ({"$class": ..., fields...}) into a record
// Value, typed by the record schema: an integer given for a real field becomes a real, a UUID string for
// a GUID field becomes its 16 bytes, a nested object without "$class" takes the class its field
// declares. A feedback event without "timestamp" is stamped with the current machine time.
//
// Rejected with a reason naming the place: an unknown class or field, a value of the wrong JSON type,
// and date or data fields, which have no JSON text form this tool accepts. The result is not yet the
// strict record check; the client runs that before sending.
//
// Threading: stateless.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "base/Value.h"

namespace vorlen::ctl {

class JsonRecordReader {
 public:
  // `expectedClass`: the class the record must be or derive from (empty: any).
  static std::optional<Value> read(const nlohmann::json& object, std::string_view expectedClass,
                                   std::string* error);
};

}  // namespace vorlen::ctl
