// QXFeedback: one feedback event, as clients report it and as the daemon makes its own. Every event class
// of the family is held by this one type: the class name, the event time and a dictionary of the
// class's fields, checked against the class's field table (RecordSchema) whenever a field is set or a
// record is decoded. So a QXFeedback only ever holds fields its class declares, with their declared types.
//
// Record: {"$class": <event class>, "timestamp": unsigned (required), fields...}. The classes and their
// fields are the table in QXFeedback.cc; subclasses inherit their superclass's fields (e.g.
// VORLookupStartNetworkSearchFeedback is a QXStartNetworkSearchFeedback with two more).
//
// `timestamp` is in machine-time units: nanoseconds of the monotonic clock (kMachineTimeUnitsPerMillisecond
// converts to milliseconds). It only orders events and measures their distance; it is not a wall time.
//
// Reading a field that the class does not declare is a programming error: it logs a fault and yields
// nothing, so that a misspelt name is seen at once.
//
// Threading: a plain value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Uuid.h"
#include "base/Value.h"
#include "model/RecordBinding.h"
#include "model/RecordSchema.h"

namespace vorlen {

class QXFeedback {
 public:
  static constexpr const char* kClassName = "QXFeedback";
  static constexpr uint64_t kMachineTimeUnitsPerMillisecond = 1000000;
  // Now, in machine-time units.
  static uint64_t machineTimeNow();

  // An event of `className` without fields. An unknown class name logs a fault (the record would be
  // refused by every reader).
  explicit QXFeedback(std::string className = kClassName, uint64_t timestamp = machineTimeNow());

  const std::string& className() const { return className_; }
  // True when the class is `base` or a subclass of it.
  bool isKindOf(std::string_view base) const;
  // True for the classes only the service itself makes, whose names begin with "VOR" or "Vorlen" (session
  // ends, missing items, connection invalidated, skipped searches, cache hits, the service's own network
  // search ends). They are decoded from session files but never accepted from a client.
  bool isServiceEvent() const;

  uint64_t timestamp() const { return timestamp_; }
  void setTimestamp(uint64_t timestamp) { timestamp_ = timestamp; }

  // The fields that are set (without "$class" and "timestamp").
  const Value::Dict& fields() const { return fields_; }
  // The value of a set field; nullptr when unset.
  const Value* field(std::string_view name) const;
  // Sets a field; a null value removes it. Returns false, with a fault line, and changes nothing when the
  // class has no such field or the value does not have the field's type.
  bool set(std::string_view name, Value value);

  // Typed reads; nothing when the field is unset or has another type.
  std::optional<std::string> string(std::string_view name) const;
  std::optional<uint64_t> uint(std::string_view name) const;
  std::optional<int64_t> integer(std::string_view name) const;
  std::optional<double> real(std::string_view name) const;
  std::optional<bool> boolean(std::string_view name) const;
  std::optional<Uuid> guid(std::string_view name) const;
  // A nested event (e.g. "startSearch" of an end event).
  std::optional<QXFeedback> feedback(std::string_view name) const;
  // A nested record, e.g. record<QXSearchResult>("result").
  template <RecordType R>
  std::optional<R> record(std::string_view name) const {
    const Value* v = declared(name);
    if (!v || v->className() != R::kClassName) return std::nullopt;
    return R::fromValidatedRecord(*v);
  }
  // An array of nested records, e.g. records<QXResultSection>("sections"); empty when unset.
  template <RecordType R>
  std::vector<R> records(std::string_view name) const {
    std::vector<R> out;
    const Value* v = declared(name);
    if (!v || !v->isArray()) return out;
    for (const Value& item : *v->getArray()) {
      if (item.className() == R::kClassName) out.push_back(R::fromValidatedRecord(item));
    }
    return out;
  }

  Value toRecord() const;
  // The event, or nothing after one log line when the record is not a valid event record.
  static std::optional<QXFeedback> fromRecord(const Value& record, std::string* error = nullptr);
  // REQUIRES: `record` passed the schema check as a QXFeedback.
  static QXFeedback fromValidatedRecord(const Value& record);

  // The schema entries of every event class.
  static std::vector<ClassDef> classDefs();

  bool operator==(const QXFeedback&) const = default;

 private:
  // The field's value when the class declares the field (fault otherwise); nullptr when unset.
  const Value* declared(std::string_view name) const;

  std::string className_;
  uint64_t timestamp_ = 0;
  Value::Dict fields_;
};

}  // namespace vorlen
