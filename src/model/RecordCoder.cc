#include "model/RecordCoder.h"

#include <fmt/format.h>

#include "base/Archive.h"
#include "base/Log.h"

namespace vorlen {
namespace {

// Where a value sits in the record being checked: a chain of links on the stack, written out only when a
// check fails, so that a record that passes costs no string building.
struct Path {
  const Path* parent = nullptr;
  std::string_view name;    // a field name, or the root's text
  size_t index = SIZE_MAX;  // an array item's index, when not SIZE_MAX

  std::string text() const {
    std::string out = parent ? parent->text() : std::string();
    if (index != SIZE_MAX) return out + fmt::format("[{}]", index);
    if (parent) out += '.';
    out.append(name);
    return out;
  }
};

// One validation pass. Every failing check writes its reason and returns false, so the first fault
// found is the one reported.
class Validator {
 public:
  Validator(const RecordSchema& schema, std::string* why) : schema_(schema), why_(why) {}

  // `path` null for the root record, which is then named after its class.
  bool record(const Value& v, std::string_view expected, int depth, const Path* path) {
    Path root{nullptr, v.className().empty() ? std::string_view("record") : v.className()};
    const Path& at = path ? *path : root;
    if (depth > RecordCoder::kMaxDepth) return deep(at);
    const Value::Dict* dict = v.getDict();
    if (!dict) return fail(fmt::format("{}: expected a record, found {}", at.text(), v.typeName()));
    const Value* cls = v.find("$class");
    if (!cls) return fail(at.text() + ": record without $class");
    const std::string* name = cls->getString();
    if (!name) return fail(fmt::format("{}: $class is a {}, not a string", at.text(), cls->typeName()));
    const ClassDef* def = schema_.find(*name);
    if (!def) return fail(fmt::format("{}: unknown class {}", at.text(), *name));
    if (def->abstract) return fail(fmt::format("{}: class {} cannot be used by itself", at.text(), *name));
    if (!expected.empty() && !schema_.isKindOf(*name, expected)) {
      return fail(fmt::format("{}: class {} where {} was expected", at.text(), *name, expected));
    }
    for (const auto& [key, value] : *dict) {
      if (key == "$class") continue;
      const FieldDef* field = schema_.field(*name, key);
      if (!field) return fail(fmt::format("{}: unknown field {}", at.text(), key));
      const Path fieldPath{&at, key};
      if (!fieldValue(*field, value, depth + 1, fieldPath)) return false;
    }
    for (const FieldDef* field : schema_.allFields(*name)) {
      if (field->required && dict->find(field->name) == dict->end()) {
        return fail(fmt::format("{}: missing required field {}", at.text(), field->name));
      }
    }
    return true;
  }

  bool fieldValue(const FieldDef& f, const Value& v, int depth, const Path& at) {
    if (!f.array) return single(f, v, depth, at);
    const Value::Array* items = v.getArray();
    if (!items) return fail(fmt::format("{}: expected array, found {}", at.text(), v.typeName()));
    if (depth > RecordCoder::kMaxDepth) return deep(at);
    for (size_t i = 0; i < items->size(); ++i) {
      const Path item{&at, {}, i};
      if (!single(f, (*items)[i], depth + 1, item)) return false;
    }
    return true;
  }

 private:
  bool fail(std::string reason) {
    if (why_) *why_ = std::move(reason);
    return false;
  }
  bool deep(const Path& at) {
    return fail(fmt::format("{}: nesting deeper than {} levels", at.text(), RecordCoder::kMaxDepth));
  }
  bool mismatch(const FieldDef& f, const Value& v, const Path& at) {
    return fail(fmt::format("{}: expected {}, found {}", at.text(), fieldTypeName(f.type), v.typeName()));
  }

  bool single(const FieldDef& f, const Value& v, int depth, const Path& at) {
    switch (f.type) {
      case FieldType::String:
        return v.isString() || mismatch(f, v, at);
      case FieldType::Int:
        if (v.isInteger() && !v.getInt())
          return fail(at.text() + ": expected integer, found integer above 2^63-1");
        return v.isInteger() || mismatch(f, v, at);
      case FieldType::UInt:
        if (v.isInteger() && !v.getUInt())
          return fail(at.text() + ": expected unsigned integer, found negative integer");
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
          return fail(
              fmt::format("{}: expected a 16-byte GUID, found {} bytes", at.text(), v.getData()->size()));
        }
        return true;
      case FieldType::Record:
        return record(v, f.recordClass, depth, &at);
      case FieldType::Dict:
        return v.isDict() ? plist(v, depth, at) : mismatch(f, v, at);
      case FieldType::StringMap:
        if (!v.isDict()) return mismatch(f, v, at);
        if (depth > RecordCoder::kMaxDepth) return deep(at);
        for (const auto& [key, item] : *v.getDict()) {
          if (!item.isString())
            return fail(fmt::format("{}.{}: expected string, found {}", at.text(), key, item.typeName()));
        }
        return true;
      case FieldType::Plist:
        return plist(v, depth, at);
    }
    return mismatch(f, v, at);
  }

  // Any property-list value; only its depth is bounded.
  bool plist(const Value& v, int depth, const Path& at) {
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
  return Validator(RecordSchema::shared(), error).record(record, expectedClass, 1, nullptr);
}

bool RecordCoder::validateField(std::string_view className, std::string_view fieldName, const Value& value,
                                std::string* error) {
  const RecordSchema& schema = RecordSchema::shared();
  const Path owner{nullptr, className};
  const Path at{&owner, fieldName};
  const FieldDef* field = schema.field(className, fieldName);
  if (!field) {
    if (error) *error = at.text() + ": no such field";
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
