// RecordBinding<T>: the field table of one typed record class, tying each record key to a member of the
// C++ struct. From it come the class's schema entry (the value type of each field follows from the
// member's C++ type) and the struct's encoding to and decoding from a record Value, so that the key list,
// the validation and the coding cannot drift apart.
//
// Member types and how they travel:
//   std::string            String; an empty string is left out and reads back as empty
//   int64_t, uint64_t      Int, UInt; always written
//   double, bool           Real, Bool; always written
//   Time                   Date
//   Uuid                   Guid (16-byte data)
//   Value::Data            Data; empty is left out
//   Value::Dict            Dict; empty is left out
//   Value                  Plist; null is left out
//   StringMap              StringMap; empty is left out
//   a record type R        Record of R's class (R has kClassName, toRecord(), fromValidatedRecord())
//   std::optional<X>       as X, written whenever present (even when X would be left out)
//   std::vector<X>         an array of X; empty is left out
// A required field is written even when empty. A key that is absent leaves the member at the value the
// default-constructed struct gives it.
//
// decode() trusts its input: call it only on a record that RecordCoder has validated against the schema.
//
// Threading: a binding is immutable after construction; safe from any thread. Each class's binding is made
// on first use and never destroyed, so a worker still coding a record while the process exits never meets
// a torn-down one.
#pragma once

#include <concepts>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/Clock.h"
#include "base/Uuid.h"
#include "base/Value.h"
#include "model/RecordSchema.h"

namespace vorlen {

using StringMap = std::map<std::string, std::string>;

template <class M>
concept RecordType = requires(const M& m, const Value& v) {
  { M::kClassName } -> std::convertible_to<const char*>;
  { m.toRecord() } -> std::same_as<Value>;
  { M::fromValidatedRecord(v) } -> std::same_as<M>;
};

// MemberCodec<M>: value type of a member type and its conversions. Each gives kType, kArray,
// recordClass(), isEmpty(m), encode(m) and decode(validated value).
template <class M>
struct MemberCodec;

template <class M, FieldType T>
struct ScalarCodec {
  static constexpr FieldType kType = T;
  static constexpr bool kArray = false;
  static const char* recordClass() { return ""; }
  static bool isEmpty(const M&) { return false; }
};

template <>
struct MemberCodec<std::string> : ScalarCodec<std::string, FieldType::String> {
  static bool isEmpty(const std::string& s) { return s.empty(); }
  static Value encode(const std::string& s) { return Value(s); }
  static std::string decode(const Value& v) { return *v.getString(); }
};
template <>
struct MemberCodec<int64_t> : ScalarCodec<int64_t, FieldType::Int> {
  static Value encode(int64_t i) { return Value(static_cast<long long>(i)); }
  static int64_t decode(const Value& v) { return *v.getInt(); }
};
template <>
struct MemberCodec<uint64_t> : ScalarCodec<uint64_t, FieldType::UInt> {
  static Value encode(uint64_t i) { return Value(static_cast<unsigned long long>(i)); }
  static uint64_t decode(const Value& v) { return *v.getUInt(); }
};
template <>
struct MemberCodec<double> : ScalarCodec<double, FieldType::Real> {
  static Value encode(double d) { return Value(d); }
  static double decode(const Value& v) { return *v.getDouble(); }
};
template <>
struct MemberCodec<bool> : ScalarCodec<bool, FieldType::Bool> {
  static Value encode(bool b) { return Value(b); }
  static bool decode(const Value& v) { return *v.getBool(); }
};
template <>
struct MemberCodec<Time> : ScalarCodec<Time, FieldType::Date> {
  static Value encode(Time t) { return Value(t); }
  static Time decode(const Value& v) { return *v.getDate(); }
};
template <>
struct MemberCodec<Uuid> : ScalarCodec<Uuid, FieldType::Guid> {
  static Value encode(const Uuid& u) { return Value(Value::Data(u.bytes().begin(), u.bytes().end())); }
  static Uuid decode(const Value& v) { return *Uuid::fromBytes(v.getData()->data(), v.getData()->size()); }
};
template <>
struct MemberCodec<Value::Data> : ScalarCodec<Value::Data, FieldType::Data> {
  static bool isEmpty(const Value::Data& d) { return d.empty(); }
  static Value encode(const Value::Data& d) { return Value(d); }
  static Value::Data decode(const Value& v) { return *v.getData(); }
};
template <>
struct MemberCodec<Value::Dict> : ScalarCodec<Value::Dict, FieldType::Dict> {
  static bool isEmpty(const Value::Dict& d) { return d.empty(); }
  static Value encode(const Value::Dict& d) { return Value(d); }
  static Value::Dict decode(const Value& v) { return *v.getDict(); }
};
template <>
struct MemberCodec<Value> : ScalarCodec<Value, FieldType::Plist> {
  static bool isEmpty(const Value& v) { return v.isNull(); }
  static Value encode(const Value& v) { return v; }
  static Value decode(const Value& v) { return v; }
};
template <>
struct MemberCodec<StringMap> : ScalarCodec<StringMap, FieldType::StringMap> {
  static bool isEmpty(const StringMap& m) { return m.empty(); }
  static Value encode(const StringMap& m) {
    Value::Dict d;
    for (const auto& [k, v] : m) d.emplace(k, Value(v));
    return Value(std::move(d));
  }
  static StringMap decode(const Value& v) {
    StringMap m;
    for (const auto& [k, item] : *v.getDict()) m.emplace(k, *item.getString());
    return m;
  }
};
template <RecordType R>
struct MemberCodec<R> {
  static constexpr FieldType kType = FieldType::Record;
  static constexpr bool kArray = false;
  static const char* recordClass() { return R::kClassName; }
  static bool isEmpty(const R&) { return false; }
  static Value encode(const R& r) { return r.toRecord(); }
  static R decode(const Value& v) { return R::fromValidatedRecord(v); }
};
template <class X>
struct MemberCodec<std::optional<X>> {
  using Item = MemberCodec<X>;
  static constexpr FieldType kType = Item::kType;
  static constexpr bool kArray = Item::kArray;
  static const char* recordClass() { return Item::recordClass(); }
  static bool isEmpty(const std::optional<X>& o) { return !o.has_value(); }
  static Value encode(const std::optional<X>& o) { return Item::encode(*o); }
  static std::optional<X> decode(const Value& v) { return Item::decode(v); }
};
template <class X>
struct MemberCodec<std::vector<X>> {
  using Item = MemberCodec<X>;
  static_assert(!Item::kArray, "arrays of arrays are not record fields");
  static constexpr FieldType kType = Item::kType;
  static constexpr bool kArray = true;
  static const char* recordClass() { return Item::recordClass(); }
  static bool isEmpty(const std::vector<X>& items) { return items.empty(); }
  static Value encode(const std::vector<X>& items) {
    Value::Array a;
    a.reserve(items.size());
    for (const X& x : items) a.push_back(Item::encode(x));
    return Value(std::move(a));
  }
  static std::vector<X> decode(const Value& v) {
    std::vector<X> items;
    for (const Value& item : *v.getArray()) items.push_back(Item::decode(item));
    return items;
  }
};

template <class T>
class RecordBinding {
 public:
  struct Member {
    FieldDef def;
    std::function<void(const T&, Value::Dict&)> write;
    std::function<void(const Value&, T&)> read;
  };

