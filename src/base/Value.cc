#include "base/Value.h"

#include <cassert>
#include <cmath>
#include <ctime>
#include <limits>

#include <fmt/format.h>

namespace vorlen {

namespace {

// 2^63 and 2^64 as doubles; both are exact.
constexpr double kTwoTo63 = 9223372036854775808.0;
constexpr double kTwoTo64 = 18446744073709551616.0;

// Data longer than this is shown as its first bytes and its length.
constexpr size_t kDescribeDataBytes = 32;

bool isIntegral(double d) {
  return std::isfinite(d) && std::trunc(d) == d;
}

void describeString(std::string_view s, std::string& out) {
  out += '"';
  for (char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          out += fmt::format("\\u{:04x}", static_cast<unsigned>(c));
        } else {
          out += c;
        }
    }
  }
  out += '"';
}

// ISO 8601 in UTC, with the fraction of a second only when there is one (microsecond resolution).
void describeDate(Time t, std::string& out) {
  using namespace std::chrono;
  auto us = duration_cast<microseconds>(t.time_since_epoch()).count();
  int64_t secs = us / 1000000;
  int64_t frac = us % 1000000;
  if (frac < 0) {
    frac += 1000000;
    secs -= 1;
  }
  time_t tt = static_cast<time_t>(secs);
  struct tm tm {};
  if (!gmtime_r(&tt, &tm)) {
    out += fmt::format("<date {}us>", us);
    return;
  }
  out += fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                     tm.tm_hour, tm.tm_min, tm.tm_sec);
  if (frac != 0) out += fmt::format(".{:06}", frac);
  out += 'Z';
}

}  // namespace

Value Value::record(std::string_view className) {
  Dict d;
  d.emplace("$class", Value(className));
  return Value(std::move(d));
}

