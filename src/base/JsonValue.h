// JsonValue: the conversion between property-list Values and JSON, for JSON that arrives from outside
// (server bodies and headers, command-line input) and for printing.
//
// Value to JSON (output): strings, numbers, booleans, arrays and dictionaries map directly; data becomes
// a base64 string and a date an ISO-8601 UTC string with microseconds, so every value can be printed.
// JSON to Value (input): strings, booleans, arrays and objects map directly; integers become signed
// integers (unsigned above 2^63-1), other numbers reals. JSON null has no property-list form: a null
// object member or array item is left out (as the archive coder leaves out null entries), and only a null
// root is rejected. Nesting deeper than kMaxDepth containers is rejected: the property-list codec's own
// limit, so whatever converts can also be stored, and far above any real server document (a bag nests a
// handful of levels); it is a guard against hostile input, not a format rule.
//
// Threading: stateless.
#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "base/Value.h"

namespace vorlen {

class JsonValue {
 public:
  static constexpr int kMaxDepth = 64;

  static nlohmann::ordered_json toJson(const Value& value);
  // nullopt with the place and reason in *error when `json` is null or nests too deeply.
  static std::optional<Value> toValue(const nlohmann::json& json, std::string* error);
};

}  // namespace vorlen
