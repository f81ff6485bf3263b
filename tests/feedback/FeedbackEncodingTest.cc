// The JSON of every event class, checked against the examples of docs/FEEDBACK.md (the upload format a
// server reads), plus the encoding rules that the examples cannot show on their own.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>

#include <nlohmann/json.hpp>

#include "base/Counters.h"
#include "base/Log.h"
#include "base/ManualClock.h"
#include "base/Uuid.h"
#include "feedback/FeedbackEventType.h"
#include "feedback/FeedbackTestSupport.h"
#include "feedback/SessionProcessingHelper.h"
#include "feedback/VorlenEventsSuggestingSessionEnd.h"
#include "feedback/VorlenFeedback.h"
#include "feedback/VorlenSessionEndFeedback.h"
#include "model/QXFeedbackFactory.h"
#include "model/RecordSchema.h"
#include "model/VORError.h"

namespace vorlen {
namespace {

using Json = nlohmann::ordered_json;
using test::event;

constexpr int64_t kQueryId = 42;
constexpr uint64_t kClientQueryId = 7;
constexpr uint64_t kRelTimestamp = 1500;

Value guidValue(const char* text) {
  Uuid u = *Uuid::parse(text);
  return Value(Value::Data(u.bytes().begin(), u.bytes().end()));
}

Value startNetwork() {
  return Value::dict({{"$class", "QXStartNetworkSearchFeedback"},
                      {"timestamp", 900000},
                      {"url", "https://search.example/q"},
                      {"endpoint", 6}});
}

Value::Dict timing() {
  return {{"fetchStart", Value(1700000000.25)}, {"domainLookupEnd", Value(1.5)},
          {"connectEnd", Value(10.0)},          {"secureConnectionEnd", Value(20.0)},
          {"requestStart", Value(20.5)},        {"responseStart", Value(40.0)},
          {"responseEnd", Value(45.0)},         {"redirectCount", Value(0)},
          {"requestBytesSent", Value(310)},     {"bodyBytesReceived", Value(1200)},
          {"reusedConnection", Value(false)},   {"protocolName", Value("h2")}};
}

// One event of every class, as the examples of docs/FEEDBACK.md show them.
std::vector<QXFeedback> goldenEvents() {
  const QXSearchResult web = test::result("https://example.com/weather");
  const QXSearchResult app = test::result("org.example.Weather", "com.velmo.application");
  const QXSearchResult other = test::result("https://example.com/forecast");
  const QXResultSection webSection = test::section("web", {web});
  const QXSearchSuggestion sugg = test::suggestion("s-weather", "weather today");
  const Value cardSection =
      Value::dict({{"sectionId", "hours"}, {"actionTarget", 1}, {"actionDestination", 2}, {"more", true}});
  VORError error = VORError::make(500, "different guid in session");
  VORError underlying;
  underlying.domain = "VORURLErrorDomain";
  underlying.code = -1001;
  underlying.userInfo = {{"reason", Value("timed out")}};
  const Value networkEnd = Value::dict({{"startSearch", startNetwork()},
                                        {"responseSize", 1200},
                                        {"statusCode", 200},
                                        {"networkTimingData", Value(timing())},
                                        {"connectionReused", true},
                                        {"interface", "en0"},
                                        {"peerAddress", "2001:db8::1"},
                                        {"peerPort", 443}});
  Value::Dict vorEnd = *networkEnd.getDict();
  vorEnd.insert_or_assign("peerAddress", Value("192.0.2.7"));
  vorEnd.insert_or_assign("vorlenStatus", Value("ok"));
  vorEnd.insert_or_assign("vorlenDuration", Value(12.5));
  vorEnd.insert_or_assign("fbq", Value("fbq-1"));
  vorEnd.insert_or_assign("partialClientIp", Value("192.0.2.0"));
  Value::Dict lookupStart = *startNetwork().getDict();  // event() replaces the class
  lookupStart.insert_or_assign("lookupSelectionType", Value(1));
  lookupStart.insert_or_assign("domain", Value("dictionary"));

  return {
      event("QXFeedback"),
      event("QXSearchViewAppearFeedback", {{"viewAppearEvent", 8},
                                           {"isOnLockScreen", false},
                                           {"isOverApp", true},
                                           {"readerTextAvailable", false}}),
      event("QXSearchViewDisappearFeedback", {{"viewDisappearEvent", 16}}),
      event("QXCardViewAppearFeedback", {{"cardSections", Value::array({cardSection})}}),
      event("QXCardViewDisappearFeedback", {{"cardViewDisappearEvent", 1}}),
      event("QXStartSearchFeedback", {{"queryId", 42},
                                      {"triggerEvent", 1},
                                      {"input", "weath"},
                                      {"uuid", guidValue("1B4E28BA-2FA1-41D2-883F-0016D3CCA427")}}),
      event("QXEndSearchFeedback", {{"uuid", guidValue("1B4E28BA-2FA1-41D2-883F-0016D3CCA427")}}),
      event("QXStartNetworkSearchFeedback", {{"input", "weath"},
                                             {"url", "https://search.example/q"},
                                             {"headers", Value::dict({{"Accept-Language", "en-GB"}})},
                                             {"triggerEvent", 1},
                                             {"endpoint", 6}}),
      event("VORLookupStartNetworkSearchFeedback", lookupStart),
      event("QXEndNetworkSearchFeedback", *networkEnd.getDict()),
      event("VOREndNetworkSearchFeedback", vorEnd),
      event("QXStartLocalSearchFeedback", {{"input", "weath"}, {"triggerEvent", 1}, {"indexType", 7}}),
      event(
          "QXEndLocalSearchFeedback",
          {{"startSearch", Value::dict({{"$class", "QXStartLocalSearchFeedback"}, {"timestamp", 900000}})}}),
      event("QXRankingFeedback", {{"sections", test::records<QXResultSection>({webSection})},
                                  {"blendingDuration", 0.25},
                                  {"l2", "l2-model"},
                                  {"l3", "l3-model"},
                                  {"shadow", false}}),
      event("QXSectionRankingFeedback",
            {{"localSectionPosition", 1}, {"results", test::records<QXSearchResult>({web})}}),
      event("QXResultRankingFeedback", {{"localResultPosition", 3},
                                        {"hiddenResults", test::records<QXSearchResult>({other})},
                                        {"duplicateResults", test::records<QXSearchResult>({app})}}),
      event("QXVisibleResultsFeedback",
            {{"triggerEvent", 1}, {"results", test::records<QXSearchResult>({web, app})}}),
      event("QXResultEngagementFeedback", {{"result", web.toRecord()},
                                           {"triggerEvent", 2},
                                           {"destination", 2},
                                           {"thirdPartySuggestion", false},
                                           {"matchesUnengagedSuggestion", false},
                                           {"actionTarget", 6},
                                           {"actionDestination", 2},
                                           {"nonVorlenResult", false}}),
      event("QXErrorFeedback", {{"error", error.toRecord()}, {"underlyingError", underlying.toRecord()}}),
      event("QXCardSectionEngagementFeedback", {{"triggerEvent", 2},
                                                {"cardType", 1},
                                                {"actionTarget", 2},
                                                {"actionDestination", 2},
                                                {"more", false},
                                                {"cardSectionId", "hours"}}),
      event("QXMapsCardSectionEngagementFeedback", {{"feedbackType", 5}}),
      event("QXStoreCardSectionEngagementFeedback", {{"productPageResult", 4}}),
      event("QXVisibleSuggestionsFeedback",
            {{"suggestions", test::records<QXSearchSuggestion>({sugg})}, {"suggestionQuery", "weath"}}),
      event("QXSuggestionEngagementFeedback", {{"suggestion", sugg.toRecord()}, {"triggerEvent", 2}}),
      event("QXResultsReceivedAfterTimeoutFeedback", {{"results", test::records<QXSearchResult>({web})}}),
      event("QXLateSectionsAppendedFeedback", {{"sections", test::records<QXResultSection>({webSection})}}),
      event("QXClearInputFeedback", {{"triggerEvent", 1}}),
      event("VorlenSessionEndFeedback", {{"reason", 2}}),
      event("VORSkipSearchFeedback", {{"triggerEvent", 1}, {"input", "w"}}),
      event("VORCacheHitFeedback", {{"triggerEvent", 1},
                                    {"input", "weath"},
                                    {"uuid", guidValue("1B4E28BA-2FA1-41D2-883F-0016D3CCA427")}}),
      event("QXSectionEngagementFeedback", {{"section", webSection.toRecord()}, {"triggerEvent", 2}}),
      event("QXVisibleSectionHeaderFeedback", {{"section", webSection.toRecord()}, {"sectionHeaderType", 3}}),
      // The daemon makes these of items whose identifiers it has already replaced.
      event("VorlenSessionMissingResults", {{"results", test::records<QXSearchResult>({test::result("5")})}}),
      event("VorlenSessionMissingSuggestions",
            {{"suggestions", test::records<QXSearchSuggestion>({test::suggestion("6", "weather today")})}}),
      event("QXDidGoToSiteFeedback", {{"input", "example.com"}}),
      event("QXDidGoToSearchFeedback", {{"input", "weather"}, {"endpoint", 4}}),
      event("VorlenConnectionInvalidated"),
      event("QXResultGradingFeedback",
            {{"result", web.toRecord()}, {"grade", 4}, {"textFeedback", "useful"}}),
      event("QXLookupHintRelevancyFeedback", {{"hint", "weather"}, {"grade", 1}}),
  };
}

// The upload form of an event as the examples show it: alone in a new session, at relative time 1500.
Json uploadForm(const QXFeedback& f) {
  VorlenFeedback envelope(f, kQueryId, Uuid(), "agent", kClientQueryId);
  envelope.relTimestamp = kRelTimestamp;
  SessionProcessingHelper helper;
  envelope.process(helper);
  return envelope.dictionary();
}

// The examples of docs/FEEDBACK.md: every fenced block opened with "```json <event class>".
std::map<std::string, std::string> documentedExamples() {
  std::ifstream in(std::string(VORLEN_SOURCE_DIR) + "/docs/FEEDBACK.md");
  EXPECT_TRUE(in) << "docs/FEEDBACK.md is missing";
  std::map<std::string, std::string> out;
  std::string line, cls, body;
  bool inBlock = false;
  while (std::getline(in, line)) {
    if (!inBlock && line.starts_with("```json ")) {
      cls = line.substr(8);
      body.clear();
      inBlock = true;
    } else if (inBlock && line.starts_with("```")) {
      EXPECT_FALSE(out.contains(cls)) << "two examples for " << cls;
      out[cls] = body;
      inBlock = false;
    } else if (inBlock) {
      body += line + "\n";
    }
  }
  return out;
}

TEST(FeedbackEncodingTest, EveryEventClassEncodesAsItsDocumentedExample) {
  ScopedLogCapture capture;
  std::map<std::string, std::string> examples = documentedExamples();
  std::vector<QXFeedback> events = goldenEvents();
  for (const QXFeedback& f : events) {
    SCOPED_TRACE(f.className());
    Json actual = uploadForm(f);
    auto it = examples.find(f.className());
    if (it == examples.end()) {
      ADD_FAILURE() << "no example for " << f.className() << "; its upload form is\n" << actual.dump(2);
      continue;
    }
    Json expected = Json::parse(it->second, nullptr, /*allow_exceptions=*/false);
    ASSERT_FALSE(expected.is_discarded()) << "the example of " << f.className() << " is not JSON";
    // ordered_json compares objects key by key in order, so the key order is checked too.
    EXPECT_EQ(actual, expected) << "actual:\n" << actual.dump(2);
    examples.erase(it);
  }
  EXPECT_TRUE(examples.empty()) << "examples without an event: " << examples.begin()->first;
  // Encoding read only fields the classes declare.
  for (const LogRecord& r : capture.sink().records()) ADD_FAILURE() << r.message;

  // Every event class of the field table is in the table above, so a new class cannot go undocumented.
  const RecordSchema& schema = RecordSchema::shared();
  for (const std::string& name : schema.classNames()) {
    if (!schema.isKindOf(name, QXFeedback::kClassName)) continue;
    EXPECT_TRUE(
        std::any_of(events.begin(), events.end(), [&](const QXFeedback& f) { return f.className() == name; }))
        << name << " has no example";
  }
}

TEST(FeedbackEncodingTest, EnumerationsOutsideTheirTableAreNamedNotDropped) {
  struct Case {
    QXFeedback event;
    const char* key;
    const char* expected;
  };
  const uint64_t huge = UINT64_MAX;
  const Value cards = Value::array({Value::dict({{"actionTarget", -3}, {"actionDestination", Value(huge)}}),
                                    Value::dict({{"actionTarget", "call"}})});
  std::vector<Case> cases = {
      {event("QXClearInputFeedback", {{"triggerEvent", 3}}), "/trigger_event", "backspace"},  // last entry
      {event("QXClearInputFeedback", {{"triggerEvent", 4}}), "/trigger_event", "last_"},
      {event("QXClearInputFeedback", {{"triggerEvent", 5}}), "/trigger_event", "(unknown: 5)"},
      {event("QXClearInputFeedback", {{"triggerEvent", Value(huge)}}), "/trigger_event",
       "(unknown: 18446744073709551615)"},
      {event("QXClearInputFeedback"), "/trigger_event", "unknown"},  // absent: index 0
      {event("QXLookupHintRelevancyFeedback", {{"grade", 3}}), "/grade", "last_"},
      {event("QXStoreCardSectionEngagementFeedback", {{"productPageResult", 0}}), "/action_target",
       "canceled_product_page"},
      {event("VorlenSessionEndFeedback", {{"reason", 6}}), "/reason", "engagement received"},
      {event("VorlenSessionEndFeedback", {{"reason", 7}}), "/reason", "last_"},
      {event("VorlenSessionEndFeedback", {{"reason", -1}}), "/reason", "(unknown: -1)"},
      // Card sections are free-form dictionaries: wrong types read as absent.
      {event("QXCardViewAppearFeedback", {{"cardSections", cards}}), "/sections/0/action_target",
       "(unknown: -3)"},
      {event("QXCardViewAppearFeedback", {{"cardSections", cards}}), "/sections/0/action_destination",
       "(unknown: 18446744073709551615)"},
      {event("QXCardViewAppearFeedback", {{"cardSections", cards}}), "/sections/1/action_target", "unknown"},
  };
  for (const Case& c : cases) {
    Json d = VorlenFeedback(c.event, 1, std::nullopt, "agent").dictionary();
    EXPECT_EQ(d.at(Json::json_pointer(c.key)), c.expected) << c.event.className() << c.key;
  }
  EXPECT_EQ(VorlenSessionEndFeedback::triggerEventEnumToString(VorlenSessionEndFeedback::kGuidChanged),
            "guid changed");
}

TEST(FeedbackEncodingTest, QueryIdentifiersOnlyForEventsOfAQuery) {
  Counters::install(std::make_shared<Counters>(std::filesystem::path(), std::make_shared<ManualClock>()));
  struct Case {
    QXFeedback event;
    uint64_t clientQueryId;
    bool queryId, clientId;
  };
  std::vector<Case> cases = {
      {event("QXVisibleResultsFeedback"), 7, true, true},
      {event("QXVisibleResultsFeedback"), 0, true, false},  // no client query id at 0
      {event("QXFeedback"), 7, true, true},
      {event("QXEndNetworkSearchFeedback"), 7, false, false},
      {event("VOREndNetworkSearchFeedback"), 7, false, false},  // inherits from the plain end event
      {event("QXEndLocalSearchFeedback"), 7, false, false},
      {QXFeedbackFactory::sessionEnd(1), 7, false, false},
      {QXFeedbackFactory::sessionMissingResults({}), 7, false, false},
      {QXFeedbackFactory::sessionMissingSuggestions({}), 7, false, false},
      {QXFeedbackFactory::connectionInvalidated(), 7, false, false},
      {event("QXResultGradingFeedback"), 7, false, false},
      {event("QXLookupHintRelevancyFeedback"), 7, false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.event.className());
    VorlenFeedback f(c.event, -5, std::nullopt, "agent", c.clientQueryId);
    EXPECT_EQ(f.requiresQueryId(), c.queryId);
    Json upload = f.dictionary();
    Json log = Json::parse(f.description().value_or("{}"));
    for (const Json& form : {upload, log}) {
      EXPECT_EQ(form.contains("query_id"), c.queryId);
      EXPECT_EQ(form.contains("client_query_id"), c.clientId);
      if (c.queryId) {
        EXPECT_EQ(form["query_id"], -5);
      }
      if (c.clientId) {
        EXPECT_EQ(form["client_query_id"], c.clientQueryId);
      }
    }
  }
  Counters::install(nullptr);
}

TEST(FeedbackEncodingTest, TypesFollowTheClassChain) {
  struct Case {
    const char* cls;
    int type;
  };
  for (const Case& c : std::vector<Case>{
           {"QXFeedback", kEventUnknown},
           {"VORCacheHitFeedback", kEventUnknown},  // a subclass without a type of its own
           {"VOREndNetworkSearchFeedback", kEventNetworkSearchEnd},
           {"VORLookupStartNetworkSearchFeedback", kEventNetworkSearchStart},
           {"QXSectionRankingFeedback", kEventRankSections},
           {"QXResultRankingFeedback", kEventRankSections},
           {"QXMapsCardSectionEngagementFeedback", kEventCardEngagement},
           {"QXCardSectionEngagementFeedback", kEventCardSectionEngagement},
       }) {
    VorlenFeedback f(event(c.cls), 0, std::nullopt, "");
    EXPECT_EQ(f.type(), c.type) << c.cls;
    EXPECT_EQ(f.dictionary()["type"], VorlenFeedback::eventTypeToString(c.type)) << c.cls;
  }
  EXPECT_TRUE(eventSuggestsSessionEnd(VorlenFeedback(event("QXResultEngagementFeedback"), 0, {}, "").type()));
  EXPECT_TRUE(eventSuggestsSessionEnd(
      VorlenFeedback(event("QXStoreCardSectionEngagementFeedback"), 0, {}, "").type()));
  EXPECT_FALSE(
      eventSuggestsSessionEnd(VorlenFeedback(event("QXCardSectionEngagementFeedback"), 0, {}, "").type()));

  ScopedLogCapture capture;
  EXPECT_EQ(VorlenFeedback::eventTypeToString(38), "(unknown: 38)");
  EXPECT_TRUE(capture.sink().contains(LogLevel::Fault, "Vorlen_Feedback", "no feedback event type 38"));
}

TEST(FeedbackEncodingTest, DescriptionCarriesMachineTimeAndCountsWhatCannotBeWritten) {
  auto counters = std::make_shared<Counters>(std::filesystem::path(), std::make_shared<ManualClock>());
  Counters::install(counters);
  VorlenFeedback f(event("QXDidGoToSiteFeedback", {{"input", "example.com"}}, 7'250'000'000), 3, std::nullopt,
                   "agent");
  f.relTimestamp = 12;
  EXPECT_EQ(f.description(),
            R"({"input":"example.com","query_id":3,"type":"did_go_to_site","timestamp":7250})");
  EXPECT_EQ(f.dictionary()["timestamp"], 12);

  // Text made inside the daemon is not checked for UTF-8 the way decoded text is.
  QXFeedback broken("QXDidGoToSiteFeedback", 1);
  broken.set("input", std::string("caf\xc3", 4));
  EXPECT_EQ(VorlenFeedback(broken, 0, std::nullopt, "").description(), std::nullopt);
  EXPECT_EQ(counters->value("com.velmo.vorlend.feedbacknotsent"), 1);
  Counters::install(nullptr);
}

TEST(FeedbackEncodingTest, ValueFormLeavesOutNullsAndKeepsNumbersExact) {
  QXSearchResult noId = test::result("");
  noId.identifier.reset();
  VorlenFeedback f(event("QXResultEngagementFeedback", {{"result", noId.toRecord()}}), INT64_MIN,
                   std::nullopt, "agent", UINT64_MAX);
  f.relTimestamp = 3;
  ASSERT_TRUE(f.dictionary()["result"].is_null());
  Value v = f.dictionaryValue();
  EXPECT_EQ(v.find("result"), nullptr);
  EXPECT_EQ(v.find("query_id")->getInt(), INT64_MIN);
  EXPECT_EQ(v.find("client_query_id")->getUInt(), UINT64_MAX);
  EXPECT_EQ(*v.find("type")->getString(), "result_engagement");
  EXPECT_EQ(v.find("timestamp")->getUInt(), 3u);
  EXPECT_EQ(v.find("non_vorlen_result")->getBool(), false);
}

TEST(FeedbackEncodingTest, ComparatorSortsByMachineTimeKeepingTies) {
  std::vector<VorlenFeedback> list;
  for (auto [t, id] :
       std::vector<std::pair<uint64_t, int64_t>>{{30, 1}, {10, 2}, {30, 3}, {20, 4}, {10, 5}}) {
    list.emplace_back(QXFeedback("QXFeedback", t), id, std::nullopt, "");
  }
  std::stable_sort(list.begin(), list.end(), VorlenFeedback::timeStampComparator);
  std::vector<int64_t> order;
  for (const VorlenFeedback& f : list) order.push_back(f.queryId);
  EXPECT_EQ(order, (std::vector<int64_t>{2, 5, 4, 1, 3}));
}

}  // namespace
}  // namespace vorlen
