#include "base/JsonValue.h"

#include <openssl/evp.h>

#include <ctime>

#include <fmt/format.h>

namespace vorlen {

namespace {

std::string base64(const Value::Data& data) {
  std::string out(4 * ((data.size() + 2) / 3), '\0');
  int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), data.data(),
                          static_cast<int>(data.size()));
  out.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return out;
}

std::string iso8601(Time t) {
  auto micros = std::chrono::duration_cast<std::chrono::microseconds>(t.time_since_epoch()).count();
  std::time_t secs = static_cast<std::time_t>(micros / 1000000);
  long frac = static_cast<long>(micros % 1000000);
  if (frac < 0) {
    frac += 1000000;
    --secs;
  }
  std::tm tm{};
  gmtime_r(&secs, &tm);
  char buf[32];
  std::strftime(buf, sizeof(buf), "%Y-%m-%dT%H:%M:%S", &tm);
  return fmt::format("{}.{:06}Z", buf, frac);
}

std::optional<Value> convert(const nlohmann::json& j, const std::string& place, int depth,
                             std::string* error) {
  if ((j.is_array() || j.is_object()) && depth >= JsonValue::kMaxDepth) {
    if (error) *error = (place.empty() ? std::string("value") : place) + ": nested too deeply";
    return std::nullopt;
  }
  switch (j.type()) {
    case nlohmann::json::value_t::string:
      return Value(j.get<std::string>());
    case nlohmann::json::value_t::boolean:
      return Value(j.get<bool>());
    case nlohmann::json::value_t::number_integer:
      return Value(j.get<int64_t>());
    case nlohmann::json::value_t::number_unsigned: {
      uint64_t u = j.get<uint64_t>();
      if (u <= static_cast<uint64_t>(INT64_MAX)) return Value(static_cast<int64_t>(u));
      return Value(u);
    }
    case nlohmann::json::value_t::number_float:
      return Value(j.get<double>());
    case nlohmann::json::value_t::array: {
      Value::Array a;
      for (size_t i = 0; i < j.size(); ++i) {
        if (j[i].is_null()) continue;
        std::optional<Value> v = convert(j[i], fmt::format("{}[{}]", place, i), depth + 1, error);
        if (!v) return std::nullopt;
        a.push_back(std::move(*v));
      }
      return Value(std::move(a));
    }
    case nlohmann::json::value_t::object: {
      Value::Dict d;
      for (auto it = j.begin(); it != j.end(); ++it) {
        if (it.value().is_null()) continue;
        std::optional<Value> v = convert(it.value(), place + "." + it.key(), depth + 1, error);
        if (!v) return std::nullopt;
        d.insert_or_assign(it.key(), std::move(*v));
      }
      return Value(std::move(d));
    }
    default:
      // Only a null root gets here: nulls inside containers were left out above.
      if (error) *error = (place.empty() ? std::string("value") : place) + ": null has no property-list form";
      return std::nullopt;
  }
}

}  // namespace

nlohmann::ordered_json JsonValue::toJson(const Value& v) {
  switch (v.type()) {
    case Value::Type::Null:
      return nullptr;
    case Value::Type::String:
      return *v.getString();
    case Value::Type::Int:
      return *v.getInt();
    case Value::Type::UInt:
      return *v.getUInt();
    case Value::Type::Real:
      return *v.getDouble();
    case Value::Type::Bool:
      return *v.getBool();
    case Value::Type::Date:
      return iso8601(*v.getDate());
    case Value::Type::Data:
      return base64(*v.getData());
    case Value::Type::Array: {
      nlohmann::ordered_json a = nlohmann::ordered_json::array();
      for (const Value& item : *v.getArray()) a.push_back(toJson(item));
      return a;
    }
    case Value::Type::Dict: {
      nlohmann::ordered_json o = nlohmann::ordered_json::object();
      for (const auto& [k, item] : *v.getDict()) o[k] = toJson(item);
      return o;
    }
  }
  return nullptr;
}

std::optional<Value> JsonValue::toValue(const nlohmann::json& json, std::string* error) {
  return convert(json, "", 0, error);
}

}  // namespace vorlen
