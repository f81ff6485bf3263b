// EngagedCompletionCache: the on-device history of completions the user engaged with, for which typed
// input, and the local completion it suggests for what is being typed now. One instance per process,
// backed by one SQLite database (schema version 3) at <caches>/EngagedCompletions/Cache.db.
//
// Scoring weighs recent engagements more (an engagement in the last hour counts ten times one in the last
// day, and so on) plus a recency term; see completionForInput(). Reported sizes are coarsened to two
// significant digits for privacy.
//
// Nothing here reports an error to its caller: failures are logged on the default log and the operation
// ends (a lookup then returns nothing). The one exception is for tools: addCompletion() says whether the
// engagement was stored, which the daemon ignores. A database that cannot be opened leaves the cache inert.
// A file that opens but cannot be read (not a database, damaged, or claiming the current schema version
// without its table) is moved aside to "<file>.corrupt" for inspection, one error line says so, and a
// new empty database takes its place.
//
// Other processes (vorlenctl) write the same file: a statement that finds the file locked waits for it,
// up to kBusyTimeout, instead of failing at once; an inline lookup waits no longer than its deadline.
//
// Threading: a caller of completionForInput() waits at most searchTimeout() milliseconds. When the
// connection is free the query runs on the caller's thread, and SQLite's progress handler interrupts it at
// that deadline; when another lookup or a write holds the connection, the query goes to the concurrent
// queue "com.velmo.vorlend.eccsearchq" (workers of its own, so callers blocked on the shared pool can
// never starve it) and the caller waits for it up to the same deadline, leaving a late query to finish
// unseen. Either way a timed-out lookup returns nothing. Adds and clears run on the caller's thread;
// parameter updates are serialised on "com.velmo.vorlend.eccupdateq". The connection is opened in
// SQLite's fully serialised mode, which is what makes sharing it across those threads safe.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/Clock.h"
#include "base/Queue.h"

struct sqlite3;
struct sqlite3_stmt;

namespace vorlen {

class Preferences;

// A local completion: the engaged completion text, its score and its suggestion type (1 for origin "se",
// 8 for "3d", 0 otherwise).
struct EngagedCompletion {
  std::string suggestion;
  double score = 0;
  int type = 0;
};

class EngagedCompletionCache : public std::enable_shared_from_this<EngagedCompletionCache> {
 public:
  static constexpr int64_t kSchemaVersion = 3;
  static constexpr std::chrono::milliseconds kBusyTimeout{2000};

  // `storagePath` is the caches folder; the database goes below it. `defaults` (may be null) supplies
  // "VORDisableLocalCompletions".
  static std::shared_ptr<EngagedCompletionCache> create(const std::filesystem::path& storagePath,
                                                        std::shared_ptr<Clock> clock,
                                                        std::shared_ptr<const Preferences> defaults);
  ~EngagedCompletionCache();

  const std::filesystem::path& databaseDirPath() const { return databaseDirPath_; }
  const std::filesystem::path& databasePath() const { return databasePath_; }

  // Whether the database is open (it stays closed when it could not be opened or made).
  bool isOpen() const { return db_.load() != nullptr; }
  bool enabled() const { return enabled_.load(); }
  void setEnabled(bool enabled) { enabled_.store(enabled); }
  uint64_t searchTimeout() const { return searchTimeout_.load(); }
  void setSearchTimeout(uint64_t ms) { searchTimeout_.store(ms); }
  uint64_t maxRowCount() const { return maxRowCount_.load(); }
  void setMaxRowCount(uint64_t rows) { maxRowCount_.store(rows); }
  // Runs `whileHeld` holding the connection, as a lookup or a write in progress would.
  void holdConnectionForTesting(const std::function<void()>& whileHeld);
  // The schema version read from the file at construction (0 when none was read, e.g. for a new file).
  int64_t schemaVersionForTesting() const { return schemaVersion_; }

  // Seven weights: 1 hour, 1 day, 1 week, 1 month, all, most recent, and the threshold.
  void updateParameters(double last1hour, double last1day, double last1week, double last1month, double all,
                        double mostRecent, double minThresholdToSend);

