#include "JsonRecordReader.h"

#include <fmt/format.h>

#include "base/JsonValue.h"
#include "base/Uuid.h"
#include "model/QXFeedback.h"
#include "model/RecordSchema.h"

namespace vorlen::ctl {

namespace {

using json = nlohmann::json;

bool fail(std::string* error, std::string text) {
  if (error) *error = std::move(text);
  return false;
}

std::optional<Value> readRecord(const json& j, std::string_view defaultClass, std::string_view expectedClass,
                                const std::string& place, int depth, std::string* error);

// One value (not an array) of a field of type `def.type`.
std::optional<Value> readItem(const json& j, const FieldDef& def, const std::string& place, int depth,
                              std::string* error) {
  auto wrong = [&](const char* expected) -> std::optional<Value> {
    fail(error, fmt::format("{}: expected {}, found {}", place, expected, j.type_name()));
    return std::nullopt;
  };
  switch (def.type) {
    case FieldType::String:
      if (!j.is_string()) return wrong("a string");
      return Value(j.get<std::string>());
    case FieldType::Int:
      if (j.is_number_integer() && !(j.is_number_unsigned() && j.get<uint64_t>() > uint64_t(INT64_MAX)))
        return Value(j.get<int64_t>());
      return wrong("a signed 64-bit integer");
    case FieldType::UInt:
      if (j.is_number_unsigned()) return Value(j.get<uint64_t>());
      return wrong("a non-negative integer");
    case FieldType::Real:
      if (!j.is_number()) return wrong("a number");
      return Value(j.get<double>());
    case FieldType::Bool:
      if (!j.is_boolean()) return wrong("true or false");
      return Value(j.get<bool>());
    case FieldType::Guid: {
      std::optional<Uuid> u = j.is_string() ? Uuid::parse(j.get<std::string>()) : std::nullopt;
      if (!u) return wrong("a UUID string");
      return Value(Value::Data(u->bytes().begin(), u->bytes().end()));
    }
    case FieldType::Date:
    case FieldType::Data:
      fail(error, fmt::format("{}: {} fields cannot be written in JSON here (not supported by vorlenctl)",
                              place, fieldTypeName(def.type)));
      return std::nullopt;
    case FieldType::Record:
      if (!j.is_object()) return wrong("an object");
      return readRecord(j, def.recordClass, def.recordClass, place, depth + 1, error);
    case FieldType::StringMap:
      if (!j.is_object()) return wrong("an object of strings");
      for (auto it = j.begin(); it != j.end(); ++it)
        if (!it.value().is_string()) return wrong("an object of strings");
      return JsonValue::toValue(j, error);
    case FieldType::Dict:
      if (!j.is_object()) return wrong("an object");
      return JsonValue::toValue(j, error);
    case FieldType::Plist:
      return JsonValue::toValue(j, error);
  }
  return wrong("a known type");
}

std::optional<Value> readRecord(const json& j, std::string_view defaultClass, std::string_view expectedClass,
                                const std::string& place, int depth, std::string* error) {
  const RecordSchema& schema = RecordSchema::shared();
  if (depth > 16) {
    fail(error, place + ": nested too deeply");
    return std::nullopt;
  }
  if (!j.is_object()) {
    fail(error, place + ": expected an object");
    return std::nullopt;
  }
  std::string className(defaultClass);
  if (auto it = j.find("$class"); it != j.end()) {
    if (!it->is_string()) {
      fail(error, place + ".$class: expected a string");
      return std::nullopt;
    }
    className = it->get<std::string>();
  }
  const ClassDef* def = className.empty() ? nullptr : schema.find(className);
  if (!def || def->abstract) {
    fail(error, fmt::format("{}: {} is not a record class", place,
                            className.empty() ? std::string("missing \"$class\"") : "\"" + className + "\""));
    return std::nullopt;
  }
  if (!expectedClass.empty() && !schema.isKindOf(className, expectedClass)) {
    fail(error, fmt::format("{}: {} is not a {}", place, className, expectedClass));
    return std::nullopt;
  }
  Value record = Value::record(className);
  for (auto it = j.begin(); it != j.end(); ++it) {
    if (it.key() == "$class") continue;
    std::string fieldPlace = place + "." + it.key();
    const FieldDef* field = schema.field(className, it.key());
    if (!field) {
      fail(error, fmt::format("{}: {} has no field \"{}\"", fieldPlace, className, it.key()));
      return std::nullopt;
    }
    std::optional<Value> v;
    if (field->array) {
      if (!it.value().is_array()) {
        fail(error, fieldPlace + ": expected an array");
        return std::nullopt;
      }
      Value::Array items;
      for (size_t i = 0; i < it.value().size(); ++i) {
        std::optional<Value> item =
            readItem(it.value()[i], *field, fmt::format("{}[{}]", fieldPlace, i), depth, error);
        if (!item) return std::nullopt;
        items.push_back(std::move(*item));
      }
      v = Value(std::move(items));
    } else {
      v = readItem(it.value(), *field, fieldPlace, depth, error);
    }
    if (!v) return std::nullopt;
    record.set(it.key(), std::move(*v));
  }
  if (schema.isKindOf(className, QXFeedback::kClassName) && !record.find("timestamp"))
    record.set("timestamp", Value(QXFeedback::machineTimeNow()));
  return record;
}

}  // namespace

std::optional<Value> JsonRecordReader::read(const json& object, std::string_view expectedClass,
                                            std::string* error) {
  return readRecord(object, "", expectedClass, "event", 1, error);
}

}  // namespace vorlen::ctl
