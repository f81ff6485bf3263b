#include "cache/QueryCache.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "base/Log.h"
#include "base/ManualClock.h"
#include "model/Constants.h"
#include "model/VORRequest.h"
#include "network/HttpRequest.h"
#include "platform/Assembly.h"
#include "platform/MemoryPressureSource.h"
#include "platform/PlatformNotifications.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"

namespace vorlen {
namespace {

constexpr const char* kCaching = "Vorlen_Caching";

// What an entry is made from; the defaults describe a plain search for "ne" completed as "news".
struct EntryParams {
  std::string input = "ne";
  std::string query = "news";
  size_t bodySize = 100;
  std::string urlQuery = "q=ne";  // the request URL's query
  std::optional<std::string> scaleHeader;
  nlohmann::json extra = nlohmann::json::object();  // more response keys (max_age, completion_score)
};

class QueryCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform = test::platformForTesting(dir / "root", clock);
    assembly = std::make_shared<Assembly>(platform);
    assembly->notificationCenter = platform.notificationCenter;
    cache = QueryCache::create(*assembly);
  }

  std::shared_ptr<const CachedResultSet> entry(const EntryParams& s) {
    HttpRequest request;
    request.url = "https://search.example/search?" + s.urlQuery;
    if (s.scaleHeader) request.headers["X-Velmo-UI-Scale"] = *s.scaleHeader;
    nlohmann::json response = s.extra;
    response["query"] = s.query;
    return std::make_shared<CachedResultSet>(s.input, &request, response, Uuid::random(),
                                             std::vector<uint8_t>(s.bodySize, 'x'), clock->now());
  }
  std::shared_ptr<const CachedResultSet> add(const EntryParams& s) {
    auto e = entry(s);
    cache->set(e);
    settle();
    return e;
  }
  // set() is asynchronous; any synchronous hop waits for it.
  uint64_t settle() { return cache->currentCostForTesting(); }

  std::shared_ptr<const CachedResultSet> lookup(const std::string& typed, const std::string& urlQuery = "q=x",
                                                double scale = 0) {
    VORSearchRequest request;
    request.queryString = typed;
    request.scale = scale;
    HttpRequest http;
    http.url = "https://search.example/search?" + urlQuery;
    return cache->getRequest(request, &http);
  }

  test::TempDir dir;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  Platform platform;
  std::shared_ptr<Assembly> assembly;
  std::shared_ptr<QueryCache> cache;
};

TEST_F(QueryCacheTest, EntryReadsItsRequestAndResponse) {
  HttpRequest request;
  request.url = "https://search.example/search?q=N&qtype=web&qtype=other&lc&suggest_queries=1";
  request.headers["x-velmo-ui-scale"] = "2.5";
  nlohmann::json response = {
      {"query", "\xC3\x89T\xC3\x89 News"}, {"max_age", 30}, {"completion_score", 0.25}};
  Uuid id = Uuid::random();
  CachedResultSet e("\xC3\x89T", &request, response, id, {1, 2, 3}, clock->now());
  EXPECT_EQ(e.input(), "\xC3\xA9t");
  EXPECT_EQ(e.query(), "\xC3\xA9t\xC3\xA9 news");
  EXPECT_EQ(e.inputLength(), 2u);  // UTF-16 units, not bytes
  EXPECT_EQ(e.queryLength(), 8u);
  EXPECT_EQ(e.expireTime(), clock->now() + seconds(30));
  EXPECT_EQ(e.uuid(), id);
  EXPECT_EQ(e.uiScale(), 2.5);
  EXPECT_FLOAT_EQ(e.completionScore(), 0.25f);
  EXPECT_EQ(e.qtype(), "web");  // the first item of the name
  EXPECT_EQ(e.suggest_queries(), "1");
  EXPECT_EQ(e.localCompletion(), std::nullopt);  // present without a value
  EXPECT_EQ(e.cost(), 3u);

  CachedResultSet bare("x", nullptr, {{"query", 7}, {"max_age", "30"}}, id, {}, clock->now());
  EXPECT_FALSE(bare.query());
  EXPECT_FALSE(bare.expireTime());
  EXPECT_EQ(bare.uiScale(), 0);
  EXPECT_FALSE(bare.qtype());
  CachedResultSet never("x", nullptr, {{"query", "x"}, {"max_age", 0}}, id, {1}, clock->now());
  EXPECT_FALSE(never.expireTime());
  CachedResultSet huge("x", nullptr, {{"query", "x"}, {"max_age", 1e300}, {"completion_score", 1e300}}, id,
                       {1}, clock->now());
  EXPECT_GT(*huge.expireTime(), clock->now() + seconds(3.0e9));
}

