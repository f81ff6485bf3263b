// TypedRecord<T>: the record coding that every typed record struct shares, given T::binding() (its
// RecordBinding) and T::kClassName. A struct T derives from TypedRecord<T> to gain:
//   toRecord()              the record Value ({"$class": ..., fields...})
//   fromRecord(v, error)    the struct, or nullopt after one log line when v fails the schema check
//   fromValidatedRecord(v)  the struct from a record already checked (e.g. nested in a checked record)
//
// Threading: as the struct itself (plain values).
#pragma once

#include <optional>
#include <string>

#include "base/Value.h"
#include "model/RecordCoder.h"

namespace vorlen {

template <class T>
struct TypedRecord {
  Value toRecord() const { return T::binding().encode(static_cast<const T&>(*this)); }
  static std::optional<T> fromRecord(const Value& record, std::string* error = nullptr) {
    return RecordCoder::decode(T::binding(), record, error);
  }
  // REQUIRES: `record` passed the schema check for T's class.
  static T fromValidatedRecord(const Value& record) { return T::binding().decode(record); }

  bool operator==(const TypedRecord&) const = default;
};

}  // namespace vorlen
