#include "network/ResponseCache.h"

#include <gtest/gtest.h>

#include "base/Log.h"
#include "base/ManualClock.h"

namespace vorlen {
namespace {

HttpRequest get(const std::string& url) {
  HttpRequest r;
  r.url = url;
  return r;
}

HttpResponse ok(std::vector<std::pair<std::string, std::string>> headers) {
  HttpResponse r;
  r.status = 200;
  r.headers = std::move(headers);
  return r;
}

std::vector<uint8_t> bytes(size_t n, uint8_t fill = 'x') {
  return std::vector<uint8_t>(n, fill);
}

class ResponseCacheTest : public ::testing::Test {
 protected:
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  ResponseCache cache{4194304, clock};
};

TEST_F(ResponseCacheTest, OnlyFreshCacheableGetResponsesAreServed) {
  cache.store(get("http://h/a"), ok({{"cache-control", "public, MAX-AGE=\"30\""}}), bytes(3, 'a'));
  cache.store(get("http://h/nostore"), ok({{"Cache-Control", "max-age=30, no-store"}}), bytes(3));
  cache.store(get("http://h/nocache"), ok({{"Cache-Control", "no-cache, max-age=30"}}), bytes(3));
  cache.store(get("http://h/none"), ok({}), bytes(3));
  cache.store(get("http://h/zero"), ok({{"Cache-Control", "max-age=0"}}), bytes(3));
  HttpResponse partial = ok({{"Cache-Control", "max-age=30"}});
  partial.status = 203;
  cache.store(get("http://h/203"), partial, bytes(3));
  HttpRequest post = get("http://h/post");
  post.method = "POST";
  cache.store(post, ok({{"Cache-Control", "max-age=30"}}), bytes(3));
  EXPECT_EQ(cache.count(), 1u);

  auto hit = cache.lookup(get("http://h/a"));
  ASSERT_TRUE(hit);
  EXPECT_EQ(hit->data, bytes(3, 'a'));
  EXPECT_EQ(hit->response.status, 200);
  EXPECT_FALSE(cache.lookup(get("http://h/a?other")));

  HttpRequest reload = get("http://h/a");
  reload.cachePolicy = HttpCachePolicy::ReloadIgnoringLocalCacheData;
  EXPECT_FALSE(cache.lookup(reload));
  HttpRequest noCache = get("http://h/a");
  noCache.headers["Pragma"] = "no-cache";
  EXPECT_FALSE(cache.lookup(noCache));

  clock->advance(std::chrono::seconds(29));
  EXPECT_TRUE(cache.lookup(get("http://h/a")));
  clock->advance(std::chrono::seconds(1));
  EXPECT_FALSE(cache.lookup(get("http://h/a")));
  EXPECT_EQ(cache.count(), 0u);  // a stale entry is dropped when found
}

TEST_F(ResponseCacheTest, AgeShortensAndVaryNarrowsAnEntry) {
  cache.store(get("http://h/aged"), ok({{"Cache-Control", "max-age=30"}, {"Age", "25"}}), bytes(1));
  cache.store(get("http://h/old"), ok({{"Cache-Control", "max-age=30"}, {"Age", "30"}}), bytes(1));
  EXPECT_FALSE(cache.lookup(get("http://h/old")));
  clock->advance(std::chrono::seconds(4));
  EXPECT_TRUE(cache.lookup(get("http://h/aged")));
  clock->advance(std::chrono::seconds(1));
  EXPECT_FALSE(cache.lookup(get("http://h/aged")));

  HttpRequest en = get("http://h/v");
  en.headers["Accept-Language"] = "en";
  cache.store(en, ok({{"Cache-Control", "max-age=30"}, {"Vary", "accept-language"}}), bytes(1));
  EXPECT_TRUE(cache.lookup(en));
  HttpRequest de = en;
  de.headers["Accept-Language"] = "de";
  EXPECT_FALSE(cache.lookup(de));
  EXPECT_FALSE(cache.lookup(get("http://h/v")));

  cache.store(get("http://h/star"), ok({{"Cache-Control", "max-age=30"}, {"Vary", "*"}}), bytes(1));
  EXPECT_FALSE(cache.lookup(get("http://h/star")));
}

TEST_F(ResponseCacheTest, BudgetEvictsLeastRecentlyUsedAndRefusesHugeEntries) {
  ResponseCache small(20000, clock);  // entries up to 1000 bytes
  auto cc = ok({{"Cache-Control", "max-age=60"}});
  small.store(get("http://h/huge"), cc, bytes(2000));
  EXPECT_EQ(small.count(), 0u);
  for (int i = 0; i < 25; ++i) small.store(get("http://h/" + std::to_string(i)), cc, bytes(900));
  EXPECT_LE(small.sizeBytes(), 20000u);
  EXPECT_FALSE(small.lookup(get("http://h/0")));  // oldest went first
  EXPECT_TRUE(small.lookup(get("http://h/24")));
  size_t kept = small.count();

  // A lookup makes an entry recent: the next eviction takes another one.
  std::string oldest;
  for (int i = 0; i < 25; ++i) {
    if (small.lookup(get("http://h/" + std::to_string(i)))) {
      oldest = std::to_string(i);
      break;
    }
  }
  ASSERT_FALSE(oldest.empty());
  small.store(get("http://h/new"), cc, bytes(900));
  EXPECT_TRUE(small.lookup(get("http://h/" + oldest)));
  EXPECT_EQ(small.count(), kept);

  // Storing the same URL again replaces, not duplicates.
  small.store(get("http://h/new"), cc, bytes(10, 'n'));
  EXPECT_EQ(small.lookup(get("http://h/new"))->data, bytes(10, 'n'));
  EXPECT_EQ(small.count(), kept);

  small.purge();
  EXPECT_EQ(small.count(), 0u);
  EXPECT_EQ(small.sizeBytes(), 0u);
}

TEST_F(ResponseCacheTest, MalformedLifetimesAreIgnoredWithALogLine) {
  ScopedLogCapture capture;
  cache.store(get("http://h/1"), ok({{"Cache-Control", "max-age=abc"}}), bytes(1));
  cache.store(get("http://h/2"), ok({{"Cache-Control", "max-age=-5"}}), bytes(1));
  cache.store(get("http://h/3"), ok({{"Cache-Control", "max-age"}}), bytes(1));
  cache.store(get("http://h/4"), ok({{"Cache-Control", "max-age=10"}, {"Age", "soon"}}), bytes(1));
  EXPECT_EQ(cache.count(), 1u);  // a bad Age reads as 0
  EXPECT_TRUE(cache.lookup(get("http://h/4")));
  EXPECT_TRUE(capture.sink().contains("ignoring malformed Cache-Control max-age value 'abc'"));
  EXPECT_TRUE(capture.sink().contains("ignoring malformed Cache-Control max-age value '-5'"));
  EXPECT_TRUE(capture.sink().contains("ignoring malformed Cache-Control max-age without a value"));
  EXPECT_TRUE(capture.sink().contains("ignoring malformed Age value 'soon'"));
}

}  // namespace
}  // namespace vorlen
