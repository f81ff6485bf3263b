#include "model/QXFeedback.h"

#include <gtest/gtest.h>

#include "base/Archive.h"
#include "base/Log.h"
#include "model/QXFeedbackFactory.h"
#include "model/QXResultSection.h"

namespace vorlen {
namespace {

QXFeedback throughBytes(const QXFeedback& f) {
  std::optional<Value> decoded = Archive::decodeBinary(Archive::encodeBinary(f.toRecord()));
  EXPECT_TRUE(decoded);
  std::string error;
  std::optional<QXFeedback> back = QXFeedback::fromRecord(decoded.value_or(Value()), &error);
  EXPECT_TRUE(back) << error;
  return back.value_or(QXFeedback());
}

TEST(FeedbackTest, FieldsAreCheckedWhenSet) {
  ScopedLogCapture capture;
  QXFeedback f("QXSearchViewAppearFeedback", 42);
  EXPECT_TRUE(f.set("viewAppearEvent", 9));
  EXPECT_TRUE(f.set("isOnLockScreen", false));
  EXPECT_FALSE(f.set("isOnLockScreen", 0));    // wrong type: unchanged
  EXPECT_FALSE(f.set("queryId", 5));           // a field of another event class
  EXPECT_FALSE(f.set("viewAppearEvent", -2));  // enumerations are unsigned
  EXPECT_EQ(f.uint("viewAppearEvent"), 9u);
  EXPECT_EQ(f.boolean("isOnLockScreen"), false);
  EXPECT_EQ(f.fields().size(), 2u);
  EXPECT_TRUE(capture.sink().contains(LogLevel::Fault, "Vorlen_Feedback",
                                      "refusing feedback field: QXSearchViewAppearFeedback.isOnLockScreen: "
                                      "expected boolean, found integer"));
  EXPECT_TRUE(
      capture.sink().contains("refusing feedback field: QXSearchViewAppearFeedback.queryId: no such field"));

  // A null value unsets; "timestamp" is the event time.
  EXPECT_TRUE(f.set("isOnLockScreen", Value()));
  EXPECT_EQ(f.boolean("isOnLockScreen"), std::nullopt);
  EXPECT_TRUE(f.set("timestamp", 7));
  EXPECT_EQ(f.timestamp(), 7u);
  EXPECT_FALSE(f.set("timestamp", "soon"));

  // Reading a field the class does not declare is a fault, so that a misspelt name shows at once.
  capture.sink().clear();
  EXPECT_EQ(f.uint("viewApearEvent"), std::nullopt);
  EXPECT_TRUE(capture.sink().contains(LogLevel::Fault, "Vorlen_Feedback",
                                      "QXSearchViewAppearFeedback: no field viewApearEvent"));
  // A declared but unset field is simply absent.
  capture.sink().clear();
  EXPECT_EQ(f.boolean("isOverApp"), std::nullopt);
  EXPECT_TRUE(capture.sink().records().empty());
}

TEST(FeedbackTest, EngagementEventsCarryTheirResultsAndSections) {
  ScopedLogCapture capture;
  QXSearchResult r;
  r.queryId = 77;
  r.type = 1;
  r.topHit = 1;
  r.completedQuery = "news today";
  QXResultSection section;
  section.identifier = "top";
  section.results = {r};

  QXFeedback engagement("QXResultEngagementFeedback", 1);
  ASSERT_TRUE(engagement.set("result", r.toRecord()));
  engagement.set("triggerEvent", 2);
  QXFeedback back = throughBytes(engagement);
  EXPECT_EQ(back, engagement);
  ASSERT_TRUE(back.record<QXSearchResult>("result"));
  EXPECT_EQ(back.record<QXSearchResult>("result")->queryId, 77u);
  EXPECT_TRUE(back.record<QXSearchResult>("result")->isTopHit());
  // Asking for another record type than the field holds yields nothing.
  EXPECT_EQ(back.record<QXResultSection>("result"), std::nullopt);

  QXFeedback ranking("QXSectionRankingFeedback", 2);
  ASSERT_TRUE(ranking.set("sections", Value::array({section.toRecord(), section.toRecord()})));
  ASSERT_TRUE(ranking.set("results", Value::array({r.toRecord()})));  // its own field
  EXPECT_TRUE(ranking.isKindOf("QXRankingFeedback"));
  EXPECT_FALSE(ranking.isKindOf("QXResultRankingFeedback"));
  std::vector<QXResultSection> sections = throughBytes(ranking).records<QXResultSection>("sections");
  ASSERT_EQ(sections.size(), 2u);
  EXPECT_EQ(sections[0], section);

  // Records of the wrong class are refused where sections belong.
  EXPECT_FALSE(ranking.set("sections", Value::array({r.toRecord()})));
  EXPECT_EQ(ranking.records<QXResultSection>("sections").size(), 2u);
}

TEST(FeedbackTest, DecodingRefusesWhatIsNotAnEvent) {
  ScopedLogCapture capture;
  std::string error;
  EXPECT_FALSE(QXFeedback::fromRecord(Value::record("VORReply"), &error));
  EXPECT_EQ(error, "VORReply: class VORReply where QXFeedback was expected");
  EXPECT_FALSE(QXFeedback::fromRecord(
      Value::record("QXClearInputFeedback").set("timestamp", 1).set("input", "x"), &error));
  EXPECT_EQ(error, "QXClearInputFeedback: unknown field input");
  EXPECT_FALSE(QXFeedback::fromRecord(Value::record("QXClearInputFeedback"), &error));
  EXPECT_EQ(error, "QXClearInputFeedback: missing required field timestamp");

  // The base class itself is an event (it reports as the unknown type).
  std::optional<QXFeedback> plain = QXFeedback::fromRecord(Value::record("QXFeedback").set("timestamp", 3));
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->className(), "QXFeedback");
  EXPECT_EQ(plain->timestamp(), 3u);

