#include "cache/EngagedCompletionCache.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cmath>

#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "support/TempDir.h"

namespace vorlen {
namespace {

class EngagedCompletionCacheTest : public ::testing::Test {
 protected:
  std::shared_ptr<EngagedCompletionCache> open() {
    auto c = EngagedCompletionCache::create(dir.path(), clock, prefs);
    c->setEnabled(true);
    c->setSearchTimeout(30000);  // generous: the 5 ms budget is measured in bench/, not here
    return c;
  }
  double recency(double engagedAgo) {
    double now = std::floor(toUnixSeconds(clock->now()));
    return std::floor(now - engagedAgo) / now;
  }

  test::TempDir dir;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  std::shared_ptr<Preferences> prefs = std::make_shared<Preferences>(dir.path() / "config", "com.velmo.vorlend");
};

// Writes engagements at chosen ages by writing through a cache whose clock stands at that age.
void addAgo(const std::filesystem::path& root, const std::shared_ptr<Preferences>& prefs, Time now, double ago,
            const std::string& completion, const std::string& input, int64_t origin, int64_t client) {
  auto c = std::make_shared<ManualClock>(now - seconds(ago));
  auto cache = EngagedCompletionCache::create(root, c, prefs);
  cache->setEnabled(true);
  cache->addCompletion(completion, input, origin, client);
}

TEST_F(EngagedCompletionCacheTest, ScoresByNewestBucketPlusRecencyTerm) {
  open();
  Time now = clock->now();
  addAgo(dir.path(), prefs, now, 600, "news", "ne", 1, 1);         // last hour: 10
  addAgo(dir.path(), prefs, now, 7200, "news", "n", 1, 1);         // last day: 1
  addAgo(dir.path(), prefs, now, 2 * 86400, "weather", "we", 2, 1);  // last week: 0.1
  auto cache = open();

  auto news = cache->completionForInput("NE", 1);  // LIKE ignores ASCII case
  ASSERT_TRUE(news);
  EXPECT_EQ(news->suggestion, "news");
  EXPECT_EQ(news->type, 1);
  EXPECT_NEAR(news->score, 11.0 + recency(600), 1e-6);

  auto weather = cache->completionForInput("w", 1);
  ASSERT_TRUE(weather);
  EXPECT_EQ(weather->type, 8);  // origin 2 is stored as "3d"
  EXPECT_NEAR(weather->score, 0.1 + recency(2 * 86400), 1e-6);

  // Matching on the stored input too: "n" was typed for "news".
  EXPECT_EQ(cache->completionForInput("n", 1)->suggestion, "news");
  EXPECT_FALSE(cache->completionForInput("zzz", 1));
}

TEST_F(EngagedCompletionCacheTest, ClientsThresholdOriginsAndSwitches) {
  auto cache = open();
  cache->addCompletion("norvanta result", "no", 3, 2);
  EXPECT_FALSE(cache->completionForInput("no", 1));  // browser never sees system-search rows
  auto hit = cache->completionForInput("no", 2);
  ASSERT_TRUE(hit);
  EXPECT_EQ(hit->type, 1);  // origin 3 reads back as type 1, like origin 1

  cache->updateParameters(10, 1, 0.1, 0.01, 0.001, 1.0, 20.0);
  EXPECT_FALSE(cache->completionForInput("no", 2));  // 11 < 20
  cache->updateParameters(10, 1, 0.1, 0.01, 0.001, 1.0, 0.0);

  prefs->set("VORDisableLocalCompletions", Value(true));
  EXPECT_FALSE(cache->completionForInput("no", 2));
  cache->addCompletion("ignored", "ig", 1, 2);
  prefs->set("VORDisableLocalCompletions", Value(false));
  EXPECT_FALSE(cache->completionForInput("ig", 2));
  cache->setEnabled(false);
  EXPECT_FALSE(cache->completionForInput("no", 2));
  cache->setEnabled(true);
  cache->addCompletion("", "empty", 1, 2);  // empty completions are never stored
  EXPECT_FALSE(cache->completionForInput("empty", 2));

  cache->closeDBConnection();
  EXPECT_FALSE(cache->completionForInput("no", 2));
}

TEST_F(EngagedCompletionCacheTest, ClearsAgeOutAndEvictionByRowLimit) {
  Time now = clock->now();
  open();
  addAgo(dir.path(), prefs, now, 3, "recent", "r", 1, 1);
  addAgo(dir.path(), prefs, now, 100, "older", "o", 1, 1);
  auto cache = open();
  cache->clearCompletionsFromDate(now, now);  // equal dates widen to +-5 s
  EXPECT_FALSE(cache->completionForInput("r", 1));
  EXPECT_TRUE(cache->completionForInput("o", 1));

  // An add first ages out everything older than 30 days.
  addAgo(dir.path(), prefs, now, 31 * 86400.0, "ancient", "a", 1, 1);
  EXPECT_TRUE(open()->completionForInput("a", 1));
  cache->addCompletion("fresh", "f", 1, 1);
  EXPECT_FALSE(cache->completionForInput("a", 1));

  // The row counter reports 0 on purpose, so only a limit of 0 evicts: the oldest-dated rows go first.
  cache->setMaxRowCount(0);
  clock->advance(std::chrono::seconds(10));
  cache->addCompletion("newest", "n", 1, 1);
  EXPECT_FALSE(cache->completionForInput("o", 1));
  EXPECT_TRUE(cache->completionForInput("newest", 1));
  cache->clearAllCompletions();
  EXPECT_FALSE(cache->completionForInput("newest", 1));
}

TEST_F(EngagedCompletionCacheTest, SchemaIsCheckedAndRebuiltPrivately) {
  open()->addCompletion("kept", "k", 1, 1);
  auto path = dir.path() / "EngagedCompletions" / "Cache.db";
  EXPECT_EQ(test::fileMode(path), 0600u);
  EXPECT_EQ(open()->schemaVersionForTesting(), 3);
  EXPECT_TRUE(open()->completionForInput("k", 1));

  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "UPDATE completion_cache_schema_version SET schema_version = 2;", nullptr, nullptr,
                         nullptr),
            SQLITE_OK);
  sqlite3_close(db);
  auto rebuilt = open();
  EXPECT_EQ(rebuilt->schemaVersionForTesting(), 3);
  EXPECT_FALSE(rebuilt->completionForInput("k", 1));  // rebuilding discards the rows

  test::writeFile(path, "this is not a database at all, but it is long enough to look like one........");
  auto garbage = open();  // unreadable schema: rebuilt or left inert, never a crash
  garbage->addCompletion("x", "x", 1, 1);
}

TEST(EngagedCompletionSignificantValueTest, KeepsTwoSignificantDigits) {
  EXPECT_EQ(EngagedCompletionCache::significantValue(12345), 12000);
  EXPECT_EQ(EngagedCompletionCache::significantValue(99), 99);
  EXPECT_EQ(EngagedCompletionCache::significantValue(7), 7);
  EXPECT_EQ(EngagedCompletionCache::significantValue(100), 100);
  EXPECT_EQ(EngagedCompletionCache::significantValue(4096), 4000);
}

}  // namespace
}  // namespace vorlen
