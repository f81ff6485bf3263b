// RecordSchema: the table of every record class of the client framework, with each class's superclass and
// the fields it adds (name, value type, required or not, class of a nested record). The record coder
// validates untrusted records against it, and the typed records encode and decode through it.
//
// A record's fields are those of its class and of every superclass. A nested record field accepts a
// record of the named class or of any subclass of it. Abstract classes exist only as superclasses: no
// record may name one as its own class.
//
// Threading: the table is built once, on first use, and is read-only afterwards; safe from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace vorlen {

enum class FieldType {
  String,     // UTF-8 string
  Int,        // signed 64-bit integer
  UInt,       // unsigned 64-bit integer
  Real,       // double (a real node; integers are not taken for reals)
  Bool,       // boolean
  Date,       // property-list date
  Data,       // bytes
  Guid,       // 16 bytes of data
  Record,     // a nested record of `recordClass` or a subclass
  Dict,       // a dictionary of arbitrary property-list values
  StringMap,  // a dictionary whose values are all strings
  Plist,      // any property-list value
};

const char* fieldTypeName(FieldType type);

struct FieldDef {
  std::string name;
  FieldType type = FieldType::String;
  bool array = false;       // an array whose items are of `type`
  bool required = false;    // the key must be present
  std::string recordClass;  // for Record: the class the nested record must be or derive from
};

struct ClassDef {
  std::string name;
  std::string superclass;  // empty for a root class
  bool abstract = false;
  std::vector<FieldDef> fields;  // the fields this class adds to its superclass's
};

class RecordSchema {
 public:
  // The schema of every record class of the framework.
  static const RecordSchema& shared();

  explicit RecordSchema(std::vector<ClassDef> classes);
  RecordSchema(const RecordSchema&) = delete;
  RecordSchema& operator=(const RecordSchema&) = delete;

  // nullptr for an unknown class.
  const ClassDef* find(std::string_view className) const;
  // True when `className` is `base` or one of its subclasses (both known).
  bool isKindOf(std::string_view className, std::string_view base) const;
  // The field of that name among the class's fields and its superclasses', or nullptr.
  const FieldDef* field(std::string_view className, std::string_view fieldName) const;
  // Every field of the class, superclass fields first (empty for an unknown class). Computed once, when
  // the table is built: validation asks for it on every record it checks.
  const std::vector<const FieldDef*>& allFields(std::string_view className) const;
  // Every class name, in table order.
  std::vector<std::string> classNames() const;

  // Faults of the table itself: unknown superclasses or nested classes, inheritance cycles, fields
  // declared twice along a class chain. Empty for a sound table.
  std::vector<std::string> problems() const;

 private:
  struct NameHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const { return std::hash<std::string_view>()(s); }
  };
  static constexpr size_t kNone = SIZE_MAX;

  // The index of the class of that name, or kNone.
  size_t indexOf(std::string_view className) const;

  std::vector<ClassDef> classes_;
  std::unordered_map<std::string, size_t, NameHash, std::equal_to<>> index_;
  std::vector<size_t> superclass_;                    // per class: its superclass's index, or kNone
  std::vector<std::vector<const FieldDef*>> fields_;  // per class: allFields()
  // per class: field() by name; of a name declared along the chain twice, the subclass's wins
  std::vector<std::unordered_map<std::string_view, const FieldDef*>> fieldByName_;
};

}  // namespace vorlen
