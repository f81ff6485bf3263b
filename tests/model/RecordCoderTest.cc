#include "model/RecordCoder.h"

#include <gtest/gtest.h>

#include "base/Archive.h"
#include "base/Log.h"
#include "model/QXFeedback.h"
#include "model/RecordSchema.h"
#include "model/VORRequest.h"
#include "model/VORSessionConfiguration.h"

namespace vorlen {
namespace {

std::string reasonFor(const Value& record, std::string_view expected = "") {
  std::string error;
  EXPECT_FALSE(RecordCoder::validate(record, expected, &error)) << record.describe();
  return error;
}

// A value of every field type, and one of another type for each.
Value sampleOf(const FieldDef& f, int depth = 0);

Value sampleRecord(std::string_view cls, int depth) {
  const RecordSchema& schema = RecordSchema::shared();
  // A nested class may be abstract or carry required fields; pick the first concrete kind of it.
  std::string concrete(cls);
  if (schema.find(cls)->abstract) {
    for (const std::string& name : schema.classNames()) {
      if (!schema.find(name)->abstract && schema.isKindOf(name, cls)) {
        concrete = name;
        break;
      }
    }
  }
  Value r = Value::record(concrete);
  for (const FieldDef* f : schema.allFields(concrete)) {
    // Nested records are filled two levels down; deeper ones carry only their required fields.
    if (depth < 2 || f->required) r.set(f->name, sampleOf(*f, depth + 1));
  }
  return r;
}

Value single(const FieldDef& f, int depth) {
  switch (f.type) {
    case FieldType::String:
      return Value("text");
    case FieldType::Int:
      return Value(-7);
    case FieldType::UInt:
      return Value(uint64_t{1} << 63 | 5);  // only the 16-byte integer form holds it
    case FieldType::Real:
      return Value(2.5);
    case FieldType::Bool:
      return Value(true);
    case FieldType::Date:
      return Value(fromUnixSeconds(1700000000.25));
    case FieldType::Data:
      return Value(Value::Data{0, 1, 2});
    case FieldType::Guid:
      return Value(Value::Data(16, 0xab));
    case FieldType::Record:
      return sampleRecord(f.recordClass, depth);
    case FieldType::Dict:
      return Value::dict({{"n", 1}, {"list", Value::array({"a", 2.0})}});
    case FieldType::StringMap:
      return Value::dict({{"Accept", "*/*"}});
    case FieldType::Plist:
      return Value::array({"x", Value::dict({{"y", false}})});
  }
  return Value();
}

Value sampleOf(const FieldDef& f, int depth) {
  if (!f.array) return single(f, depth);
  return Value::array({single(f, depth), single(f, depth)});
}

// A value that the field's type must refuse.
Value wrongFor(const FieldDef& f) {
  if (f.array) return single(f, 1);  // an item where an array belongs
  switch (f.type) {
    case FieldType::String:
      return Value(1);
    case FieldType::Int:
      return Value("1");
    case FieldType::UInt:
      return Value(-1);
    case FieldType::Real:
      return Value(2);  // an integer node is not a real
    case FieldType::Bool:
      return Value(1);
    case FieldType::Date:
      return Value(1700000000.0);
    case FieldType::Data:
      return Value("bytes");
    case FieldType::Guid:
      return Value(Value::Data(15, 1));
    case FieldType::Record:
      return Value::dict({{"plain", "dictionary"}});
    case FieldType::Dict:
      return Value::array({});
    case FieldType::StringMap:
      return Value::dict({{"Accept", 1}});
    case FieldType::Plist:
      return Value();  // cannot be wrong; skipped by the caller
  }
  return Value();
}

TEST(RecordSchemaTest, TableIsSoundAndCoversTheFramework) {
  const RecordSchema& schema = RecordSchema::shared();
  EXPECT_EQ(schema.problems(), std::vector<std::string>{});
  for (const char* cls :
       {"VORSessionConfiguration", "VORSearchRequest", "VORFlightLookupRequest", "VORReply", "VORError",
        "VORBag", "QXSearchResult", "QXResultSection", "QXSearchSuggestion", "Endpoint", "FileHandle",
        "VorlenSessionEndFeedback", "QXLookupHintRelevancyFeedback"}) {
    EXPECT_NE(schema.find(cls), nullptr) << cls;
  }
  EXPECT_TRUE(schema.isKindOf("VOREndNetworkSearchFeedback", "QXEndNetworkSearchFeedback"));
  EXPECT_TRUE(schema.isKindOf("VOREndNetworkSearchFeedback", "QXFeedback"));
  EXPECT_FALSE(schema.isKindOf("QXFeedback", "QXEndNetworkSearchFeedback"));
  EXPECT_FALSE(schema.isKindOf("NoSuchClass", "NoSuchClass"));
  // Inherited fields come first, so the base's timestamp heads every event's list.
  std::vector<const FieldDef*> fields = schema.allFields("VORLookupStartNetworkSearchFeedback");
  ASSERT_FALSE(fields.empty());
  EXPECT_EQ(fields.front()->name, "timestamp");
  EXPECT_EQ(fields.back()->name, "domain");
  EXPECT_NE(schema.field("VORSearchRequest", "queryId"), nullptr);
  EXPECT_EQ(schema.field("VORZeroKeywordRequest", "engagedSuggestion"), nullptr);
}

TEST(RecordSchemaTest, ProblemsOfAFaultyTableAreReported) {
  RecordSchema bad({
      ClassDef{"A", "B", false, {}},
      ClassDef{"B", "A", false, {}},
      ClassDef{"C", "Missing", false, {{"x", FieldType::Record, false, false, "Nowhere"}}},
      ClassDef{"D", "", false, {{"x", FieldType::String}, {"x", FieldType::Int}}},
  });
  std::vector<std::string> p = bad.problems();
  auto has = [&](const std::string& text) { return std::find(p.begin(), p.end(), text) != p.end(); };
  EXPECT_TRUE(has("class A is part of an inheritance cycle"));
  EXPECT_TRUE(has("class C derives from unknown class Missing"));
  EXPECT_TRUE(has("field C.x names unknown class Nowhere"));
  EXPECT_TRUE(has("field x of D is declared twice"));
  // Lookups stay bounded on the cycle.
  EXPECT_FALSE(bad.isKindOf("A", "Z"));
  EXPECT_EQ(bad.field("A", "y"), nullptr);
}

// Every concrete class, with every field set, passes the check and survives binary archiving unchanged.
TEST(RecordCoderTest, EveryClassWithEveryFieldSurvivesArchiving) {
  const RecordSchema& schema = RecordSchema::shared();
  for (const std::string& cls : schema.classNames()) {
    if (schema.find(cls)->abstract) continue;
    Value record = sampleRecord(cls, 0);
    std::string error;
    EXPECT_TRUE(RecordCoder::validate(record, "", &error)) << cls << ": " << error;
    std::optional<Value> back = Archive::decodeBinary(Archive::encodeBinary(record));
    ASSERT_TRUE(back) << cls;
    EXPECT_EQ(*back, record) << cls;
    EXPECT_TRUE(RecordCoder::validate(*back, "", &error)) << cls << ": " << error;
  }
}

TEST(RecordCoderTest, EveryFieldRefusesAValueOfAnotherType) {
  const RecordSchema& schema = RecordSchema::shared();
  int checked = 0;
  for (const std::string& cls : schema.classNames()) {
    if (schema.find(cls)->abstract) continue;
    for (const FieldDef* f : schema.allFields(cls)) {
      if (f->type == FieldType::Plist && !f->array) continue;
      Value record = sampleRecord(cls, 0);
      record.set(f->name, wrongFor(*f));
      std::string reason = reasonFor(record);
      EXPECT_NE(reason.find(cls + "." + f->name), std::string::npos) << reason;
      ++checked;
    }
  }
  EXPECT_GT(checked, 150);
}

TEST(RecordCoderTest, RefusesRecordsThatAreNotWhatTheyClaim) {
  EXPECT_EQ(reasonFor(Value("x")), "record: expected a record, found string");
  EXPECT_EQ(reasonFor(Value::dict({{"identifier", "a"}})), "record: record without $class");
  EXPECT_EQ(reasonFor(Value::dict({{"$class", 5}})), "record: $class is a integer, not a string");
  EXPECT_EQ(reasonFor(Value::record("VORTotallyNew")), "VORTotallyNew: unknown class VORTotallyNew");
  EXPECT_EQ(reasonFor(Value::record("VORRequest")), "VORRequest: class VORRequest cannot be used by itself");
  EXPECT_EQ(reasonFor(Value::record("VORReply"), "VORRequest"),
            "VORReply: class VORReply where VORRequest was expected");
  EXPECT_EQ(reasonFor(Value::record("VORSessionConfiguration").set("identifer", "typo")),
            "VORSessionConfiguration: unknown field identifer");
  EXPECT_EQ(reasonFor(Value::record("Endpoint")), "Endpoint: missing required field path");
  EXPECT_EQ(reasonFor(Value::record("QXFeedback")), "QXFeedback: missing required field timestamp");
  // A subclass is accepted where its superclass is expected.
  EXPECT_TRUE(RecordCoder::validate(Value::record("VORCardRequest"), "VORRequest"));
}

TEST(RecordCoderTest, NumbersAreTakenOnlyInTheirOwnForm) {
  auto request = [](const char* field, Value v) { return Value::record("VORSearchRequest").set(field, v); };
  EXPECT_TRUE(RecordCoder::validate(request("queryId", Value(uint64_t{18446744073709551615u}))));
  EXPECT_TRUE(RecordCoder::validate(request("queryId", Value(0))));
  EXPECT_EQ(reasonFor(request("queryId", Value(-1))),
            "VORSearchRequest.queryId: expected unsigned integer, found negative integer");
  EXPECT_EQ(reasonFor(request("queryId", Value(3.0))),
            "VORSearchRequest.queryId: expected unsigned integer, found real");
  EXPECT_EQ(reasonFor(request("scale", Value(2))), "VORSearchRequest.scale: expected real, found integer");
  EXPECT_EQ(reasonFor(request("verboseReply", Value(1))),
            "VORSearchRequest.verboseReply: expected boolean, found integer");
  Value error = Value::record("VORError").set("domain", "d").set("code", Value(uint64_t{1} << 63));
  EXPECT_EQ(reasonFor(error), "VORError.code: expected integer, found integer above 2^63-1");
}

TEST(RecordCoderTest, NestedValuesAreCheckedWhereverTheySit) {
  Value section = Value::record("QXResultSection")
                      .set("results", Value::array({Value::record("QXSearchResult"),
                                                    Value::record("QXSearchResult").set("type", "web")}));
  Value ranking =
      Value::record("QXRankingFeedback").set("timestamp", 1).set("sections", Value::array({section}));
  EXPECT_EQ(reasonFor(ranking),
            "QXRankingFeedback.sections[0].results[1].type: expected unsigned integer, found string");

  Value item = Value::record("VORQueryItem").set("name", "q");
  Value wrongItem = Value::record("VORError").set("domain", "d").set("code", 1);
  EXPECT_EQ(reasonFor(Value::record("VORCardRequest").set("queryItems", Value::array({item, wrongItem}))),
            "VORCardRequest.queryItems[1]: class VORError where VORQueryItem was expected");

  // A nested event may be of a subclass of the declared class, never of another family.
  Value start = Value::record("VORLookupStartNetworkSearchFeedback").set("timestamp", 1).set("domain", "d");
  EXPECT_TRUE(RecordCoder::validate(
      Value::record("QXEndNetworkSearchFeedback").set("timestamp", 2).set("startSearch", start)));
  Value local = Value::record("QXStartLocalSearchFeedback").set("timestamp", 1);
  EXPECT_EQ(
      reasonFor(Value::record("QXEndNetworkSearchFeedback").set("timestamp", 2).set("startSearch", local)),
      "QXEndNetworkSearchFeedback.startSearch: class QXStartLocalSearchFeedback where "
      "QXStartNetworkSearchFeedback was expected");

  EXPECT_EQ(reasonFor(Value::record("QXStartNetworkSearchFeedback")
                          .set("timestamp", 1)
                          .set("headers", Value::dict({{"A", "1"}, {"B", Value::array({})}}))),
            "QXStartNetworkSearchFeedback.headers.B: expected string, found array");
}

TEST(RecordCoderTest, NestingIsBounded) {
  // Suggestions nest through duplicateSuggestions: each level is a record inside an array.
  auto chain = [](int records) {
    Value s = Value::record("QXSearchSuggestion");
    for (int i = 1; i < records; ++i) {
      s = Value::record("QXSearchSuggestion").set("duplicateSuggestions", Value::array({s}));
    }
    return s;
  };
  // Records sit on the odd levels: 8 records reach level 15, 9 would reach 17.
  EXPECT_TRUE(RecordCoder::validate(chain(8)));
  std::string reason = reasonFor(chain(9));
  EXPECT_NE(reason.find("nesting deeper than 16 levels"), std::string::npos) << reason;

  // Free-form dictionaries count too.
  Value deep = Value(1);
  for (int i = 0; i < 20; ++i) deep = Value::dict({{"d", deep}});
  reason = reasonFor(Value::record("VORReply").set("httpRequest", deep));
  EXPECT_NE(reason.find("VORReply.httpRequest: nesting deeper than 16 levels"), std::string::npos) << reason;
  Value deepArray = Value(1);
  for (int i = 0; i < 20; ++i) deepArray = Value::array({deepArray});
  EXPECT_FALSE(RecordCoder::validate(Value::record("VORSearchRequest").set("topTopics", deepArray)));
}

TEST(RecordCoderTest, RejectionsOfOutsideBytesLeaveOneLogLine) {
  ScopedLogCapture capture;
  std::string error;
  const uint8_t garbage[] = {'b', 'p', 'l', 'i', 's', 't', '0', '0', 1, 2, 3};
  EXPECT_FALSE(RecordCoder::decodeArchived(garbage, "", &error));
  EXPECT_EQ(error.rfind("undecodable property list: ", 0), 0u) << error;

  std::vector<uint8_t> bytes =
      Archive::encodeBinary(Value::record("VORSessionConfiguration").set("identifier", 3));
  EXPECT_FALSE(RecordCoder::decodeArchived(bytes, "VORSessionConfiguration", &error));
  EXPECT_EQ(error, "VORSessionConfiguration.identifier: expected string, found integer");
  EXPECT_TRUE(
      capture.sink().contains(LogLevel::Error, "Vorlen_Protocol",
                              "rejecting record: VORSessionConfiguration.identifier: expected string, "
                              "found integer"));
  size_t errors = 0;
  for (const LogRecord& r : capture.sink().records()) errors += r.level >= LogLevel::Error;
  EXPECT_EQ(errors, 2u);

  bytes = Archive::encodeBinary(Value::record("VORSessionConfiguration").set("identifier", "a"));
  std::optional<Value> ok = RecordCoder::decodeArchived(bytes, "VORSessionConfiguration", &error);
  ASSERT_TRUE(ok);
  EXPECT_EQ(*ok->find("identifier"), Value("a"));
}

}  // namespace
}  // namespace vorlen
