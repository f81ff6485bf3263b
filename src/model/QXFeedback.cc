#include "model/QXFeedback.h"

#include <chrono>

#include "base/Log.h"
#include "model/RecordCoder.h"

namespace vorlen {
namespace {

FieldDef Str(const char* name) {
  return {name, FieldType::String};
}
FieldDef U64(const char* name) {
  return {name, FieldType::UInt};
}
FieldDef I64(const char* name) {
  return {name, FieldType::Int};
}
FieldDef Real(const char* name) {
  return {name, FieldType::Real};
}
FieldDef Flag(const char* name) {
  return {name, FieldType::Bool};
}
FieldDef Guid(const char* name) {
  return {name, FieldType::Guid};
}
FieldDef Dict(const char* name) {
  return {name, FieldType::Dict};
}
FieldDef Dicts(const char* name) {
  return {name, FieldType::Dict, /*array=*/true};
}
FieldDef Headers(const char* name) {
  return {name, FieldType::StringMap};
}
FieldDef Rec(const char* name, const char* cls) {
  return {name, FieldType::Record, false, false, cls};
}
FieldDef Recs(const char* name, const char* cls) {
  return {name, FieldType::Record, true, false, cls};
}

constexpr const char* kResult = "QXSearchResult";
constexpr const char* kSection = "QXResultSection";
constexpr const char* kSuggestion = "QXSearchSuggestion";

ClassDef event(const char* name, std::vector<FieldDef> fields,
               const char* superclass = QXFeedback::kClassName) {
  return ClassDef{name, superclass, false, std::move(fields)};
}

const Logger& log() {
  return VorlenLogForCategory(VorlenLogCategoryFeedback);
}

}  // namespace

// The event classes and the fields the daemon reads of them. Numbers that name an enumerated value
// (triggers, endpoints, types, grades) are unsigned; their meaning is given by the event-encoding tables.
std::vector<ClassDef> QXFeedback::classDefs() {
  return {
      ClassDef{kClassName, "", false, {FieldDef{"timestamp", FieldType::UInt, false, /*required=*/true}}},
      event("QXSearchViewAppearFeedback",
            {U64("viewAppearEvent"), Flag("isOnLockScreen"), Flag("isOverApp"), Flag("readerTextAvailable")}),
      event("QXSearchViewDisappearFeedback", {U64("viewDisappearEvent")}),
      // Each card section: {"sectionId", "actionTarget", "actionDestination", "more"}.
      event("QXCardViewAppearFeedback", {Dicts("cardSections")}),
      event("QXCardViewDisappearFeedback", {U64("cardViewDisappearEvent")}),
      event("QXStartSearchFeedback", {U64("queryId"), U64("triggerEvent"), Str("input"), Guid("uuid")}),
      event("QXEndSearchFeedback", {Guid("uuid")}),
      event("QXStartNetworkSearchFeedback", {Str("input"), Str("url"), Headers("headers"),
                                             U64("triggerEvent"), U64("endpoint"), Guid("uuid")}),
      event("VORLookupStartNetworkSearchFeedback", {U64("lookupSelectionType"), Str("domain")},
            "QXStartNetworkSearchFeedback"),
      event("QXEndNetworkSearchFeedback",
            {Rec("startSearch", "QXStartNetworkSearchFeedback"), U64("responseSize"), I64("statusCode"),
             Dict("networkTimingData"), Flag("connectionReused"), Str("interface"), Str("peerAddress"),
             U64("peerPort")}),
      event("VOREndNetworkSearchFeedback",
            {Str("vorlenStatus"), Real("vorlenDuration"), Str("fbq"), Str("partialClientIp")},
            "QXEndNetworkSearchFeedback"),
      event("QXStartLocalSearchFeedback",
            {Str("input"), U64("triggerEvent"), U64("indexType"), U64("queryId")}),
      event("QXEndLocalSearchFeedback", {Rec("startSearch", "QXStartLocalSearchFeedback")}),
      event("QXRankingFeedback",
            {Recs("sections", kSection), Real("blendingDuration"), Str("l2"), Str("l3"), Flag("shadow")}),
      event("QXSectionRankingFeedback", {U64("localSectionPosition"), Recs("results", kResult)},
            "QXRankingFeedback"),
      event("QXResultRankingFeedback",
            {U64("localResultPosition"), Recs("hiddenResults", kResult), Recs("duplicateResults", kResult)},
            "QXRankingFeedback"),
      event("QXVisibleResultsFeedback", {U64("triggerEvent"), Recs("results", kResult)}),
      event("QXResultEngagementFeedback",
            {Rec("result", kResult), U64("triggerEvent"), U64("destination"), Flag("thirdPartySuggestion"),
             Flag("matchesUnengagedSuggestion"), U64("actionTarget"), U64("actionDestination"),
             Flag("nonVorlenResult")}),
      event("QXErrorFeedback", {Rec("error", "VORError"), Rec("underlyingError", "VORError")}),
      event("QXCardSectionEngagementFeedback",
            {U64("triggerEvent"), U64("cardType"), U64("actionTarget"), U64("actionDestination"),
             Flag("more"), Str("cardSectionId")}),
      event("QXMapsCardSectionEngagementFeedback", {U64("feedbackType")}),
      event("QXStoreCardSectionEngagementFeedback", {U64("productPageResult")}),
      event("QXVisibleSuggestionsFeedback", {Recs("suggestions", kSuggestion), Str("suggestionQuery")}),
      event("QXSuggestionEngagementFeedback", {Rec("suggestion", kSuggestion), U64("triggerEvent")}),
      event("QXResultsReceivedAfterTimeoutFeedback", {Recs("results", kResult)}),
      event("QXLateSectionsAppendedFeedback", {Recs("sections", kSection)}),
      event("QXClearInputFeedback", {U64("triggerEvent")}),
      event("VorlenSessionEndFeedback", {I64("reason")}),
      event("VORSkipSearchFeedback", {U64("triggerEvent"), Str("input")}),
      event("VORCacheHitFeedback", {U64("triggerEvent"), Str("input"), Guid("uuid")}),
      event("QXSectionEngagementFeedback", {Rec("section", kSection), U64("triggerEvent")}),
      event("QXVisibleSectionHeaderFeedback", {Rec("section", kSection), U64("sectionHeaderType")}),
      event("VorlenSessionMissingResults", {Recs("results", kResult)}),
      event("VorlenSessionMissingSuggestions", {Recs("suggestions", kSuggestion)}),
      event("QXDidGoToSiteFeedback", {Str("input")}),
      event("QXDidGoToSearchFeedback", {Str("input"), U64("endpoint")}),
      event("VorlenConnectionInvalidated", {}),
      event("QXResultGradingFeedback", {Rec("result", kResult), U64("grade"), Str("textFeedback")}),
      event("QXLookupHintRelevancyFeedback", {Str("hint"), U64("grade")}),
  };
}

uint64_t QXFeedback::machineTimeNow() {
  // Event times order events within a session; they are deliberately monotonic, not wall-clock.
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

QXFeedback::QXFeedback(std::string className, uint64_t timestamp)
    : className_(std::move(className)), timestamp_(timestamp) {
  if (!RecordSchema::shared().isKindOf(className_, kClassName)) {
    log().fault("unknown feedback class {}", className_);
  }
}

bool QXFeedback::isServiceEvent() const {
  return className_.starts_with("VOR") || className_.starts_with("Vorlen");
}

bool QXFeedback::isKindOf(std::string_view base) const {
  return RecordSchema::shared().isKindOf(className_, base);
}

const Value* QXFeedback::field(std::string_view name) const {
  auto it = fields_.find(name);
  return it == fields_.end() ? nullptr : &it->second;
}

bool QXFeedback::set(std::string_view name, Value value) {
  if (name == "timestamp") {
    std::optional<uint64_t> t = value.isInteger() ? value.getUInt() : std::nullopt;
    if (!t) {
      log().fault("{}.timestamp: not an unsigned integer", className_);
      return false;
    }
    timestamp_ = *t;
    return true;
  }
  if (value.isNull()) {
    if (!RecordSchema::shared().field(className_, name)) {
      log().fault("{}: no field {}", className_, name);
      return false;
    }
    fields_.erase(std::string(name));
    return true;
  }
  std::string reason;
  if (!RecordCoder::validateField(className_, name, value, &reason)) {
    log().fault("refusing feedback field: {}", reason);
    return false;
  }
  fields_.insert_or_assign(std::string(name), std::move(value));
  return true;
}

const Value* QXFeedback::declared(std::string_view name) const {
  if (!RecordSchema::shared().field(className_, name)) {
    log().fault("{}: no field {}", className_, name);
    return nullptr;
  }
  return field(name);
}

std::optional<std::string> QXFeedback::string(std::string_view name) const {
  const Value* v = declared(name);
  if (!v || !v->isString()) return std::nullopt;
  return *v->getString();
}

std::optional<uint64_t> QXFeedback::uint(std::string_view name) const {
  const Value* v = declared(name);
  if (!v || !v->isInteger()) return std::nullopt;
  return v->getUInt();
}

std::optional<int64_t> QXFeedback::integer(std::string_view name) const {
  const Value* v = declared(name);
  if (!v || !v->isInteger()) return std::nullopt;
  return v->getInt();
}

std::optional<double> QXFeedback::real(std::string_view name) const {
  const Value* v = declared(name);
  if (!v || v->type() != Value::Type::Real) return std::nullopt;
  return v->getDouble();
}

std::optional<bool> QXFeedback::boolean(std::string_view name) const {
  const Value* v = declared(name);
  return v ? v->getBool() : std::nullopt;
}

std::optional<Uuid> QXFeedback::guid(std::string_view name) const {
  const Value* v = declared(name);
  if (!v || !v->isData()) return std::nullopt;
  return Uuid::fromBytes(v->getData()->data(), v->getData()->size());
}

std::optional<QXFeedback> QXFeedback::feedback(std::string_view name) const {
  const Value* v = declared(name);
  if (!v || !RecordSchema::shared().isKindOf(v->className(), kClassName)) return std::nullopt;
  return fromValidatedRecord(*v);
}

Value QXFeedback::toRecord() const {
  Value::Dict d = fields_;
  d.insert_or_assign("$class", Value(className_));
  d.insert_or_assign("timestamp", Value(static_cast<unsigned long long>(timestamp_)));
  return Value(std::move(d));
}

std::optional<QXFeedback> QXFeedback::fromRecord(const Value& record, std::string* error) {
  if (!RecordCoder::check(record, kClassName, error)) return std::nullopt;
  return fromValidatedRecord(record);
}

QXFeedback QXFeedback::fromValidatedRecord(const Value& record) {
  QXFeedback f(std::string(record.className()), record.find("timestamp")->getUInt().value_or(0));
  for (const auto& [key, value] : *record.getDict()) {
    if (key != "$class" && key != "timestamp") f.fields_.emplace(key, value);
  }
  return f;
}

}  // namespace vorlen