TEST_F(QueryCacheTest, RecordsWithoutDataOrQueryAreIgnored) {
  ScopedLogCapture logs;
  for (auto e : {entry({.bodySize = 0}), entry({.query = ""})}) cache->set(e);
  cache->set(std::make_shared<CachedResultSet>("ne", nullptr, nlohmann::json::object(), Uuid(),
                                               std::vector<uint8_t>{1}, clock->now()));
  cache->set(nullptr);
  EXPECT_EQ(settle(), 0u);
  EXPECT_EQ(cache->count(), 0u);
  EXPECT_TRUE(logs.sink().records().empty());
}

TEST_F(QueryCacheTest, InputLongerThanQueryIsABugAndNotCached) {
  ScopedLogCapture logs;
  ScopedPrivateLogging privateLogging;
  add({.input = "newsy", .query = "news"});
  EXPECT_EQ(cache->count(), 0u);
  EXPECT_TRUE(
      logs.sink().contains(LogLevel::Error, kCaching,
                           "BUG: NOT caching 'news' because input is longer than completed query 'newsy'"));
  // Lengths are UTF-16 units: two accented letters (4 bytes) are shorter than a 3-letter query.
  add({.input = "\xC3\xA9\xC3\xA9", .query = "abc"});
  EXPECT_EQ(cache->count(), 1u);
}

TEST_F(QueryCacheTest, BudgetIsBodyPlusOverheadAndEmptiesTheWholeCache) {
  ScopedLogCapture logs;
  ScopedPrivateLogging privateLogging;
  // A charge of exactly 2 MiB is never cached.
  add({.query = "news", .bodySize = QueryCache::kMaxCost - QueryCache::kEntryOverhead});
  EXPECT_EQ(cache->count(), 0u);
  EXPECT_EQ(settle(), 0u);
  EXPECT_TRUE(logs.sink().contains(LogLevel::Error, kCaching, "NOT caching 'news' with cost 2097152"));

  add({.query = "new york", .bodySize = 100});
  EXPECT_EQ(settle(), 1124u);
  EXPECT_TRUE(logs.sink().contains(LogLevel::Info, kCaching, "caching 'new york' with cost 1124"));

  // One byte less fits, but only after everything else has gone.
  add({.query = "news", .bodySize = QueryCache::kMaxCost - QueryCache::kEntryOverhead - 1});
  EXPECT_TRUE(logs.sink().contains(LogLevel::Info, kCaching, "!!! exceeded max cost, flushing cache !!!"));
  EXPECT_EQ(cache->count(), 1u);
  EXPECT_EQ(settle(), QueryCache::kMaxCost - 1);
  EXPECT_FALSE(cache->get("new y"));
  EXPECT_TRUE(cache->get("news"));
}

TEST_F(QueryCacheTest, ReplacingAKeyKeepsChargingUntilAFlush) {
  for (int i = 0; i < 3; ++i) add({.query = "news", .bodySize = 1000});
  EXPECT_EQ(cache->count(), 1u);
  EXPECT_EQ(settle(), 3 * 2024u);
  // 1,036 charges of 2,024 stay below 2 MiB; the 1,037th flushes and starts over. 1,103 insertions in all
  // leave 67 charges on the total.
  for (int i = 0; i < 1100; ++i) cache->set(entry({.query = "news", .bodySize = 1000}));
  EXPECT_EQ(settle(), 67 * 2024u);
  EXPECT_EQ(cache->count(), 1u);
  cache->removeAllObjects();
  EXPECT_EQ(settle(), 0u);
}

TEST_F(QueryCacheTest, EntriesExpireOnlyWhenALookupReachesThem) {
  add({.query = "weather", .extra = {{"max_age", 30}}});
  add({.query = "news", .extra = {{"max_age", 0}}});
  add({.query = "new york"});
  clock->advance(seconds(29.999));
  EXPECT_TRUE(lookup("we", "q=ne"));
  clock->advance(seconds(0.001));
  EXPECT_TRUE(lookup("ne", "q=ne"));
  EXPECT_EQ(cache->count(), 3u);  // "weather" is past its time but no lookup has reached it
  EXPECT_FALSE(lookup("we", "q=ne"));
  EXPECT_EQ(cache->count(), 2u);
  clock->advance(seconds(10.0 * 365 * 24 * 3600));
  EXPECT_TRUE(lookup("news", "q=ne"));
  EXPECT_TRUE(lookup("new y", "q=ne"));
}