  // A member of T or of one of T's base structs.
  template <class C, class M>
  static Member field(std::string name, M C::*member, bool required = false) {
    using Codec = MemberCodec<M>;
    FieldDef def{name, Codec::kType, Codec::kArray, required, Codec::recordClass()};
    return Member{std::move(def),
                  [member, name, required](const T& t, Value::Dict& d) {
                    const M& m = t.*member;
                    if (required || !Codec::isEmpty(m)) d.insert_or_assign(name, Codec::encode(m));
                  },
                  [member](const Value& v, T& t) { t.*member = Codec::decode(v); }};
  }

  // `inherited` are the members of the superclass's fields (they are coded, but the schema entry lists
  // only `own`).
  RecordBinding(std::string className, std::string superclass, std::vector<Member> inherited,
                std::vector<Member> own, bool abstract = false)
      : className_(std::move(className)),
        superclass_(std::move(superclass)),
        abstract_(abstract),
        ownCount_(own.size()),
        members_(std::move(inherited)) {
    for (Member& m : own) members_.push_back(std::move(m));
  }
  RecordBinding(std::string className, std::vector<Member> own)
      : RecordBinding(std::move(className), "", {}, std::move(own)) {}

  const std::string& className() const { return className_; }

  ClassDef classDef() const {
    ClassDef c{className_, superclass_, abstract_, {}};
    for (size_t i = members_.size() - ownCount_; i < members_.size(); ++i)
      c.fields.push_back(members_[i].def);
    return c;
  }

  Value encode(const T& t) const {
    Value::Dict d;
    d.emplace("$class", Value(className_));
    for (const Member& m : members_) m.write(t, d);
    return Value(std::move(d));
  }

  // REQUIRES: `record` passed RecordCoder validation for this class.
  T decode(const Value& record) const {
    T t{};
    for (const Member& m : members_) {
      if (const Value* v = record.find(m.def.name)) m.read(*v, t);
    }
    return t;
  }

 private:
  std::string className_;
  std::string superclass_;
  bool abstract_;
  size_t ownCount_;
  std::vector<Member> members_;
};

}  // namespace vorlen
