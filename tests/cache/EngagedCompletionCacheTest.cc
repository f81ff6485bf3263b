#include "cache/EngagedCompletionCache.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cmath>
#include <condition_variable>
#include <functional>
#include <future>
#include <thread>

#include "base/Counters.h"
#include "base/Log.h"
#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "base/Queue.h"
#include "base/WorkerPool.h"
#include "support/TempDir.h"

namespace vorlen {
namespace {

// Rows of `sql` run on the database file through a connection of its own, cells as text ("NULL" for null).
std::vector<std::vector<std::string>> query(const std::filesystem::path& file, const std::string& sql) {
  std::vector<std::vector<std::string>> rows;
  sqlite3* db = nullptr;
  EXPECT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
  char* error = nullptr;
  int rc = sqlite3_exec(
      db, sql.c_str(),
      [](void* out, int n, char** cells, char**) {
        auto& r = static_cast<std::vector<std::vector<std::string>>*>(out)->emplace_back();
        for (int i = 0; i < n; ++i) r.emplace_back(cells[i] ? cells[i] : "NULL");
        return 0;
      },
      &rows, &error);
  EXPECT_EQ(rc, SQLITE_OK) << sql << ": " << (error ? error : "");
  sqlite3_free(error);
  sqlite3_close(db);
  return rows;
}

// `count` rows written into the file in one transaction through a connection of its own; `row(i)` gives
// the i-th row's values (completion, input, date, origin, client) as SQL.
void writeEngagements(const std::filesystem::path& file, int count,
                      const std::function<std::string(int)>& row) {
  std::string sql = "BEGIN;";
  for (int i = 0; i < count; ++i) sql += "INSERT INTO completion_cache_engagement VALUES (" + row(i) + ");";
  query(file, sql + "COMMIT;");
}

class EngagedCompletionCacheTest : public ::testing::Test {
 protected:
  void SetUp() override { Counters::install(counters); }
  void TearDown() override { Counters::install(nullptr); }

  std::shared_ptr<EngagedCompletionCache> open() {
    auto c = EngagedCompletionCache::create(dir.path(), clock, prefs);
    c->setEnabled(true);
    c->setSearchTimeout(30000);  // generous: the 5 ms budget is measured in bench/, not here
    return c;
  }
  // Records an engagement `ago` seconds before the test clock's now, through a cache whose clock stands
  // there. Each such add ages out what is 30 days older than its own time, so write newest first.
  void addAgo(double ago, const std::string& completion, const std::string& input, int64_t origin,
              int64_t client) {
    auto cache = EngagedCompletionCache::create(
        dir.path(), std::make_shared<ManualClock>(clock->now() - seconds(ago)), prefs);
    cache->setEnabled(true);
    cache->addCompletion(completion, input, origin, client);
  }
  // The recency term of an engagement made `ago` seconds before now: its date over now, in whole seconds.
  double recency(double ago) {
    double now = std::floor(toUnixSeconds(clock->now()));
    return std::floor(now - ago) / now;
  }
  std::filesystem::path file() const { return dir.path() / "EngagedCompletions" / "Cache.db"; }