  // Records one engagement now. Origin 1 and 3 are stored as "se", 2 as "3d", others as "". Client 0
  // unspecified, 1 browser, 2 system search.
  bool addCompletion(const std::string& completion, const std::string& input, int64_t origin = 0,
                     int64_t client = 0);
  // The best completion for `input` from `client`'s engagements, or nothing (also on time-out).
  std::optional<EngagedCompletion> completionForInput(const std::string& input, int64_t client = 0);

  // Equal dates widen to +-5 s.
  void clearCompletionsFromDate(Time from, Time to);
  void clearAllCompletions();
  void closeDBConnection();
  void performTallydLogging();

  // "12345" -> 12000, "99" -> 99, "7" -> 7.
  static int64_t significantValue(int64_t value);

 private:
  struct Parameters {
    double last1hour = 10.0, last1day = 1.0, last1week = 0.1, last1month = 0.01, all = 0.001,
           mostRecent = 1.0, minThresholdToSend = 0.0;
  };

  EngagedCompletionCache(const std::filesystem::path& storagePath, std::shared_ptr<Clock> clock,
                         std::shared_ptr<const Preferences> defaults);
  bool cacheEnabled() const;
  void createOrUpdateDatabase();
  bool openDatabase();
  bool isSchemaCurrent();
  // Why the open file cannot serve as our database, or nullopt when it can (or is busy right now).
  std::optional<std::string> unreadableReason();
  void moveAsideAndRecreate(const std::string& reason);
  void setDBSchema();
  int execSQLStatement(const std::string& sql);
  int64_t numberOfRows();  // always 0 (see the note in the source)
  int64_t countRows(bool* ok);
  // The date-range deletion in whole seconds since 1970 (no widening here).
  void clearCompletionsFromSeconds(int64_t from, int64_t to);
  // The scoring query's text for the current weights: as logged (with %s) and as prepared (with ?).
  struct SelectText {
    std::string logged, filled;
  };
  std::shared_ptr<const SelectText> selectText();
  // Runs the scoring query on `db`; false when the inline deadline interrupted it (`out` is then empty).
  bool runQuery(sqlite3* db, const std::string& input, int64_t client, std::vector<EngagedCompletion>* out);
  // SQLite progress handler: non-zero ends the running statement once an inline lookup's deadline passed.
  static int onProgress(void* context);
  // SQLite busy handler: waits for another writer up to kBusyTimeout, or an inline lookup's deadline.
  static int onBusy(void* context, int attempts);
  // Lookup statements are prepared once per text (that is, per set of weights) and reused: compiling the
  // scoring query costs more than running it on a month of history.
  sqlite3_stmt* takeSelectStatement(sqlite3* db, const std::string& text);
  bool keepSelectStatement(sqlite3* db, const std::string& text,
                           sqlite3_stmt* st);  // false: caller finalises
  void finalizeIdleStatements();
  int64_t nowSeconds() const;

  std::filesystem::path databaseDirPath_, databasePath_;
  std::shared_ptr<Clock> clock_;
  std::shared_ptr<const Preferences> defaults_;
  std::atomic<bool> enabled_{false};
  std::atomic<uint64_t> searchTimeout_{5};
  std::atomic<uint64_t> maxRowCount_{10000};
  int64_t schemaVersion_ = 0;
  std::atomic<sqlite3*> db_{nullptr};
  std::shared_ptr<Queue> searchQueue_;
  std::shared_ptr<Queue> updateQueue_;
  mutable std::mutex paramsMu_;  // guards the two below
  Parameters params_;
  std::shared_ptr<const SelectText> selectText_;
  // steady_clock ticks at which an inline lookup ends; written only while holding the connection's mutex.
  static constexpr int64_t kNoDeadline = INT64_MAX;
  std::atomic<int64_t> deadline_{kNoDeadline};
  std::mutex statementsMu_;  // guards the three below
  sqlite3* statementsDb_ = nullptr;
  std::string statementsText_;
  std::vector<sqlite3_stmt*> idleStatements_;
};

}  // namespace vorlen