// Lookups that expire the last entry empty the tree without a clear: the total stays, so the next
// over-budget insertion adds to it, and only the one after that (with an entry present) flushes.
TEST_F(QueryCacheTest, ExpiryThatEmptiesTheTreeDoesNotResetTheTotal) {
  add({.query = "weather", .bodySize = 1000000, .extra = {{"max_age", 30}}});
  clock->advance(seconds(30));
  EXPECT_FALSE(lookup("w", "q=ne"));
  EXPECT_EQ(cache->count(), 0u);
  EXPECT_EQ(settle(), 1001024u);
  EXPECT_TRUE(cache->memoryPressureSourceForTesting());  // not announced as empty

  add({.query = "news", .bodySize = 1200000});
  EXPECT_EQ(cache->count(), 1u);
  EXPECT_EQ(settle(), 1001024u + 1201024u);  // over budget, but there was nothing to flush

  add({.query = "new york", .bodySize = 10});
  EXPECT_EQ(cache->count(), 1u);
  EXPECT_EQ(settle(), 1034u);
  EXPECT_FALSE(lookup("news", "q=ne"));
  EXPECT_TRUE(lookup("new y", "q=ne"));
}

TEST_F(QueryCacheTest, CandidatesMustMatchScaleTypedLengthAndRequestKind) {
  add({.input = "news", .query = "news today", .urlQuery = "q=news", .scaleHeader = "2"});
  // Scale: 0 matches any entry, otherwise it must be equal.
  EXPECT_TRUE(lookup("news", "q=news", 0));
  EXPECT_TRUE(lookup("news", "q=news", 2));
  EXPECT_FALSE(lookup("news", "q=news", 3));
  // The typed text must be at least as long as the entry's.
  EXPECT_FALSE(lookup("ne", "q=ne"));
  EXPECT_TRUE(lookup("news t", "q=news+t"));

  // qtype, suggest_queries, lc: none matches none only, and values must be equal.
  for (const std::string item : {"qtype", "suggest_queries", "lc"}) {
    SCOPED_TRACE(item);
    cache->removeAllObjects();
    add({.query = "alpha", .urlQuery = item + "=1"});
    add({.query = "beta"});
    EXPECT_TRUE(lookup("al", item + "=1"));
    EXPECT_FALSE(lookup("al", item + "=2"));
    EXPECT_FALSE(lookup("al", "q=al"));
    EXPECT_FALSE(cache->get("al"));
    EXPECT_TRUE(lookup("be", "q=be"));
    EXPECT_FALSE(lookup("be", item + "=1"));
  }

  // Expiry is tested before everything else: an expired entry that fails the other tests still goes.
  add({.query = "gamma", .scaleHeader = "2", .extra = {{"max_age", 5}}});
  clock->advance(seconds(5));
  uint64_t before = cache->count();
  EXPECT_FALSE(lookup("g", "qtype=other", 3));
  EXPECT_EQ(cache->count(), before - 1);
}

TEST_F(QueryCacheTest, ShortestExtensionWinsWhateverTheScores) {
  add({.query = "new york", .extra = {{"completion_score", 0.9}}});
  add({.query = "news", .extra = {{"completion_score", 0.1}}});
  add({.query = "newspaper", .extra = {{"completion_score", 5}}});
  EXPECT_EQ(*lookup("ne", "q=ne")->query(), "news");
  // Extra length counts UTF-16 units: a 4-byte emoji is 2 units, shorter than 3 letters.
  add({.query = "ab\xF0\x9F\x98\x80"});
  add({.query = "abcde"});
  EXPECT_EQ(*lookup("ab", "q=ne")->query(), "ab\xF0\x9F\x98\x80");
}

TEST_F(QueryCacheTest, CompletionScoreBreaksTiesOnlyUpwardsAndWhenPositive) {
  struct Case {
    double first, second;  // scores of "newa" and "newb" (traversal order)
    const char* winner;
  };
  for (const Case& c : {Case{0.5, 0.7, "newb"}, Case{0.7, 0.5, "newa"}, Case{0, 0.7, "newb"},
                        Case{0.7, 0, "newa"}, Case{0.5, 0.5, "newa"}, Case{-1, -0.5, "newa"}}) {
    SCOPED_TRACE(testing::Message() << c.first << " " << c.second);
    cache->removeAllObjects();
    // Inserted in reverse so that the result cannot come from insertion order.
    add({.query = "newb", .extra = {{"completion_score", c.second}}});
    add({.query = "newa", .extra = {{"completion_score", c.first}}});
    EXPECT_EQ(*lookup("new", "q=ne")->query(), c.winner);
  }
  // A later, higher score displaces the current choice, which a still later one must beat in turn.
  cache->removeAllObjects();
  add({.query = "newa", .extra = {{"completion_score", 0.2}}});
  add({.query = "newb", .extra = {{"completion_score", 0.9}}});
  add({.query = "newc", .extra = {{"completion_score", 0.5}}});
  EXPECT_EQ(*lookup("new", "q=ne")->query(), "newb");
}

