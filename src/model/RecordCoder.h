// RecordCoder: the strict check of records that arrive from outside (IPC payloads from clients, session
// files read back from disk) against the RecordSchema, and the decoding of typed records through their
// RecordBinding.
//
// A record is a dictionary whose "$class" names its class; its other keys are the class's fields.
// Rejected, never guessed:
//   - a value that is not a dictionary, a missing or non-string "$class", an unknown or abstract class,
//     or a class that is not the expected one or a subclass of it;
//   - a key that is not a field of the class (nor of a superclass);
//   - a field whose value has another type (an integer is not taken for a real, a negative integer not
//     for an unsigned one, 15 or 17 bytes not for a GUID, a number not for a boolean);
//   - a missing required field;
//   - nesting of records, arrays and dictionaries deeper than kMaxDepth levels (the record itself is
//     level 1).
// The reason names the offending place, e.g. "VORSearchRequest.scale: expected real, found string",
// and fits one log line.
//
// Threading: stateless; safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/Value.h"
#include "model/RecordBinding.h"

namespace vorlen {

class RecordCoder {
 public:
  static constexpr int kMaxDepth = 16;

  // True when `record` is a valid record of `expectedClass` or of a subclass; an empty expectedClass
  // accepts any concrete class. Otherwise false with the reason in *error. Logs nothing.
  static bool validate(const Value& record, std::string_view expectedClass = "",
                       std::string* error = nullptr);

  // True when `value` may be the value of field `fieldName` of `className` (checked as a field of a
  // top-level record). Otherwise false with the reason in *error. Logs nothing.
  static bool validateField(std::string_view className, std::string_view fieldName, const Value& value,
                            std::string* error = nullptr);

  // validate(), and on rejection one error line "rejecting record: <reason>" in the Protocol category.
  static bool check(const Value& record, std::string_view expectedClass, std::string* error = nullptr);

  // Decodes bytes of a property list (binary or XML) holding one record; nullopt, with one error line,
  // when the bytes do not decode or the record is rejected.
  static std::optional<Value> decodeArchived(std::span<const uint8_t> bytes, std::string_view expectedClass,
                                             std::string* error = nullptr);

  // A typed record of the binding's class, or nullopt after check() rejected it.
  template <class T>
  static std::optional<T> decode(const RecordBinding<T>& binding, const Value& record, std::string* error) {
    if (!check(record, binding.className(), error)) return std::nullopt;
    if (record.className() != binding.className()) {
      // A subclass that the typed struct cannot hold (no typed record has registered subclasses today).
      reject("cannot hold a " + std::string(record.className()) + " as a " + binding.className(), error);
      return std::nullopt;
    }
    return binding.decode(record);
  }

 private:
  // Logs the rejection and fills *error; always false.
  static bool reject(std::string reason, std::string* error);
};

}  // namespace vorlen
