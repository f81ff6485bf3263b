// Value: the property-list value model shared by preferences, IPC payloads, records, session files and the
// bag cache. A Value is one of: null (absent), string, signed 64-bit integer, unsigned 64-bit integer,
// double, bool, date, data, array, dictionary.
//
// Integers: a signed and an unsigned integer holding the same number compare equal, and the typed getters
// convert between them when the number fits, so callers need not care which form a decoder produced.
// Unsigned values above 2^63-1 exist only as UInt.
//
// Records (archived objects) are dictionaries with a "$class" string entry; see className().
//
// Values are plain data: copying is deep, and a const Value is safe to read from many threads.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "base/Clock.h"

namespace vorlen {

class Value {
 public:
  using Array = std::vector<Value>;
  using Dict = std::map<std::string, Value, std::less<>>;
  using Data = std::vector<uint8_t>;
  struct Date {
    Time time;
    bool operator==(const Date&) const = default;
  };
  enum class Type { Null, String, Int, UInt, Real, Bool, Date, Data, Array, Dict };

  Value() = default;
  Value(std::nullptr_t) {}
  Value(const char* s) : v_(std::string(s)) {}
  Value(std::string s) : v_(std::move(s)) {}
  Value(std::string_view s) : v_(std::string(s)) {}
  Value(int i) : v_(int64_t(i)) {}
  Value(long i) : v_(int64_t(i)) {}
  Value(long long i) : v_(int64_t(i)) {}
  Value(unsigned i) : v_(uint64_t(i)) {}
  Value(unsigned long i) : v_(uint64_t(i)) {}
  Value(unsigned long long i) : v_(uint64_t(i)) {}
  Value(double d) : v_(d) {}
  Value(bool b) : v_(b) {}
  Value(Date d) : v_(d) {}
  Value(Time t) : v_(Date{t}) {}
  Value(Data d) : v_(std::move(d)) {}
  Value(Array a) : v_(std::move(a)) {}
  Value(Dict d) : v_(std::move(d)) {}

  static Value dict(std::initializer_list<std::pair<const std::string, Value>> entries) {
    return Value(Dict(entries));
  }
  static Value array(std::initializer_list<Value> items) { return Value(Array(items)); }
  // An empty record of a class: {"$class": name}.
  static Value record(std::string_view className);

  Type type() const { return static_cast<Type>(v_.index()); }
  bool isNull() const { return type() == Type::Null; }
  bool isString() const { return type() == Type::String; }
  bool isInteger() const { return type() == Type::Int || type() == Type::UInt; }
  bool isNumber() const { return isInteger() || type() == Type::Real; }
  bool isBool() const { return type() == Type::Bool; }
  bool isDate() const { return type() == Type::Date; }
  bool isData() const { return type() == Type::Data; }
  bool isArray() const { return type() == Type::Array; }
  bool isDict() const { return type() == Type::Dict; }

  // Typed reads that never throw: a wrong type or an out-of-range number yields nullopt / nullptr.
  std::optional<int64_t> getInt() const;    // Int, UInt that fits, integral Real
  std::optional<uint64_t> getUInt() const;  // UInt, non-negative Int, integral non-negative Real
  std::optional<double> getDouble() const;  // any number
  std::optional<bool> getBool() const;      // Bool only
  std::optional<Time> getDate() const;
  const std::string* getString() const;
  const Data* getData() const;
  const Array* getArray() const;
  const Dict* getDict() const;
  Array* getArray();
  Dict* getDict();

  // Dictionary access. find() yields nullptr for a missing key or a non-dictionary.
  const Value* find(std::string_view key) const;
  // Sets a key, turning a null value into a dictionary first, and returns *this so that calls chain.
  // REQUIRES: isNull() || isDict().
  Value& set(std::string key, Value v);
  bool erase(std::string_view key);

  // "$class" of a record, or empty when this is not a record.
  std::string_view className() const;

  bool operator==(const Value& other) const;

  // A short human-readable rendering (for logs and the command-line tool); not a stable format. Long data
  // is abbreviated.
  std::string describe() const;
  // The kind of value in words, for error messages: "string", "integer", "real", "record" (a dictionary
  // with a "$class"), "dictionary", ...
  const char* typeName() const;

 private:
  std::variant<std::monostate, std::string, int64_t, uint64_t, double, bool, Date, Data, Array, Dict> v_;
};

}  // namespace vorlen
