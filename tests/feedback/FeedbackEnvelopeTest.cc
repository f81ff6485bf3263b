// The envelope's archive form, the session-local identifiers of SessionProcessingHelper, and events that
// arrive malformed or oversized.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "base/Archive.h"
#include "base/Log.h"
#include "feedback/FeedbackTestSupport.h"
#include "feedback/SessionProcessingHelper.h"
#include "feedback/VorlenFeedback.h"
#include "model/QXFeedbackFactory.h"
#include "model/RecordCoder.h"
#include "model/RecordSchema.h"

namespace vorlen {
namespace {

using Json = nlohmann::ordered_json;
using test::event;

std::optional<VorlenFeedback> throughBytes(const VorlenFeedback& f) {
  std::optional<Value> decoded = Archive::decodeBinary(Archive::encodeBinary(f.toArchive()));
  if (!decoded) return std::nullopt;
  return VorlenFeedback::fromArchive(*decoded);
}

TEST(FeedbackEnvelopeTest, ArchiveKeepsEveryFieldButTheRelativeTime) {
  ScopedLogCapture capture;
  const Uuid guid = Uuid::random();
  VorlenFeedback f(
      event("QXVisibleResultsFeedback",
            {{"triggerEvent", 2}, {"results", test::records<QXSearchResult>({test::result("a")})}}),
      INT64_MIN, guid, "Voyant/17 (phone)", UINT64_MAX);
  f.relTimestamp = 99;
  Value archive = f.toArchive();
  EXPECT_EQ(archive.getDict()->size(), 6u);  // "$class" and the five fields
  std::optional<VorlenFeedback> back = throughBytes(f);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->feedback, f.feedback);
  EXPECT_EQ(back->queryId, INT64_MIN);
  EXPECT_EQ(back->clientQueryId, UINT64_MAX);
  EXPECT_EQ(back->userGuid, guid);
  EXPECT_EQ(back->userAgent, "Voyant/17 (phone)");
  EXPECT_EQ(back->relTimestamp, 0u);