  test::TempDir dir;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>(fromUnixSeconds(1767225600.25));
  std::shared_ptr<Preferences> prefs =
      std::make_shared<Preferences>(dir.path() / "config", "com.velmo.vorlend");
  std::shared_ptr<Counters> counters = std::make_shared<Counters>(std::filesystem::path(), clock);
};

TEST_F(EngagedCompletionCacheTest, EachEngagementCountsTheWeightOfItsNewestBucket) {
  addAgo(600, "hour", "h", 1, 1);           // last hour
  addAgo(2 * 3600, "day", "d", 1, 1);       // last day
  addAgo(2 * 86400, "week", "w", 2, 1);     // last week
  addAgo(10 * 86400, "month", "m", 1, 1);   // last 30 days
  addAgo(100 * 86400, "year", "y", 1, 1);   // last 365 days
  addAgo(400 * 86400, "older", "o", 1, 1);  // no bucket: only the recency term
  auto cache = open();

  const struct {
    const char* input;
    double ago, weight;
  } expected[] = {{"h", 600, 10.0},        {"d", 2 * 3600, 1.0},      {"w", 2 * 86400, 0.1},
                  {"m", 10 * 86400, 0.01}, {"y", 100 * 86400, 0.001}, {"o", 400 * 86400, 0.0}};
  for (auto& e : expected) {
    auto hit = cache->completionForInput(e.input, 1);
    ASSERT_TRUE(hit) << e.input;
    EXPECT_NEAR(hit->score, e.weight + recency(e.ago), 1e-9) << e.input;
  }

  // Six distinct weights, with no recency term, show each bucket takes its own weight and nothing else.
  cache->updateParameters(1000, 100, 10, 1, 0.5, 0, 0);
  for (auto [input, weight] :
       {std::pair{"h", 1000.0}, {"d", 100.0}, {"w", 10.0}, {"m", 1.0}, {"y", 0.5}, {"o", 0.0}})
    EXPECT_DOUBLE_EQ(cache->completionForInput(input, 1)->score, weight) << input;
  // The most-recent weight multiplies the recency term.
  cache->updateParameters(0, 0, 0, 0, 0, 2.5, 0);
  EXPECT_NEAR(cache->completionForInput("w", 1)->score, 2.5 * recency(2 * 86400), 1e-9);
}

TEST_F(EngagedCompletionCacheTest, EngagementsOfOneCompletionAddUpAndTheBestTwoCompete) {
  addAgo(0, "news", "ne", 1, 1);
  addAgo(2 * 3600, "news", "n", 1, 1);
  addAgo(60, "newt", "new", 2, 1);
  auto cache = open();

  // 10 + 1 for "news", the recency term taken from its newest engagement; "newt" scores 10 + recency.
  auto hit = cache->completionForInput("NE", 1);  // LIKE ignores ASCII case
  ASSERT_TRUE(hit);
  EXPECT_EQ(hit->suggestion, "news");
  EXPECT_EQ(hit->type, 1);
  EXPECT_NEAR(hit->score, 11.0 + recency(0), 1e-9);

  // Matching on the stored input as well as the completion: "new" was typed for "newt" only.
  auto newt = cache->completionForInput("newt", 1);
  ASSERT_TRUE(newt);
  EXPECT_EQ(newt->type, 8);  // origin 2 is stored as "3d"
  EXPECT_EQ(query(file(), "SELECT origin FROM completion_cache_engagement WHERE completion = 'newt';"),
            (std::vector<std::vector<std::string>>{{"3d"}}));
  EXPECT_FALSE(cache->completionForInput("zzz", 1));
  // The typed text is a bound value, never part of the statement.
  EXPECT_FALSE(cache->completionForInput("' OR 1=1 --", 1));
}

TEST_F(EngagedCompletionCacheTest, ThresholdClientsOriginsAndSwitches) {
  addAgo(0, "fresh", "f", 1, 1);
  addAgo(2 * 3600, "faded", "fa", 1, 1);
  auto cache = open();
  cache->updateParameters(10, 1, 0.1, 0.01, 0.001, 1.0, 5.0);
  EXPECT_TRUE(cache->completionForInput("fr", 1));   // about 11
  EXPECT_FALSE(cache->completionForInput("fa", 1));  // about 2, below 5
  cache->updateParameters(10, 1, 0.1, 0.01, 0.001, 1.0, 0.0);
  EXPECT_TRUE(cache->completionForInput("fa", 1));

  cache->addCompletion("norvanta result", "no", 3, 2);
  EXPECT_FALSE(cache->completionForInput("no", 1));  // the browser never sees system-search rows
  EXPECT_FALSE(cache->completionForInput("no", 0));
  EXPECT_FALSE(cache->completionForInput("fr", 2));
  auto hit = cache->completionForInput("no", 2);
  ASSERT_TRUE(hit);
  EXPECT_EQ(hit->type, 1);  // origin 3 reads back as type 1, like origin 1
  cache->addCompletion("other origin", "ot", 7, 2);
  EXPECT_EQ(cache->completionForInput("ot", 2)->type, 0);

  prefs->set("VORDisableLocalCompletions", Value(true));
  EXPECT_FALSE(cache->completionForInput("no", 2));
  cache->addCompletion("ignored", "ig", 1, 2);
  prefs->set("VORDisableLocalCompletions", Value(false));
  EXPECT_FALSE(cache->completionForInput("ig", 2));
  cache->setEnabled(false);
  EXPECT_FALSE(cache->completionForInput("no", 2));
  cache->setEnabled(true);
  cache->addCompletion("", "empty", 1, 2);  // empty completions are never stored
  EXPECT_EQ(query(file(), "SELECT count(*) FROM completion_cache_engagement WHERE input = 'empty';")[0][0],
            "0");

  cache->closeDBConnection();
  EXPECT_FALSE(cache->completionForInput("no", 2));
  cache->addCompletion("after close", "ac", 1, 2);  // does nothing, and does not crash
}

// Lookups made from work on the shared pool, more at once than it has workers: each caller blocks its
// worker while it waits, so the queries must not need a worker of that pool to run.
TEST_F(EngagedCompletionCacheTest, LookupsFromEveryWorkerOfTheSharedPoolAreAnswered) {
  auto cache = open();
  cache->setSearchTimeout(5000);  // a starved lookup fails here after 5 s instead of hanging
  cache->addCompletion("pooled", "po", 1, 1);
  const size_t callers = 2 * WorkerPool::shared()->size();
  std::mutex mu;
  std::condition_variable cv;
  size_t answered = 0, found = 0;
  std::vector<std::shared_ptr<Queue>> queues;
  for (size_t i = 0; i < callers; ++i) {
    queues.push_back(Queue::serial("test.caller." + std::to_string(i)));
    queues.back()->async([&] {
      bool hit = cache->completionForInput("po", 1).has_value();
      std::lock_guard lock(mu);
      ++answered;
      found += hit;
      cv.notify_all();
    });
  }
  std::unique_lock lock(mu);
  ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(60), [&] { return answered == callers; }));
  EXPECT_EQ(found, callers);
}