TEST_F(QueryCacheTest, RequestsWithTheirOwnQueryItemsAreNeverAnswered) {
  add({.query = "news"});
  VORSearchRequest request;
  request.queryString = "ne";
  request.queryItems.push_back(VORQueryItem{});
  request.queryItems.back().name = "forced";
  HttpRequest http;
  http.url = "https://search.example/search?q=ne";
  EXPECT_FALSE(cache->getRequest(request, &http));
  request.queryItems.clear();
  EXPECT_TRUE(cache->getRequest(request, &http));
  // Typed text is lower-cased before the search.
  EXPECT_TRUE(cache->get("NE"));
}

TEST_F(QueryCacheTest, EachClearingNotificationEmptiesTheCache) {
  for (const std::string& name : QueryCache::clearingNotificationNames()) {
    SCOPED_TRACE(name);
    add({.query = "news"});
    assembly->notificationCenter->post(name, this);
    EXPECT_EQ(settle(), 0u);
    EXPECT_EQ(cache->count(), 0u);
    EXPECT_FALSE(cache->memoryPressureSourceForTesting());
  }
  EXPECT_EQ(QueryCache::clearingNotificationNames().size(), 9u);
  for (const char* name : {kVORUserGUIDChangeNotification, kPlatformTimeZoneDidChangeNotification,
                           kPlatformAccountCredentialsDidChangeNotification}) {
    EXPECT_EQ(assembly->notificationCenter->observerCountForTesting(name), 1u);
  }

  // Other notifications leave it alone; on an empty cache a clearing one does nothing at all.
  add({.query = "news"});
  assembly->notificationCenter->post(kVORBagChangeNotification);
  EXPECT_EQ(settle(), 1124u);
  cache->removeAllObjects();
  ScopedLogCapture logs;
  assembly->notificationCenter->post(kPlatformTimeZoneDidChangeNotification);
  settle();
  EXPECT_TRUE(logs.sink().records().empty());

  // The observers go with the cache.
  std::weak_ptr<QueryCache> weak = cache;
  cache.reset();
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(assembly->notificationCenter->observerCountForTesting(kPlatformTimeZoneDidChangeNotification),
            0u);
  assembly->notificationCenter->post(kPlatformTimeZoneDidChangeNotification);
}

TEST_F(QueryCacheTest, MemoryPressureSourceLivesWhileNonEmptyAndItsEventEmptiesTheCache) {
  ScopedLogCapture logs;
  EXPECT_FALSE(cache->memoryPressureSourceForTesting());
  add({.query = "news"});
  auto source = cache->memoryPressureSourceForTesting();
  ASSERT_TRUE(source);
  EXPECT_FALSE(source->isCancelled());
  EXPECT_TRUE(logs.sink().contains(LogLevel::Debug, kCaching, "query cache no longer empty"));
  add({.query = "new york"});
  EXPECT_EQ(cache->memoryPressureSourceForTesting(), source);  // one source while non-empty

  source->fireForTesting();
  EXPECT_EQ(settle(), 0u);
  EXPECT_EQ(cache->count(), 0u);
  EXPECT_TRUE(logs.sink().contains(LogLevel::Debug, kCaching, "emptying caches under memory pressure"));
  EXPECT_TRUE(logs.sink().contains(LogLevel::Debug, kCaching, "query cache became empty"));
  EXPECT_FALSE(cache->memoryPressureSourceForTesting());
  EXPECT_TRUE(source->isCancelled());
  EXPECT_FALSE(source->isArmed());

  // A fresh source for the next non-empty spell; removeAllObjects ends it too.
  add({.query = "news"});
  auto second = cache->memoryPressureSourceForTesting();
  ASSERT_TRUE(second);
  EXPECT_NE(second, source);
  cache->removeAllObjects();
  EXPECT_TRUE(second->isCancelled());
  EXPECT_FALSE(cache->memoryPressureSourceForTesting());

  // A late event of a source the cache no longer holds does nothing.
  add({.query = "news"});
  second->fireForTesting();
  EXPECT_EQ(settle(), 1124u);
  EXPECT_EQ(cache->count(), 1u);
}

}  // namespace
}  // namespace vorlen