  capture.sink().clear();
  QXFeedback unknown("QXNotAnEvent");
  EXPECT_TRUE(
      capture.sink().contains(LogLevel::Fault, "Vorlen_Feedback", "unknown feedback class QXNotAnEvent"));
  EXPECT_FALSE(QXFeedback::fromRecord(unknown.toRecord()));
}

TEST(FeedbackTest, TheDaemonsOwnEventsAreValidRecords) {
  ScopedLogCapture capture;
  Uuid uuid = *Uuid::parse("1B4E28BA-2FA1-41D2-883F-0016D3CCA427");
  StringMap headers{{"User-Agent", "Vorlend/1.0"}, {"X-Velmo-UserGuid", "abc"}};
  QXFeedback start = QXFeedbackFactory::startNetworkSearch("wea", "https://x/search?q=wea", headers, 1, 6);
  QXFeedback lookupStart = QXFeedbackFactory::lookupStartNetworkSearch("word", "https://x/search?q=word",
                                                                       headers, 2, "movies", 11);
  QXFeedback localStart = QXFeedbackFactory::startLocalSearch("wea", 1, 7, 12);
  std::vector<QXFeedback> events = {
      QXFeedbackFactory::skipSearch(3, "wea"),
      localStart,
      QXFeedbackFactory::endLocalSearch(localStart),
      QXFeedbackFactory::didGoToSearch("wea", 6),
      QXFeedbackFactory::cacheHit(4, "wea", uuid),
      start,
      lookupStart,
      QXFeedbackFactory::endNetworkSearch(start, 1234, 200, Value::Dict{{"Start", Value(0.5)}}),
      QXFeedbackFactory::vorEndNetworkSearch(lookupStart, 10, 503, "ok", 12.5, "fbq", "10.1.0.0", {}),
      QXFeedbackFactory::error(VORError::make(2, "statusCode 503"), VORError::make(-1009, "offline")),
      QXFeedbackFactory::sessionEnd(4),
      QXFeedbackFactory::sessionMissingResults({QXSearchResult{}}),
      QXFeedbackFactory::sessionMissingSuggestions({QXSearchSuggestion{}}),
      QXFeedbackFactory::connectionInvalidated(),
  };
  for (const QXFeedback& e : events) {
    EXPECT_EQ(throughBytes(e), e) << e.className();
  }
  // No field of any of them was refused.
  for (const LogRecord& r : capture.sink().records()) EXPECT_NE(r.level, LogLevel::Fault) << r.message;

  EXPECT_EQ(events[0].className(), "VORSkipSearchFeedback");
  EXPECT_EQ(events[0].uint("triggerEvent"), 3u);
  EXPECT_EQ(events[4].guid("uuid"), uuid);
  EXPECT_EQ(events[6].uint("lookupSelectionType"), 2u);
  EXPECT_EQ(events[6].uint("triggerEvent"), std::nullopt);
  EXPECT_TRUE(events[6].isKindOf("QXStartNetworkSearchFeedback"));

  // End events hold their start event, of whatever start class it was.
  std::optional<QXFeedback> nested = events[8].feedback("startSearch");
  ASSERT_TRUE(nested);
  EXPECT_EQ(*nested, lookupStart);
  EXPECT_TRUE(events[8].isKindOf("QXEndNetworkSearchFeedback"));
  EXPECT_EQ(events[8].integer("statusCode"), 503);
  EXPECT_EQ(events[8].real("vorlenDuration"), 12.5);
  EXPECT_EQ(events[7].feedback("startSearch")->string("url"), "https://x/search?q=wea");
  EXPECT_EQ(events[2].feedback("startSearch")->uint("indexType"), 7u);

  std::optional<VORError> error = events[9].record<VORError>("underlyingError");
  ASSERT_TRUE(error);
  EXPECT_EQ(error->reason(), "offline");
  EXPECT_EQ(events[10].integer("reason"), 4);
  EXPECT_EQ(events[11].records<QXSearchResult>("results").size(), 1u);
}

TEST(FeedbackTest, MachineTimeMovesForward) {
  uint64_t a = QXFeedback::machineTimeNow();
  QXFeedback f;
  EXPECT_GE(f.timestamp(), a);
  EXPECT_GE(QXFeedback::machineTimeNow(), f.timestamp());
}

}  // namespace
}  // namespace vorlen