  // Absent values stay absent.
  std::optional<VorlenFeedback> bare =
      throughBytes(VorlenFeedback(QXFeedbackFactory::connectionInvalidated(), 0, std::nullopt, ""));
  ASSERT_TRUE(bare);
  EXPECT_EQ(bare->userGuid, std::nullopt);
  EXPECT_TRUE(capture.sink().records().empty());
}

TEST(FeedbackEnvelopeTest, ArchiveDecodingRefusesWhatIsNotAnEnvelopeWithOneLine) {
  const Value good = VorlenFeedback(event("QXClearInputFeedback"), 1, Uuid::random(), "a", 2).toArchive();
  auto with = [&](const char* key, Value v) {
    Value copy = good;
    if (v.isNull()) {
      copy.erase(key);
    } else {
      copy.set(key, std::move(v));
    }
    return copy;
  };
  struct Case {
    Value archive;
    const char* reason;
  };
  std::vector<Case> cases = {
      {Value("envelope"), "expected a record, found string"},
      {with("$class", "QXClearInputFeedback"), "not a VorlenFeedback record"},
      {with("extra", 1), "VorlenFeedback: unknown key extra"},
      {with("feedback", Value()), "VorlenFeedback: missing feedback"},
      {with("feedback", Value::record("VORError")),
       "VorlenFeedback.feedback: VORError: class VORError where QXFeedback was expected"},
      {with("feedback", Value::record("QXClearInputFeedback").set("timestamp", 1).set("input", "x")),
       "VorlenFeedback.feedback: QXClearInputFeedback: unknown field input"},
      {with("query_id", "42"), "VorlenFeedback.query_id: expected a signed 64-bit integer, found string"},
      {with("query_id", Value(UINT64_MAX)),
       "VorlenFeedback.query_id: expected a signed 64-bit integer, found integer"},
      {with("user_guid", Value(Value::Data(15, 1))), "VorlenFeedback.user_guid: expected a 16-byte GUID"},
      {with("user_agent", 3), "VorlenFeedback.user_agent: expected string, found integer"},
      {with("_clientQueryId", -1),
       "VorlenFeedback._clientQueryId: expected an unsigned 64-bit integer, found integer"},
  };
  for (const Case& c : cases) {
    ScopedLogCapture capture;
    std::string error;
    EXPECT_FALSE(VorlenFeedback::fromArchive(c.archive, &error));
    EXPECT_EQ(error, c.reason);
    ASSERT_EQ(capture.sink().records().size(), 1u) << c.reason;
    EXPECT_TRUE(capture.sink().contains(LogLevel::Error, "Vorlen_Feedback_Storage",
                                        std::string("rejecting feedback envelope: ") + c.reason));
  }
}

TEST(SessionProcessingHelperTest, ReplacesIdentifiersInFirstSeenOrder) {
  SessionProcessingHelper h;
  EXPECT_EQ(h.replacementForIdentifier("a"), "0");
  EXPECT_EQ(h.replacementForIdentifier("b"), "1");
  EXPECT_EQ(h.replacementForIdentifier("a"), "0");
  EXPECT_EQ(h.replacementForIdentifier(""), "2");
}

TEST(SessionProcessingHelperTest, ReportsOnlyWhatWasReferencedAndNeverExpanded) {
  SessionProcessingHelper h;
  h.identifierReferenced("shown-later", test::result("shown-later"));
  h.identifierExpanded("shown-later");  // referenced, then expanded: not missing
  h.identifierExpanded("shown-first");
  h.identifierReferenced("shown-first", test::result("shown-first"));  // expanded, then referenced
  h.identifierReferenced("never-shown", test::result("first copy"));
  h.identifierReferenced("never-shown", test::result("second copy"));  // the first one is kept
  h.identifierReferenced("s", test::suggestion("s", "weather"));
  std::vector<QXSearchResult> missing = h.missingResults();
  ASSERT_EQ(missing.size(), 1u);
  EXPECT_EQ(missing[0].identifier, "first copy");
  ASSERT_EQ(h.missingSuggestions().size(), 1u);
  h.identifierExpanded("s");
  EXPECT_TRUE(h.missingSuggestions().empty());
}

// One session's events through process(): identifiers become session-local in every event, what was
// only engaged is missing, what was shown is not, and application identifiers are kept.
TEST(SessionProcessingHelperTest, EventsOfASessionShareTheirReplacements) {
  ScopedLogCapture capture;
  const QXSearchResult web = test::result("https://example.com/a");
  const QXSearchResult app = test::result("org.example.App", "com.velmo.application");
  const QXSearchResult unseen = test::result("https://example.com/b");
  std::vector<VorlenFeedback> session = {
      {event("QXVisibleResultsFeedback", {{"results", test::records<QXSearchResult>({web, app})}}),
       1,
       {},
       ""},
      {event("QXResultEngagementFeedback", {{"result", web.toRecord()}}), 1, {}, ""},
      {event("QXResultGradingFeedback", {{"result", unseen.toRecord()}}), 1, {}, ""},
      {event("QXResultEngagementFeedback", {{"result", unseen.toRecord()}}), 1, {}, ""},
      {event("QXSuggestionEngagementFeedback", {{"suggestion", test::suggestion("s-1", "a").toRecord()}}),
       1,
       {},
       ""},
  };
  SessionProcessingHelper h;
  std::vector<Json> out;
  for (VorlenFeedback& f : session) {
    f.process(h);
    out.push_back(f.dictionary());
  }
  EXPECT_EQ(out[0]["results"][0]["id"], "0");
  EXPECT_EQ(out[0]["results"][1]["id"], "org.example.App");
  EXPECT_EQ(out[1]["result"]["id"], "0");
  EXPECT_EQ(out[2]["result"]["id"], "1");
  EXPECT_EQ(out[3]["result"]["id"], "1");
  EXPECT_EQ(out[4]["id"], "2");  // one numbering for results and suggestions

  std::vector<QXSearchResult> missing = h.missingResults();
  ASSERT_EQ(missing.size(), 1u);
  EXPECT_EQ(missing[0].identifier, "1");  // kept in its rewritten form, ready to be written
  VorlenFeedback missingEvent(QXFeedbackFactory::sessionMissingResults(missing), 0, std::nullopt, "");
  EXPECT_EQ(missingEvent.dictionary()["results"][0]["id"], "1");
  EXPECT_EQ(missingEvent.dictionary()["type"], "session_missing_results");
  // The suggestion was only engaged: missing too.
  ASSERT_EQ(h.missingSuggestions().size(), 1u);
  EXPECT_EQ(h.missingSuggestions()[0].identifier, "2");
  EXPECT_TRUE(capture.sink().records().empty());
}

// A value of another type than every field declares; the check must refuse it.
Value wrongTypeFor(const FieldDef& f) {
  if (f.array) return Value("not an array");
  switch (f.type) {
    case FieldType::String:
      return Value(1);
    case FieldType::Record:
      return Value::record("VORError");
    default:
      return Value("text");
  }
}

// The largest or oddest value a field of the type may hold.
Value extremeValueFor(const FieldDef& f) {
  Value one;
  switch (f.type) {
    case FieldType::String:
      one = Value(std::string(100000, 'x'));
      break;
    case FieldType::Int:
      one = Value(static_cast<long long>(INT64_MIN));
      break;
    case FieldType::UInt:
      one = Value(static_cast<unsigned long long>(UINT64_MAX));
      break;
    case FieldType::Real:
      one = Value(std::numeric_limits<double>::infinity());
      break;
    case FieldType::Bool:
      one = Value(true);
      break;
    case FieldType::Guid:
      one = Value(Value::Data(16, 0xff));
      break;
    case FieldType::Record:
      one = Value::record(f.recordClass);
      if (f.recordClass == "VORError") one.set("domain", "").set("code", 0);
      if (RecordSchema::shared().isKindOf(f.recordClass, QXFeedback::kClassName)) one.set("timestamp", 0);
      break;
    case FieldType::StringMap:
      one = Value::dict({{"k", "v"}});
      break;
    default:
      one = Value::dict({{"n", Value::array({Value(1), Value("x"), Value(Value::Data(3, 0))})}});
  }
  if (!f.array) return one;
  return Value(Value::Array(1000, one.type() == Value::Type::String ? Value("x") : one));
}

// Every event class: an unknown field, each field with the wrong type, and nesting too deep are refused
// at the edge with one line; each field at its extreme is accepted and goes through processing and both
// JSON forms.
TEST(FeedbackBadInputTest, EveryClassRefusesMalformedFieldsAndEncodesExtremeOnes) {
  const RecordSchema& schema = RecordSchema::shared();
  size_t classes = 0;
  for (const std::string& cls : schema.classNames()) {
    if (!schema.isKindOf(cls, QXFeedback::kClassName)) continue;
    ++classes;
    SCOPED_TRACE(cls);
    Value base = Value::record(cls).set("timestamp", 5);
    {
      ScopedLogCapture capture;
      EXPECT_FALSE(QXFeedback::fromRecord(Value(base).set("noSuchField", 1)));
      EXPECT_FALSE(QXFeedback::fromRecord(Value::record(cls)));  // no timestamp
      EXPECT_EQ(capture.sink().records().size(), 2u);
    }
    Value full = base;
    for (const FieldDef* f : schema.allFields(cls)) {
      if (f->name == "timestamp") continue;
      ScopedLogCapture capture;
      EXPECT_FALSE(QXFeedback::fromRecord(Value(base).set(f->name, wrongTypeFor(*f)))) << f->name;
      EXPECT_EQ(capture.sink().records().size(), 1u) << f->name;
      full.set(f->name, extremeValueFor(*f));
    }
    std::string error;
    std::optional<QXFeedback> event = QXFeedback::fromRecord(full, &error);
    ASSERT_TRUE(event) << error;
    VorlenFeedback f(*event, INT64_MAX, Uuid::random(), "agent", UINT64_MAX);
    SessionProcessingHelper h;
    f.process(h);
    EXPECT_FALSE(f.dictionary().dump().empty());
    EXPECT_TRUE(f.description());
    EXPECT_TRUE(VorlenFeedback::fromArchive(f.toArchive()));
  }
  EXPECT_GE(classes, 39u);

  // Nesting past the record limit is refused before any encoding sees it.
  Value nested = Value::dict({{"leaf", 1}});
  for (int i = 0; i < RecordCoder::kMaxDepth; ++i) nested = Value::dict({{"next", nested}});
  nested = Value::record("QXEndNetworkSearchFeedback").set("timestamp", 1).set("networkTimingData", nested);
  ScopedLogCapture capture;
  EXPECT_FALSE(QXFeedback::fromRecord(nested));
  EXPECT_EQ(capture.sink().records().size(), 1u);
}

}  // namespace
}  // namespace vorlen
