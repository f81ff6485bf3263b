#include "feedback/FeedbackEventEncoder.h"

#include <functional>
#include <map>

#include <nlohmann/json.hpp>

#include "feedback/FeedbackEnumerations.h"
#include "feedback/FeedbackEventType.h"
#include "feedback/FeedbackRecordEncoder.h"
#include "feedback/SessionProcessingHelper.h"
#include "feedback/VorlenSessionEndFeedback.h"
#include "model/QXResultSection.h"
#include "model/QXSearchResult.h"
#include "model/QXSearchSuggestion.h"
#include "model/RecordSchema.h"
#include "model/VORError.h"

namespace vorlen {
namespace {

using Json = nlohmann::ordered_json;
using E = FeedbackEnumerations;
using R = FeedbackRecordEncoder;

// Field readers: the field's value, or the type's empty value when the event lacks it.
std::string text(const QXFeedback& e, std::string_view field) {
  return e.string(field).value_or("");
}
uint64_t number(const QXFeedback& e, std::string_view field) {
  return e.uint(field).value_or(0);
}
bool flag(const QXFeedback& e, std::string_view field) {
  return e.boolean(field).value_or(false);
}
std::string enumerated(const QXFeedback& e, std::string_view field, EnumTable table) {
  return E::toString(table, number(e, field));
}
std::string guid(const QXFeedback& e, std::string_view field) {
  std::optional<Uuid> g = e.guid(field);
  return g ? g->string() : "";
}

// An enumerated value inside a dictionary field, whose entries are not typed by the field table.
std::string enumeratedValue(const Value* v, EnumTable table) {
  if (!v || !v->isInteger()) return E::toString(table, uint64_t{0});
  if (std::optional<int64_t> i = v->getInt()) return E::toString(table, *i);
  return E::toString(table, *v->getUInt());
}

Json results(const QXFeedback& e, std::string_view field) {
  Json a = Json::array();
  for (const QXSearchResult& r : e.records<QXSearchResult>(field)) a.push_back(R::result(r));
  return a;
}
Json sections(const QXFeedback& e, std::string_view field) {
  Json a = Json::array();
  for (const QXResultSection& s : e.records<QXResultSection>(field)) a.push_back(R::section(s));
  return a;
}
Json suggestions(const QXFeedback& e, std::string_view field) {
  Json a = Json::array();
  for (const QXSearchSuggestion& s : e.records<QXSearchSuggestion>(field)) a.push_back(R::suggestion(s));
  return a;
}
// {"id": <identifier>} of a result, or null when there is no result or it has no identifier.
Json resultReference(const QXFeedback& e, std::string_view field) {
  std::optional<QXSearchResult> r = e.record<QXSearchResult>(field);
  if (!r || !r->identifier || r->identifier->empty()) return nullptr;
  Json d = Json::object();
  d["id"] = *r->identifier;
  return d;
}

// Rewriters: decode the nested items, rewrite them, store them back.
void processResults(QXFeedback& e, std::string_view field, SessionProcessingHelper& h, bool expanded) {
  std::vector<QXSearchResult> items = e.records<QXSearchResult>(field);
  if (items.empty()) return;
  Value::Array a;
  for (QXSearchResult& r : items) {
    R::processResult(r, h, expanded);
    a.push_back(r.toRecord());
  }
  e.set(field, Value(std::move(a)));
}
void processResult(QXFeedback& e, std::string_view field, SessionProcessingHelper& h, bool expanded) {
  std::optional<QXSearchResult> r = e.record<QXSearchResult>(field);
  if (!r) return;
  R::processResult(*r, h, expanded);
  e.set(field, r->toRecord());
}
void processSections(QXFeedback& e, std::string_view field, SessionProcessingHelper& h) {
  std::vector<QXResultSection> items = e.records<QXResultSection>(field);
  if (items.empty()) return;
  Value::Array a;
  for (QXResultSection& s : items) {
    R::processSection(s, h);
    a.push_back(s.toRecord());
  }
  e.set(field, Value(std::move(a)));
}
void processSection(QXFeedback& e, std::string_view field, SessionProcessingHelper& h) {
  std::optional<QXResultSection> s = e.record<QXResultSection>(field);
  if (!s) return;
  R::processSection(*s, h);
  e.set(field, s->toRecord());
}
void processSuggestions(QXFeedback& e, std::string_view field, SessionProcessingHelper& h) {
  std::vector<QXSearchSuggestion> items = e.records<QXSearchSuggestion>(field);
  if (items.empty()) return;
  Value::Array a;
  for (QXSearchSuggestion& s : items) {
    R::processSuggestion(s, h, /*expanded=*/true);
    a.push_back(s.toRecord());
  }
  e.set(field, Value(std::move(a)));
}

using Encode = std::function<void(const QXFeedback&, Json&)>;
using Process = std::function<void(QXFeedback&, SessionProcessingHelper&)>;

// What one class adds to its superclass. A class without an entry, or an entry without a type or
// requiresQueryId, takes its superclass's.
struct ClassEncoding {
  std::optional<int> type;
  std::optional<bool> requiresQueryId;
  Encode encode;    // the class's own keys
  Process process;  // the class's own items
};

void networkEnd(const QXFeedback& e, Json& d) {
  d["response_size"] = number(e, "responseSize");
  d["status_code"] = e.integer("statusCode").value_or(0);
  const Value* timing = e.field("networkTimingData");
  d["network_timing_data"] =
      R::formatNetworkTimingData(timing && timing->getDict() ? *timing->getDict() : Value::Dict{});
  d["connection_reused"] = flag(e, "connectionReused");
  d["interface"] = text(e, "interface");
  if (std::optional<std::string> address = e.string("peerAddress"); address && !address->empty()) {
    d["peer_address"] = R::peerAddress(*address, number(e, "peerPort"));
  }
}

void cardViewAppear(const QXFeedback& e, Json& d) {
  Json list = Json::array();
  if (const Value* v = e.field("cardSections"); v && v->getArray()) {
    for (const Value& section : *v->getArray()) {
      auto get = [&](std::string_view key) { return section.find(key); };
      const Value* id = get("sectionId");
      const Value* target = get("actionTarget");
      const Value* destination = get("actionDestination");
      const Value* more = get("more");
      Json s = Json::object();
      s["section_id"] = id && id->isString() ? *id->getString() : "";
      s["action_target"] = enumeratedValue(target, E::actionTarget());
      s["action_destination"] = enumeratedValue(destination, E::engagementDestination());
      s["more"] = more && more->isBool() ? *more->getBool() : false;
      list.push_back(std::move(s));
    }
  }
  d["sections"] = std::move(list);
}

const std::map<std::string, ClassEncoding, std::less<>>& table() {
  static const auto* const t = new std::map<std::string, ClassEncoding, std::less<>>{
      {QXFeedback::kClassName, {kEventUnknown, true, nullptr, nullptr}},
      {"QXSearchViewAppearFeedback",
       {kEventSearchViewAppear,
        {},
        [](const QXFeedback& e, Json& d) {
          d["trigger_event"] = enumerated(e, "viewAppearEvent", E::searchViewAppearTrigger());
          d["on_lock_screen"] = flag(e, "isOnLockScreen");
          d["is_over_app"] = flag(e, "isOverApp");
          d["reader_text_available"] = flag(e, "readerTextAvailable");
        },
        nullptr}},
      {"QXSearchViewDisappearFeedback",
       {kEventSearchViewDisappear,
        {},
        [](const QXFeedback& e, Json& d) {
          d["trigger_event"] = enumerated(e, "viewDisappearEvent", E::searchViewDisappearTrigger());
        },
        nullptr}},
      {"QXCardViewAppearFeedback", {kEventCardViewAppear, {}, cardViewAppear, nullptr}},
      {"QXCardViewDisappearFeedback",
       {kEventCardViewDisappear,
        {},
        [](const QXFeedback& e, Json& d) {
          d["trigger_event"] = enumerated(e, "cardViewDisappearEvent", E::cardViewDisappearTrigger());
        },
        nullptr}},
      {"QXStartSearchFeedback",
       {kEventSearchStart,
        {},
        [](const QXFeedback& e, Json& d) {
          d["trigger_event"] = enumerated(e, "triggerEvent", E::searchStartTrigger());
          d["input"] = text(e, "input");
          d["uuid"] = guid(e, "uuid");
        },
        nullptr}},
      {"QXEndSearchFeedback",
       {kEventSearchEnd, {}, [](const QXFeedback& e, Json& d) { d["uuid"] = guid(e, "uuid"); }, nullptr}},
      {"QXStartNetworkSearchFeedback",
       {kEventNetworkSearchStart,
        {},
        [](const QXFeedback& e, Json& d) {
          d["url"] = text(e, "url");
          Json headers = Json::object();
          if (const Value* h = e.field("headers"); h && h->getDict()) {
            for (const auto& [name, value] : *h->getDict()) {
              if (value.isString()) headers[name] = *value.getString();
            }
          }
          d["headers"] = std::move(headers);
          d["endpoint_type"] = enumerated(e, "endpoint", E::networkEndpointType());
        },
        nullptr}},
      {"VORLookupStartNetworkSearchFeedback",
       {{},
        {},
        [](const QXFeedback& e, Json& d) {
          d["trigger_event"] = enumerated(e, "lookupSelectionType", E::lookupSelectionType());
          d["domain"] = text(e, "domain");
        },
        nullptr}},
      {"QXEndNetworkSearchFeedback", {kEventNetworkSearchEnd, false, networkEnd, nullptr}},
      {"VOREndNetworkSearchFeedback",
       {{},
        {},
        [](const QXFeedback& e, Json& d) {
          d["vorlen_status"] = text(e, "vorlenStatus");
          d["vorlen_duration"] = e.real("vorlenDuration").value_or(0.0);
          d["fbq"] = text(e, "fbq");
          d["vorlen_partial_client_ip"] = text(e, "partialClientIp");
        },
        nullptr}},
      {"QXStartLocalSearchFeedback",
       {kEventLocalSearchStart,
        {},
        [](const QXFeedback& e, Json& d) {
          d["index_type"] = enumerated(e, "indexType", E::localIndexType());
        },
        nullptr}},
      {"QXEndLocalSearchFeedback", {kEventLocalSearchEnd, false, nullptr, nullptr}},
      {"QXRankingFeedback",
       {kEventRankSections,
        {},
        [](const QXFeedback& e, Json& d) {
          d["blending_duration"] = e.real("blendingDuration").value_or(0.0);
          d["l2"] = text(e, "l2");
          d["l3"] = text(e, "l3");
          d["shadow"] = flag(e, "shadow");
          d["sections"] = sections(e, "sections");
        },
        [](QXFeedback& e, SessionProcessingHelper& h) { processSections(e, "sections", h); }}},
      {"QXSectionRankingFeedback",
       {{},
        {},
        [](const QXFeedback& e, Json& d) {
          d["local_section_position"] = number(e, "localSectionPosition");
          d["results"] = results(e, "results");
        },
        [](QXFeedback& e, SessionProcessingHelper& h) { processResults(e, "results", h, true); }}},
      {"QXResultRankingFeedback",
       {{},
        {},
        [](const QXFeedback& e, Json& d) {
          d["local_result_position"] = number(e, "localResultPosition");
          d["hidden_results"] = results(e, "hiddenResults");
          d["duplicate_results"] = results(e, "duplicateResults");
        },
        [](QXFeedback& e, SessionProcessingHelper& h) {
          processResults(e, "hiddenResults", h, true);
          processResults(e, "duplicateResults", h, true);
        }}},
      {"QXVisibleResultsFeedback",
       {kEventVisibleResults,
        {},
        [](const QXFeedback& e, Json& d) {
          d["trigger_event"] = enumerated(e, "triggerEvent", E::visibleResultsTrigger());
          d["results"] = results(e, "results");
        },
        [](QXFeedback& e, SessionProcessingHelper& h) { processResults(e, "results", h, true); }}},
      {"QXResultEngagementFeedback",
       {kEventResultEngagement,
        {},
        [](const QXFeedback& e, Json& d) {
          d["trigger_event"] = enumerated(e, "triggerEvent", E::engagementTrigger());
          d["destination"] = enumerated(e, "destination", E::engagementDestination());
          d["result"] = resultReference(e, "result");
          d["third_party_suggestion"] = flag(e, "thirdPartySuggestion");
          d["matches_unengaged_suggestion"] = flag(e, "matchesUnengagedSuggestion");
          d["action_target"] = enumerated(e, "actionTarget", E::actionTarget());
          d["action_destination"] = enumerated(e, "actionDestination", E::engagementDestination());
          d["non_vorlen_result"] = flag(e, "nonVorlenResult");
        },
        [](QXFeedback& e, SessionProcessingHelper& h) { processResult(e, "result", h, false); }}},
      {"QXErrorFeedback",
       {kEventError,
        {},
        [](const QXFeedback& e, Json& d) {
          d["error"] = R::encodeErrorForJSON(e.record<VORError>("error").value_or(VORError{}));
          if (std::optional<VORError> underlying = e.record<VORError>("underlyingError")) {
            d["underlying_error"] = R::encodeErrorForJSON(*underlying);
          }
        },
        nullptr}},
      {"QXCardSectionEngagementFeedback",
       {kEventCardSectionEngagement,
        {},
        [](const QXFeedback& e, Json& d) {
          d["trigger_event"] = enumerated(e, "triggerEvent", E::engagementTrigger());
          d["card_type"] = enumerated(e, "cardType", E::cardType());
          d["action_target"] = enumerated(e, "actionTarget", E::actionTarget());
          d["action_destination"] = enumerated(e, "actionDestination", E::engagementDestination());
          d["more"] = flag(e, "more");
          d["card_section_id"] = text(e, "cardSectionId");
        },
        nullptr}},
      {"QXMapsCardSectionEngagementFeedback",
       {kEventCardEngagement,
        {},
        [](const QXFeedback& e, Json& d) {
          d["trigger_event"] = "tap";
          d["card_type"] = "maps";
          d["action_target"] = enumerated(e, "feedbackType", E::mapsCardFeedbackType());
        },
        nullptr}},
      {"QXStoreCardSectionEngagementFeedback",
       {kEventCardEngagement,
        {},
        [](const QXFeedback& e, Json& d) {
          d["trigger_event"] = "tap";
          d["card_type"] = "orvelle_sheet";
          d["action_target"] = enumerated(e, "productPageResult", E::storeProductPageResult());
        },
        nullptr}},
      {"QXVisibleSuggestionsFeedback",
       {kEventVisibleSuggestions,
        {},
        [](const QXFeedback& e, Json& d) {
          d["suggestions"] = suggestions(e, "suggestions");
          d["suggestion_query"] = text(e, "suggestionQuery");
        },
        [](QXFeedback& e, SessionProcessingHelper& h) { processSuggestions(e, "suggestions", h); }}},
      {"QXSuggestionEngagementFeedback",
       {kEventSuggestionEngagement,
        {},
        [](const QXFeedback& e, Json& d) {
          std::optional<QXSearchSuggestion> s = e.record<QXSearchSuggestion>("suggestion");
          d["id"] = s && !s->identifier.empty() ? Json(s->identifier) : Json(nullptr);
        },
        [](QXFeedback& e, SessionProcessingHelper& h) {
          std::optional<QXSearchSuggestion> s = e.record<QXSearchSuggestion>("suggestion");
          if (!s) return;
          R::processSuggestion(*s, h, /*expanded=*/false);
          e.set("suggestion", s->toRecord());
        }}},
      {"QXResultsReceivedAfterTimeoutFeedback",
       {kEventResultsReceivedAfterTimeout,
        {},
        [](const QXFeedback& e, Json& d) { d["results"] = results(e, "results"); },
        [](QXFeedback& e, SessionProcessingHelper& h) { processResults(e, "results", h, true); }}},
      {"QXLateSectionsAppendedFeedback",
       {kEventLateSectionsAppended,
        {},
        [](const QXFeedback& e, Json& d) { d["sections"] = sections(e, "sections"); },
        [](QXFeedback& e, SessionProcessingHelper& h) { processSections(e, "sections", h); }}},
      {"QXClearInputFeedback",
       {kEventClearInput,
        {},
        [](const QXFeedback& e, Json& d) {
          d["trigger_event"] = enumerated(e, "triggerEvent", E::clearInputTrigger());
        },
        nullptr}},
      {"VorlenSessionEndFeedback",
       {kEventSessionEnd, false,
        [](const QXFeedback& e, Json& d) {
          d["reason"] = VorlenSessionEndFeedback::triggerEventEnumToString(e.integer("reason").value_or(0));
        },
        nullptr}},
      {"VORSkipSearchFeedback",
       {kEventSkipVorlenSearch,
        {},
        [](const QXFeedback& e, Json& d) {
          d["trigger_event"] = enumerated(e, "triggerEvent", E::skipSearchTrigger());
          d["input"] = text(e, "input");
        },
        nullptr}},
      // A cache hit has no event type of its own: it is uploaded as "unknown".
      {"VORCacheHitFeedback",
       {{}, {}, [](const QXFeedback& e, Json& d) { d["uuid"] = guid(e, "uuid"); }, nullptr}},
      {"QXSectionEngagementFeedback",
       {kEventSectionEngagement,
        {},
        [](const QXFeedback& e, Json& d) {
          std::optional<QXResultSection> s = e.record<QXResultSection>("section");
          d["id"] = s ? s->identifier : "";
          d["trigger_event"] = enumerated(e, "triggerEvent", E::sectionEngagementTrigger());
          Json list = Json::array();
          if (s) {
            for (const QXSearchResult& r : s->results) list.push_back(R::result(r));
          }
          d["results"] = std::move(list);
        },
        [](QXFeedback& e, SessionProcessingHelper& h) { processSection(e, "section", h); }}},
      {"QXVisibleSectionHeaderFeedback",
       {kEventVisibleSectionHeader,
        {},
        [](const QXFeedback& e, Json& d) {
          std::optional<QXResultSection> s = e.record<QXResultSection>("section");
          d["section_id"] = s ? s->identifier : "";
          d["section_header_type"] = enumerated(e, "sectionHeaderType", E::sectionHeaderType());
        },
        nullptr}},
      {"VorlenSessionMissingResults",
       {kEventSessionMissingResults, false,
        [](const QXFeedback& e, Json& d) { d["results"] = results(e, "results"); }, nullptr}},
      {"VorlenSessionMissingSuggestions",
       {kEventSessionMissingSuggestions, false,
        [](const QXFeedback& e, Json& d) { d["suggestions"] = suggestions(e, "suggestions"); }, nullptr}},
      {"QXDidGoToSiteFeedback",
       {kEventDidGoToSite, {}, [](const QXFeedback& e, Json& d) { d["input"] = text(e, "input"); }, nullptr}},
      {"QXDidGoToSearchFeedback",
       {kEventDidGoToSearch,
        {},
        [](const QXFeedback& e, Json& d) {
          d["input"] = text(e, "input");
          d["endpoint_type"] = enumerated(e, "endpoint", E::networkEndpointType());
        },
        nullptr}},
      {"VorlenConnectionInvalidated", {kEventConnectionInvalidated, false, nullptr, nullptr}},
      {"QXResultGradingFeedback",
       {kEventResultGrade, false,
        [](const QXFeedback& e, Json& d) {
          d["result"] = resultReference(e, "result");
          d["grade"] = enumerated(e, "grade", E::resultGrade());
          d["text_feedback"] = text(e, "textFeedback");
        },
        [](QXFeedback& e, SessionProcessingHelper& h) { processResult(e, "result", h, false); }}},
      {"QXLookupHintRelevancyFeedback",
       {kEventLookupHintGraded, false,
        [](const QXFeedback& e, Json& d) {
          d["hint"] = text(e, "hint");
          d["grade"] = enumerated(e, "grade", E::lookupHintGrade());
        },
        nullptr}},
  };
  return *t;
}

// The class's chain of encodings, the class itself first. The walk is bounded so that a cycle in a
// faulty schema cannot loop; real chains are three classes deep at most.
std::vector<const ClassEncoding*> chain(const QXFeedback& event) {
  constexpr size_t kMaxChain = 32;
  std::vector<const ClassEncoding*> out;
  const RecordSchema& schema = RecordSchema::shared();
  const ClassDef* c = schema.find(event.className());
  for (size_t steps = 0; c && steps < kMaxChain; ++steps) {
    auto it = table().find(c->name);
    if (it != table().end()) out.push_back(&it->second);
    if (c->name == QXFeedback::kClassName) break;
    c = c->superclass.empty() ? nullptr : schema.find(c->superclass);
  }
  return out;
}

}  // namespace

int FeedbackEventEncoder::type(const QXFeedback& event) {
  for (const ClassEncoding* c : chain(event)) {
    if (c->type) return *c->type;
  }
  return kEventUnknown;
}

bool FeedbackEventEncoder::requiresQueryId(const QXFeedback& event) {
  for (const ClassEncoding* c : chain(event)) {
    if (c->requiresQueryId) return *c->requiresQueryId;
  }
  return true;
}

Json FeedbackEventEncoder::dictionary(const QXFeedback& event) {
  Json d = Json::object();
  std::vector<const ClassEncoding*> classes = chain(event);
  for (auto it = classes.rbegin(); it != classes.rend(); ++it) {
    if ((*it)->encode) (*it)->encode(event, d);
  }
  return d;
}

void FeedbackEventEncoder::process(QXFeedback& event, SessionProcessingHelper& helper) {
  std::vector<const ClassEncoding*> classes = chain(event);
  for (auto it = classes.rbegin(); it != classes.rend(); ++it) {
    if ((*it)->process) (*it)->process(event, helper);
  }
}

}  // namespace vorlen
