// Typed records: every field survives the record coding and binary archiving, absent and empty values
// keep their meaning, and the request family decodes to the right kind.
#include <gtest/gtest.h>

#include <limits>
#include <set>

#include "base/Archive.h"
#include "base/Log.h"
#include "model/Endpoint.h"
#include "model/FileHandle.h"
#include "model/QXResultSection.h"
#include "model/QXSearchResult.h"
#include "model/QXSearchSuggestion.h"
#include "model/VORError.h"
#include "model/VORQueryItem.h"
#include "model/VORReply.h"
#include "model/VORRequest.h"
#include "model/VORSessionConfiguration.h"

namespace vorlen {
namespace {

constexpr uint64_t kBigId = std::numeric_limits<uint64_t>::max() - 1;

// Through the record Value, then through bytes, as the transport and the session files carry it.
template <class T>
T throughBytes(const T& original) {
  Value record = original.toRecord();
  std::optional<Value> decoded = Archive::decodeBinary(Archive::encodeBinary(record));
  EXPECT_TRUE(decoded);
  std::string error;
  std::optional<T> back = T::fromRecord(decoded.value_or(Value()), &error);
  EXPECT_TRUE(back) << error;
  return back.value_or(T{});
}

QXSearchSuggestion suggestion(std::string text, double score) {
  QXSearchSuggestion s;
  s.identifier = "sg-" + text;
  s.suggestion = std::move(text);
  s.score = score;
  s.type = 5;
  s.topicIdentifier = "topic";
  s.fbr = "fbr";
  return s;
}

QXSearchResult result(uint64_t queryId) {
  QXSearchResult r;
  r.identifier = "r1";
  r.queryId = queryId;
  r.type = 9;
  r.title = "Weather";
  r.completedQuery = "weather today";
  r.userInput = "";
  r.topHit = 2;
  r.score = 0.75;
  r.publiclyIndexable = true;
  r.sectionBundleIdentifier = "com.velmo.vorlen.web";
  r.bundleIdentifier = "com.example.app";
  r.fbr = "x";
  r.localFeatures = Value::Dict{{"f", Value(1.5)}};
  r.correctedQuery = "wether";
  r.staticCorrection = true;
  return r;
}

TEST(RecordsTest, PlainRecordsKeepEveryField) {
  VORSessionConfiguration config;
  config.identifier = "com.example.browser";
  config.userAgent = "Voyant/17.0";
  config.requestTimeout = 12.5;
  EXPECT_EQ(throughBytes(config), config);

  VORReply reply;
  reply.scale = 3.0;
  reply.data = {0, 255, 10};
  reply.httpRequest = Value::Dict{{"url", Value("https://x/search?q=a")}, {"method", Value("GET")}};
  reply.httpResponse = Value::Dict{{"statusCode", Value(200)}};
  reply.geoSessionEntityString = "geo";
  EXPECT_EQ(throughBytes(reply), reply);

  VORError error = VORError::make(500, "invalid configuration");
  error.userInfo.emplace("size", Value(12));
  VORError errorBack = throughBytes(error);
  EXPECT_EQ(errorBack, error);
  EXPECT_EQ(errorBack.reason(), "invalid configuration");
  EXPECT_EQ(errorBack.describe(), "VORErrorDomain 500: invalid configuration");

  Endpoint endpoint;
  endpoint.path = "/run/user/1000/vorlend/ab12";
  EXPECT_EQ(throughBytes(endpoint), endpoint);
  FileHandle handle;
  handle.fd = 3;
  EXPECT_EQ(throughBytes(handle), handle);

  QXSearchResult r = result(kBigId);
  EXPECT_EQ(throughBytes(r), r);
  QXResultSection section;
  section.identifier = "s";
  section.score = 1.25;
  section.bundleIdentifier = "com.velmo.vorlen";
  section.results = {result(1), result(2)};
  EXPECT_EQ(throughBytes(section), section);

  QXSearchSuggestion s = suggestion("news", 0.5);
  s.duplicateSuggestions = {suggestion("new", 0.25), suggestion("newer", 0.125)};
  s.duplicateSuggestions[0].duplicateSuggestions = {suggestion("n", 0.0)};
  EXPECT_EQ(throughBytes(s), s);
}

TEST(RecordsTest, AbsentAndEmptyAreToldApartWhereTheyDiffer) {
  VORQueryItem bare;
  bare.name = "flag";
  VORQueryItem empty = bare;
  empty.value = "";
  EXPECT_EQ(bare.toRecord().find("value"), nullptr);
  EXPECT_EQ(*empty.toRecord().find("value"), Value(""));
  EXPECT_EQ(throughBytes(bare).value, std::nullopt);
  EXPECT_EQ(throughBytes(empty).value, "");

  QXSearchResult r;
  r.userInput = "";
  QXSearchResult back = throughBytes(r);
  EXPECT_EQ(back.userInput, "");
  EXPECT_EQ(back.completedQuery, std::nullopt);

  // Plain strings are left out when empty; numbers and flags are always written.
  Value config = VORSessionConfiguration{}.toRecord();
  EXPECT_EQ(config, Value::record("VORSessionConfiguration").set("requestTimeout", 0.0));
  EXPECT_DOUBLE_EQ(VORSessionConfiguration{}.effectiveRequestTimeout(), 30.0);

  // A required field is written even when empty, so that the record stays valid.
  EXPECT_EQ(*Endpoint{}.toRecord().find("path"), Value(""));
  EXPECT_TRUE(Endpoint::fromRecord(Endpoint{}.toRecord()));
}

TEST(RecordsTest, TypedDecodingRefusesOtherClassesAndBadFields) {
  ScopedLogCapture capture;
  std::string error;
  EXPECT_FALSE(VORReply::fromRecord(VORError::make(1, "x").toRecord(), &error));
  EXPECT_EQ(error, "VORError: class VORError where VORReply was expected");
  EXPECT_FALSE(VORError::fromRecord(Value::record("VORError").set("domain", "d"), &error));
  EXPECT_EQ(error, "VORError: missing required field code");
  EXPECT_FALSE(FileHandle::fromRecord(Value::record("FileHandle").set("fd", -1), &error));
  EXPECT_TRUE(capture.sink().contains(LogLevel::Error, "Vorlen_Protocol", "rejecting record: " + error));
}

std::vector<std::shared_ptr<VORRequest>> everyKindOfRequest() {
  auto common = [](VORRequest& r, uint64_t id) {
    r.queryId = id;
    r.clientQueryId = kBigId;
    r.queryString = "weather";
    r.triggerEvent = 21;
    r.scale = 2.0;
    r.keyboardInputMode = "en_US";
    VORQueryItem item;
    item.name = "card";
    item.value = "1";
    r.queryItems = {item};
    r.verboseReply = true;
  };
  auto search = std::make_shared<VORSearchRequest>();
  common(*search, 1);
  search->engagedSuggestion = suggestion("weather", 0.9);
  search->localContextualSuggestions = {suggestion("we", 0.1)};
  search->setCompletionCacheSuggestion(suggestion("weather today", 3.5));
  search->topTopics = Value::array({"sports", "news"});
  auto zkw = std::make_shared<VORZeroKeywordRequest>();
  common(*zkw, 2);
  auto more = std::make_shared<VORMoreResultsRequest>();
  common(*more, 3);
  auto card = std::make_shared<VORCardRequest>();
  common(*card, 4);
  auto lookup = std::make_shared<VORLookupRequest>();
  common(*lookup, 5);
  lookup->lookupSelectionType = 2;
  lookup->appBundleIdentifier = "com.example.reader";
  lookup->lookupContext = "the text around";
  lookup->hintDomain = "movies";
  auto flight = std::make_shared<VORFlightSearchRequest>();
  common(*flight, 6);
  flight->flightQuery = "VL-123";
  auto flightLookup = std::make_shared<VORFlightLookupRequest>();
  common(*flightLookup, 7);
  flightLookup->flightId = "f-9";
  return {search, zkw, more, card, lookup, flight, flightLookup};
}

TEST(RecordsTest, EveryRequestKindDecodesToItselfWithEveryField) {
  std::vector<std::shared_ptr<VORRequest>> requests = everyKindOfRequest();
  std::set<std::string> classes;
  for (const auto& request : requests) {
    Value record = request->toRecord();
    EXPECT_EQ(record.className(), request->className());
    classes.insert(request->className());
    std::optional<Value> decoded = Archive::decodeBinary(Archive::encodeBinary(record));
    ASSERT_TRUE(decoded);
    std::string error;
    std::shared_ptr<VORRequest> back = VORRequest::fromRecord(*decoded, &error);
    ASSERT_NE(back, nullptr) << error;
    EXPECT_TRUE(back->equals(*request)) << request->className();
    EXPECT_EQ(back->clientQueryId, kBigId);
  }
  EXPECT_EQ(classes.size(), 7u);

  // A field of one kind is unknown to another.
  ScopedLogCapture capture;
  std::string error;
  EXPECT_EQ(VORRequest::fromRecord(Value::record("VORCardRequest").set("flightQuery", "VL-1"), &error),
            nullptr);
  EXPECT_EQ(error, "VORCardRequest: unknown field flightQuery");
  EXPECT_EQ(VORRequest::fromRecord(Value::record("VORRequest"), &error), nullptr);
  EXPECT_EQ(VORRequest::fromRecord(VORSessionConfiguration{}.toRecord(), &error), nullptr);
}

TEST(RecordsTest, ClonesAreIndependentCopies) {
  auto search = std::dynamic_pointer_cast<VORSearchRequest>(everyKindOfRequest()[0]);
  std::shared_ptr<VORRequest> copy = search->clone();
  ASSERT_TRUE(copy->equals(*search));
  auto* searchCopy = dynamic_cast<VORSearchRequest*>(copy.get());
  ASSERT_NE(searchCopy, nullptr);
  searchCopy->localContextualSuggestions[0].suggestion = "changed";
  searchCopy->scale = 1.0;
  EXPECT_EQ(search->localContextualSuggestions[0].suggestion, "we");
  EXPECT_EQ(search->scale, 2.0);
  EXPECT_FALSE(copy->equals(*search));
  // Another kind with the same shared fields is not equal.
  std::shared_ptr<VORRequest> zkw = everyKindOfRequest()[1];
  zkw->queryId = search->queryId;
  EXPECT_FALSE(zkw->equals(*search));
  EXPECT_TRUE(*zkw == static_cast<const VORRequest&>(*search));
}

}  // namespace
}  // namespace vorlen