std::optional<int64_t> Value::getInt() const {
  switch (type()) {
    case Type::Int:
      return std::get<int64_t>(v_);
    case Type::UInt: {
      uint64_t u = std::get<uint64_t>(v_);
      if (u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return std::nullopt;
      return static_cast<int64_t>(u);
    }
    case Type::Real: {
      double d = std::get<double>(v_);
      if (!isIntegral(d) || d < -kTwoTo63 || d >= kTwoTo63) return std::nullopt;
      return static_cast<int64_t>(d);
    }
    default:
      return std::nullopt;
  }
}

std::optional<uint64_t> Value::getUInt() const {
  switch (type()) {
    case Type::Int: {
      int64_t i = std::get<int64_t>(v_);
      if (i < 0) return std::nullopt;
      return static_cast<uint64_t>(i);
    }
    case Type::UInt:
      return std::get<uint64_t>(v_);
    case Type::Real: {
      double d = std::get<double>(v_);
      if (!isIntegral(d) || d < 0 || d >= kTwoTo64) return std::nullopt;
      return static_cast<uint64_t>(d);
    }
    default:
      return std::nullopt;
  }
}

std::optional<double> Value::getDouble() const {
  switch (type()) {
    case Type::Int:
      return static_cast<double>(std::get<int64_t>(v_));
    case Type::UInt:
      return static_cast<double>(std::get<uint64_t>(v_));
    case Type::Real:
      return std::get<double>(v_);
    default:
      return std::nullopt;
  }
}

std::optional<bool> Value::getBool() const {
  if (auto* b = std::get_if<bool>(&v_)) return *b;
  return std::nullopt;
}

std::optional<Time> Value::getDate() const {
  if (auto* d = std::get_if<Date>(&v_)) return d->time;
  return std::nullopt;
}

const std::string* Value::getString() const {
  return std::get_if<std::string>(&v_);
}
const Value::Data* Value::getData() const {
  return std::get_if<Data>(&v_);
}
const Value::Array* Value::getArray() const {
  return std::get_if<Array>(&v_);
}
const Value::Dict* Value::getDict() const {
  return std::get_if<Dict>(&v_);
}
Value::Array* Value::getArray() {
  return std::get_if<Array>(&v_);
}
Value::Dict* Value::getDict() {
  return std::get_if<Dict>(&v_);
}

const Value* Value::find(std::string_view key) const {
  const Dict* d = getDict();
  if (!d) return nullptr;
  auto it = d->find(key);
  return it == d->end() ? nullptr : &it->second;
}

Value& Value::set(std::string key, Value v) {
  assert((isNull() || isDict()) && "Value::set on a value that is neither null nor a dictionary");
  if (!isDict()) v_ = Dict();
  std::get<Dict>(v_).insert_or_assign(std::move(key), std::move(v));
  return *this;
}

bool Value::erase(std::string_view key) {
  Dict* d = getDict();
  if (!d) return false;
  auto it = d->find(key);
  if (it == d->end()) return false;
  d->erase(it);
  return true;
}

std::string_view Value::className() const {
  const Value* c = find("$class");
  if (!c) return {};
  const std::string* s = c->getString();
  return s ? std::string_view(*s) : std::string_view();
}

bool Value::operator==(const Value& other) const {
  // A signed and an unsigned integer are the same number when the signed one is non-negative and the
  // values agree; every other pair compares within its own type.
  if (type() == Type::Int && other.type() == Type::UInt) {
    int64_t i = std::get<int64_t>(v_);
    return i >= 0 && static_cast<uint64_t>(i) == std::get<uint64_t>(other.v_);
  }
  if (type() == Type::UInt && other.type() == Type::Int) return other == *this;
  return v_ == other.v_;
}

std::string Value::describe() const {
  std::string out;
  switch (type()) {
    case Type::Null:
      out = "null";
      break;
    case Type::String:
      describeString(std::get<std::string>(v_), out);
      break;
    case Type::Int:
      out = fmt::format("{}", std::get<int64_t>(v_));
      break;
    case Type::UInt:
      out = fmt::format("{}", std::get<uint64_t>(v_));
      break;
    case Type::Real:
      out = fmt::format("{}", std::get<double>(v_));
      // Keep reals recognisable next to integers: 1.0, not 1.
      if (out.find_first_of(".eEn") == std::string::npos) out += ".0";
      break;
    case Type::Bool:
      out = std::get<bool>(v_) ? "true" : "false";
      break;
    case Type::Date:
      describeDate(std::get<Date>(v_).time, out);
      break;
    case Type::Data: {
      const Data& d = std::get<Data>(v_);
      out = "<";
      for (size_t i = 0; i < d.size() && i < kDescribeDataBytes; ++i) out += fmt::format("{:02x}", d[i]);
      if (d.size() > kDescribeDataBytes) out += fmt::format("... {} bytes", d.size());
      out += ">";
      break;
    }
    case Type::Array: {
      out = "[";
      bool first = true;
      for (const Value& item : std::get<Array>(v_)) {
        if (!first) out += ", ";
        first = false;
        out += item.describe();
      }
      out += "]";
      break;
    }
    case Type::Dict: {
      out = "{";
      bool first = true;
      for (const auto& [key, item] : std::get<Dict>(v_)) {
        if (!first) out += ", ";
        first = false;
        describeString(key, out);
        out += ": ";
        out += item.describe();
      }
      out += "}";
      break;
    }
  }
  return out;
}

const char* Value::typeName() const {
  switch (type()) {
    case Value::Type::Null:
      return "null";
    case Value::Type::String:
      return "string";
    case Value::Type::Int:
    case Value::Type::UInt:
      return "integer";
    case Value::Type::Real:
      return "real";
    case Value::Type::Bool:
      return "boolean";
    case Value::Type::Date:
      return "date";
    case Value::Type::Data:
      return "data";
    case Value::Type::Array:
      return "array";
    case Value::Type::Dict:
      return className().empty() ? "dictionary" : "record";
  }
  return "value";
}

}  // namespace vorlen
