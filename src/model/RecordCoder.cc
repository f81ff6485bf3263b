#include "model/RecordCoder.h"

#include <fmt/format.h>

#include "base/Archive.h"
#include "base/Log.h"

namespace vorlen {
namespace {


// One validation pass. Every failing check writes its reason and returns false, so the first fault
// found is the one reported.
class Validator {
 public:
  Validator(const RecordSchema& schema, std::string* why) : schema_(schema), why_(why) {}

  bool record(const Value& v, std::string_view expected, int depth, const std::string& path) {
    const std::string& at =
        path.empty() ? std::string(v.className().empty() ? "record" : v.className()) : path;
    if (depth > RecordCoder::kMaxDepth) return deep(at);
    const Value::Dict* dict = v.getDict();
    if (!dict) return fail(fmt::format("{}: expected a record, found {}", at, v.typeName()));
    const Value* cls = v.find("$class");
    if (!cls) return fail(at + ": record without $class");
    const std::string* name = cls->getString();
    if (!name) return fail(fmt::format("{}: $class is a {}, not a string", at, cls->typeName()));
    const ClassDef* def = schema_.find(*name);
    if (!def) return fail(fmt::format("{}: unknown class {}", at, *name));
    if (def->abstract) return fail(fmt::format("{}: class {} cannot be used by itself", at, *name));
    if (!expected.empty() && !schema_.isKindOf(*name, expected)) {
      return fail(fmt::format("{}: class {} where {} was expected", at, *name, expected));
    }
    for (const auto& [key, value] : *dict) {
      if (key == "$class") continue;
      const FieldDef* field = schema_.field(*name, key);
      if (!field) return fail(fmt::format("{}: unknown field {}", at, key));
      if (!fieldValue(*field, value, depth + 1, at + "." + key)) return false;
    }
    for (const FieldDef* field : schema_.allFields(*name)) {
      if (field->required && dict->find(field->name) == dict->end()) {
        return fail(fmt::format("{}: missing required field {}", at, field->name));
      }
    }
    return true;
  }

  bool fieldValue(const FieldDef& f, const Value& v, int depth, const std::string& at) {
    if (!f.array) return single(f, v, depth, at);
    const Value::Array* items = v.getArray();
    if (!items) return fail(fmt::format("{}: expected array, found {}", at, v.typeName()));
    if (depth > RecordCoder::kMaxDepth) return deep(at);
    for (size_t i = 0; i < items->size(); ++i) {
      if (!single(f, (*items)[i], depth + 1, fmt::format("{}[{}]", at, i))) return false;
    }
    return true;
  }

 private:
  bool fail(std::string reason) {
    if (why_) *why_ = std::move(reason);
    return false;
  }
  bool deep(const std::string& at) {
    return fail(fmt::format("{}: nesting deeper than {} levels", at, RecordCoder::kMaxDepth));
  }
  bool mismatch(const FieldDef& f, const Value& v, const std::string& at) {
    return fail(fmt::format("{}: expected {}, found {}", at, fieldTypeName(f.type), v.typeName()));
  }

  bool single(const FieldDef& f, const Value& v, int depth, const std::string& at) {
    switch (f.type) {
      case FieldType::String:
        return v.isString() || mismatch(f, v, at);
      case FieldType::Int:
        if (v.isInteger() && !v.getInt()) return fail(at + ": expected integer, found integer above 2^63-1");
        return v.isInteger() || mismatch(f, v, at);
      case FieldType::UInt:
        if (v.isInteger() && !v.getUInt())
          return fail(at + ": expected unsigned integer, found negative integer");
        return v.isInteger() || mismatch(f, v, at);
      case FieldType::Real:
        return v.type() == Value::Type::Real || mismatch(f, v, at);
      case FieldType::Bool:
        return v.isBool() || mismatch(f, v, at);
      case FieldType::Date:
        return v.isDate() || mismatch(f, v, at);
      case FieldType::Data:
        return v.isData() || mismatch(f, v, at);
      case FieldType::Guid:
        if (!v.isData()) return mismatch(f, v, at);
        if (v.getData()->size() != 16) {
          return fail(fmt::format("{}: expected a 16-byte GUID, found {} bytes", at, v.getData()->size()));
        }
        return true;
      case FieldType::Record:
        return record(v, f.recordClass, depth, at);
      case FieldType::Dict:
        return v.isDict() ? plist(v, depth, at) : mismatch(f, v, at);
      case FieldType::StringMap:
        if (!v.isDict()) return mismatch(f, v, at);
        if (depth > RecordCoder::kMaxDepth) return deep(at);
        for (const auto& [key, item] : *v.getDict()) {
          if (!item.isString())
            return fail(fmt::format("{}.{}: expected string, found {}", at, key, item.typeName()));
        }
        return true;
      case FieldType::Plist:
        return plist(v, depth, at);
    }
    return mismatch(f, v, at);
  }

  // Any property-list value; only its depth is bounded.
  bool plist(const Value& v, int depth, const std::string& at) {
    if (const Value::Array* items = v.getArray()) {
      if (depth > RecordCoder::kMaxDepth) return deep(at);
      for (const Value& item : *items) {
        if (!plist(item, depth + 1, at)) return false;
      }
    } else if (const Value::Dict* dict = v.getDict()) {
      if (depth > RecordCoder::kMaxDepth) return deep(at);
      for (const auto& [key, item] : *dict) {
        if (!plist(item, depth + 1, at)) return false;
      }
    }
    return true;
  }

  const RecordSchema& schema_;
  std::string* why_;
};

}  // namespace

bool RecordCoder::validate(const Value& record, std::string_view expectedClass, std::string* error) {
  return Validator(RecordSchema::shared(), error).record(record, expectedClass, 1, "");
}

bool RecordCoder::validateField(std::string_view className, std::string_view fieldName, const Value& value,
                                std::string* error) {
  const RecordSchema& schema = RecordSchema::shared();
  std::string at = fmt::format("{}.{}", className, fieldName);
  const FieldDef* field = schema.field(className, fieldName);
  if (!field) {
    if (error) *error = at + ": no such field";
    return false;
  }
  return Validator(schema, error).fieldValue(*field, value, 2, at);
}

bool RecordCoder::check(const Value& record, std::string_view expectedClass, std::string* error) {
  std::string reason;
  if (validate(record, expectedClass, &reason)) return true;
  return reject(std::move(reason), error);
}

std::optional<Value> RecordCoder::decodeArchived(std::span<const uint8_t> bytes,
                                                 std::string_view expectedClass, std::string* error) {
  std::string reason;
  std::optional<Value> value = Archive::decode(bytes, &reason);
  if (!value) {
    reject("undecodable property list: " + reason, error);
    return std::nullopt;
  }
  if (!check(*value, expectedClass, error)) return std::nullopt;
  return value;
}

bool RecordCoder::reject(std::string reason, std::string* error) {
  VorlenLogForCategory(VorlenLogCategoryProtocol).error("rejecting record: {}", reason);
  if (error) *error = std::move(reason);
  return false;
}

}  // namespace vorlen