// A lookup never keeps its caller past the budget: run on the caller's thread it is interrupted, queued
// behind a busy connection it is abandoned; either way it answers nothing and says so.
TEST_F(EngagedCompletionCacheTest, LookupsEndAtTheirBudgetWhetherRunHereOrQueued) {
  auto cache = open();
  const int64_t now = int64_t(toUnixSeconds(clock->now()));
  writeEngagements(file(), 20000,
                   [&](int i) { return fmt::format("'budget {}', 'b', {}, 'se', 1", i, now - i); });
  ScopedLogCapture capture;
  ScopedPrivateLogging privateLogging;
  cache->setSearchTimeout(0);
  EXPECT_FALSE(cache->completionForInput("bu", 1));
  EXPECT_TRUE(capture.sink().contains("EngagedCompletionCache search timed out for input bu"));
  // The interrupted statement is reused, and answers in full once there is time.
  cache->setSearchTimeout(30000);
  auto best = cache->completionForInput("bu", 1);
  ASSERT_TRUE(best);
  EXPECT_EQ(best->suggestion, "budget 0");  // the newest engagement has the largest recency term

  // The connection is busy: the lookup waits on the search queue, and only up to its budget.
  cache->setSearchTimeout(50);
  std::optional<EngagedCompletion> late;
  cache->holdConnectionForTesting(
      [&] { std::thread([&] { late = cache->completionForInput("budget 7", 1); }).join(); });
  EXPECT_FALSE(late);
  EXPECT_TRUE(capture.sink().contains("EngagedCompletionCache search timed out for input budget 7"));

  // Busy only for a moment: the queued lookup is answered once the connection is free.
  cache->setSearchTimeout(30000);
  std::optional<EngagedCompletion> queued;
  std::thread caller;
  cache->holdConnectionForTesting([&] {
    caller = std::thread([&] { queued = cache->completionForInput("budget 7", 1); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // lets it find the connection busy
  });
  caller.join();
  ASSERT_TRUE(queued);
  EXPECT_EQ(queued->suggestion, "budget 7");
}

TEST_F(EngagedCompletionCacheTest, ClearsAgeOutAndEvictionByRowLimit) {
  addAgo(4, "recent", "r", 1, 1);
  addAgo(6, "older", "o", 1, 1);
  auto cache = open();
  cache->clearCompletionsFromDate(clock->now(), clock->now());  // equal dates widen to +-5 s
  EXPECT_FALSE(cache->completionForInput("r", 1));
  EXPECT_TRUE(cache->completionForInput("o", 1));

  // An add first ages out everything older than 30 days.
  addAgo(31 * 86400.0, "ancient", "a", 1, 1);
  EXPECT_TRUE(cache->completionForInput("a", 1));
  cache->addCompletion("fresh", "f", 1, 1);
  EXPECT_FALSE(cache->completionForInput("a", 1));
  // The default row limit never evicts: the row counter reports 0 on purpose.
  EXPECT_TRUE(cache->completionForInput("o", 1));

  // Only a limit of 0 evicts, and then every row sharing the oldest date goes.
  addAgo(8, "twin one", "t", 1, 1);
  addAgo(8, "twin two", "t", 1, 1);
  cache->setMaxRowCount(0);
  cache->addCompletion("newest", "n", 1, 1);
  EXPECT_FALSE(cache->completionForInput("t", 1));
  EXPECT_TRUE(cache->completionForInput("o", 1));
  cache->addCompletion("newer", "n", 1, 1);
  EXPECT_FALSE(cache->completionForInput("o", 1));
  EXPECT_TRUE(cache->completionForInput("newest", 1));

  cache->clearAllCompletions();
  EXPECT_EQ(query(file(), "SELECT count(*) FROM completion_cache_engagement;")[0][0], "0");
}

TEST_F(EngagedCompletionCacheTest, ReportsCoarsenedSizes) {
  auto cache = open();
  // 120 rows written directly, then one add: 121 entries are reported as 120.
  const int64_t now = int64_t(toUnixSeconds(clock->now()));
  writeEngagements(file(), 120, [&](int i) { return fmt::format("'c{}', 'c', {}, 'se', 1", i, now); });
  cache->addCompletion("one more", "o", 1, 1);
  EXPECT_EQ(counters->value("com.velmo.vorlend.voyant.localCompletionIndex.entries"), 120);
  int64_t size = static_cast<int64_t>(std::filesystem::file_size(file()));
  int64_t reported = counters->value("com.velmo.vorlend.voyant.localCompletionIndex.size");
  EXPECT_EQ(reported, EngagedCompletionCache::significantValue(size));
  EXPECT_GT(reported, 0);
}

TEST_F(EngagedCompletionCacheTest, CurrentSchemaIsKeptAndTheFileIsPrivate) {
  open()->addCompletion("kept", "k", 1, 1);
  EXPECT_EQ(test::fileMode(file()), 0600u);
  EXPECT_EQ(test::fileMode(file().parent_path()), 0700u);
  auto reopened = open();
  EXPECT_EQ(reopened->schemaVersionForTesting(), 3);
  EXPECT_TRUE(reopened->completionForInput("k", 1));
  EXPECT_EQ(query(file(), "SELECT schema_version FROM completion_cache_schema_version;"),
            (std::vector<std::vector<std::string>>{{"3"}}));
  EXPECT_EQ(query(file(), "PRAGMA auto_vacuum;")[0][0], "2");
}

TEST_F(EngagedCompletionCacheTest, OldOrForeignSchemaIsRebuiltEmpty) {
  open()->addCompletion("kept", "k", 1, 1);
  query(file(), "UPDATE completion_cache_schema_version SET schema_version = 2;");
  auto rebuilt = open();
  EXPECT_EQ(rebuilt->schemaVersionForTesting(), 2);   // what was read; the file now says 3
  EXPECT_FALSE(rebuilt->completionForInput("k", 1));  // rebuilding discards the rows
  EXPECT_EQ(query(file(), "SELECT schema_version FROM completion_cache_schema_version;"),
            (std::vector<std::vector<std::string>>{{"3"}}));

  // A database of someone else's making: no version table, a table of our name with other columns.
  std::filesystem::remove(file());
  query(file(),
        "CREATE TABLE completion_cache_engagement(term TEXT, hits INT); INSERT INTO "
        "completion_cache_engagement VALUES ('x', 1); CREATE TABLE other(a INT);");
  auto foreign = open();
  EXPECT_EQ(foreign->schemaVersionForTesting(), 0);
  foreign->addCompletion("works", "w", 1, 1);
  EXPECT_EQ(foreign->completionForInput("wo", 1)->suggestion, "works");
  EXPECT_EQ(query(file(), "SELECT completion, input, origin, client FROM completion_cache_engagement;"),
            (std::vector<std::vector<std::string>>{{"works", "w", "se", "1"}}));

  // More than one column, more than one row: the version cannot be read, so the file is rebuilt.
  query(file(),
        "DROP TABLE completion_cache_schema_version; CREATE TABLE completion_cache_schema_version(a INT, "
        "b INT); INSERT INTO completion_cache_schema_version VALUES (3, 3), (3, 3);");
  auto twoByTwo = open();
  EXPECT_FALSE(twoByTwo->completionForInput("wo", 1));
}

TEST_F(EngagedCompletionCacheTest, SchemaBusyWhileReadIsKept) {
  open()->addCompletion("kept", "k", 1, 1);
  query(file(), "UPDATE completion_cache_schema_version SET schema_version = 2;");
  sqlite3* holder = nullptr;
  ASSERT_EQ(sqlite3_open(file().c_str(), &holder), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(holder, "BEGIN EXCLUSIVE;", nullptr, nullptr, nullptr), SQLITE_OK);
  auto cache = open();  // cannot read the version: taken as current, nothing is rebuilt
  EXPECT_EQ(cache->schemaVersionForTesting(), 0);
  ASSERT_EQ(sqlite3_exec(holder, "COMMIT;", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(holder);
  EXPECT_TRUE(cache->completionForInput("k", 1));
  EXPECT_EQ(query(file(), "SELECT schema_version FROM completion_cache_schema_version;")[0][0], "2");
}

size_t errorLinesContaining(const CapturingSink& sink, const std::string& part) {
  size_t n = 0;
  for (const LogRecord& r : sink.records())
    n += r.level == LogLevel::Error && r.message.find(part) != std::string::npos;
  return n;
}

// A file that is not a database, a damaged one, and one claiming the current version without its table are
// each kept aside for inspection and replaced by a working database, with one error line.
TEST_F(EngagedCompletionCacheTest, UnreadableFilesAreMovedAsideAndTheCacheWorksAgain) {
  open()->addCompletion("kept", "k", 1, 1);
  const std::string good = test::readFile(file());
  const std::pair<std::string, std::string> cases[] = {
      {std::string(4096, 'x'), "file is not a database"},
      {good.substr(0, good.size() / 2), "could not be read"},
      {"", "schema version 3 without its table"},  // made below
  };
  for (const auto& [contents, reason] : cases) {
    SCOPED_TRACE(reason);
    std::filesystem::remove(file());
    std::filesystem::path aside = file();
    aside += ".corrupt";
    std::filesystem::remove(aside);
    if (contents.empty()) {
      query(file(),
            "CREATE TABLE completion_cache_schema_version(schema_version INT); INSERT INTO "
            "completion_cache_schema_version VALUES (3);");
    } else {
      test::writeFile(file(), contents);
    }
    const std::string before = test::readFile(file());
    ScopedLogCapture capture;
    auto cache = open();
    EXPECT_EQ(errorLinesContaining(capture.sink(), "moved aside to " + aside.string()), 1u);
    EXPECT_EQ(errorLinesContaining(capture.sink(), reason), 1u) << capture.sink().records().size();
    EXPECT_EQ(test::readFile(aside), before);
    EXPECT_TRUE(cache->addCompletion("fresh", "f", 1, 1));
    EXPECT_EQ(cache->completionForInput("fr", 1)->suggestion, "fresh");
    EXPECT_EQ(test::fileMode(file()), 0600u);
  }
}

// The daemon and vorlenctl write the same file at once: each waits for the other's lock, nothing is lost.
TEST_F(EngagedCompletionCacheTest, TwoWritersOfOneFileLoseNothing) {
  auto daemon = open();
  auto tool = open();
  constexpr int kEach = 60;
  auto write = [](std::shared_ptr<EngagedCompletionCache> cache, std::string prefix) {
    int stored = 0;
    for (int i = 0; i < kEach; ++i) stored += cache->addCompletion(prefix + std::to_string(i), "x", 1, 1);
    return stored;
  };
  auto fromDaemon = std::async(std::launch::async, write, daemon, "d");
  auto fromTool = std::async(std::launch::async, write, tool, "t");
  EXPECT_EQ(fromDaemon.get(), kEach);
  EXPECT_EQ(fromTool.get(), kEach);
  EXPECT_EQ(query(file(), "SELECT COUNT(*) FROM completion_cache_engagement;")[0][0],
            std::to_string(2 * kEach));
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
