// JsonValue: the conversion between property-list Values and JSON for vorlenctl's input and output.
//
// Value to JSON (output): strings, numbers, booleans, arrays and dictionaries map directly; data becomes
// a base64 string and a date an ISO-8601 UTC string with microseconds, so every value can be printed.
// JSON to Value (input): strings, booleans, arrays and objects map directly; integers become signed
// integers (unsigned above 2^63-1), other numbers reals. JSON null has no property-list form and is
// rejected.
//
// Threading: stateless.
#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "base/Value.h"

namespace vorlen::ctl {

class JsonValue {
 public:
  static nlohmann::ordered_json toJson(const Value& value);
  // nullopt with the place and reason in *error when `json` holds a null.
  static std::optional<Value> toValue(const nlohmann::json& json, std::string* error);
};

}  // namespace vorlen::ctl
