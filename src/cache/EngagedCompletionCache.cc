#include "cache/EngagedCompletionCache.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <thread>

#include "base/Counters.h"
#include "base/FileUtil.h"
#include "base/Log.h"
#include "base/Preferences.h"
#include "base/WorkerPool.h"

namespace vorlen {

namespace {

const Logger& log() {
  return VorlenDefaultLog();
}

// The far past (0001-01-01) used as the lower end of the 30-day age-out. Kept in seconds: it lies outside
// the range of a nanosecond Time.
constexpr int64_t kDistantPastSeconds = -62135596800;
constexpr int64_t kAgeOutSeconds = 2592000;  // 30 days
// Lookups that can run at once on the search queue; a lookup is one short query, and a late one goes on in
// the background.
constexpr unsigned kSearchWorkers = 2;
constexpr int kProgressSteps = 256;

constexpr const char* kSelectTemplate =
    "SELECT completion, origin, SUM(CASE WHEN engagement_date > ? THEN {:.6f} WHEN engagement_date > ? then "
    "{:.6f} WHEN  engagement_date > ? THEN {:.6f} WHEN engagement_date > ? THEN {:.6f} WHEN engagement_date "
    "> ? "
    "THEN {:.6f} ELSE 0 END) + ({:.6f} * MAX(engagement_date) / ?) AS score FROM completion_cache_engagement "
    "WHERE client == ? AND (completion LIKE {} OR input LIKE {}) GROUP BY completion ORDER BY score DESC "
    "LIMIT 2";

std::string originText(int64_t origin) {
  // Origins 1 and 3 are stored alike on purpose: both are the service's own suggestions.
  if (origin == 1 || origin == 3) return "se";
  if (origin == 2) return "3d";
  return "";
}

int suggestionTypeForOrigin(std::string_view origin) {
  if (origin == "se") return 1;
  if (origin == "3d") return 8;
  return 0;
}

// A finalised-on-scope-exit prepared statement.
struct Statement {
  sqlite3_stmt* s = nullptr;
  ~Statement() { sqlite3_finalize(s); }
};

}  // namespace

std::shared_ptr<EngagedCompletionCache> EngagedCompletionCache::create(
    const std::filesystem::path& storagePath, std::shared_ptr<Clock> clock,
    std::shared_ptr<const Preferences> defaults) {
  return std::shared_ptr<EngagedCompletionCache>(
      new EngagedCompletionCache(storagePath, std::move(clock), std::move(defaults)));
}

EngagedCompletionCache::EngagedCompletionCache(const std::filesystem::path& storagePath,
                                               std::shared_ptr<Clock> clock,
                                               std::shared_ptr<const Preferences> defaults)
    : databaseDirPath_(storagePath / "EngagedCompletions"),
      databasePath_(databaseDirPath_ / "Cache.db"),
      clock_(clock ? std::move(clock) : Clock::system()),
      defaults_(std::move(defaults)),
      // The lookups' own workers: a caller blocks (on a worker of the shared pool, usually) while its query
      // runs, so with the queries on the shared pool a few concurrent searches would hold every worker
      // waiting for queries queued behind them, and all would time out.
      searchQueue_(Queue::concurrent("com.velmo.vorlend.eccsearchq", QueuePriority::UserInitiated, clock_,
                                     std::make_shared<WorkerPool>(kSearchWorkers))),
      updateQueue_(Queue::serial("com.velmo.vorlend.eccupdateq", QueuePriority::Default, clock_)) {
  createOrUpdateDatabase();
}

EngagedCompletionCache::~EngagedCompletionCache() {
  sqlite3* db = db_.exchange(nullptr);
  finalizeIdleStatements();
  if (db) sqlite3_close_v2(db);
}

int64_t EngagedCompletionCache::nowSeconds() const {
  return static_cast<int64_t>(toUnixSeconds(clock_->now()));
}

bool EngagedCompletionCache::cacheEnabled() const {
  return enabled_.load() && !(defaults_ && defaults_->boolForKey("VORDisableLocalCompletions"));
}

void EngagedCompletionCache::createOrUpdateDatabase() {
  std::error_code ec;
  // A failed open leaves no connection; the schema steps then fail one by one, each with its log line.
  if (std::filesystem::exists(databasePath_, ec)) {
    openDatabase();
    if (db_.load()) {
      if (auto reason = unreadableReason()) {
        moveAsideAndRecreate(*reason);
        return;
      }
    }
    if (!isSchemaCurrent()) setDBSchema();
    return;
  }
  std::string error;
  if (!std::filesystem::exists(databaseDirPath_, ec) && !ensureDirectory(databaseDirPath_, 0700, &error)) {
    log().notice("Failed to create database dir: {}", error);
    return;
  }
  openDatabase();
  setDBSchema();
}

bool EngagedCompletionCache::openDatabase() {
  if (sqlite3* old = db_.exchange(nullptr)) {
    log().notice("Closing existing Completions database connection");
    finalizeIdleStatements();
    sqlite3_close_v2(old);
  }
  // The file holds the user's history: created private to the user, and an older file is tightened to
  // match. SQLite gives its journal the database file's mode.
  if (int fd = ::open(databasePath_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600); fd >= 0) {
    ::fchmod(fd, 0600);
    ::close(fd);
  }
  sqlite3* db = nullptr;
  int rc = sqlite3_open_v2(databasePath_.c_str(), &db,
                           SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    log().error("Failed to open completions database: {} error={} cause={}", databasePath_.string(), rc,
                db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
    sqlite3_close_v2(db);
    return false;
  }
  // The scoring query's plan does not depend on the typed text (its LIKE cannot use the plain indexes),
  // so a stable plan lets a reused statement take a new input without being compiled again; by default
  // SQLite re-prepares a statement whenever the pattern bound to a LIKE changes.
  sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_QPSG, 1, nullptr);
  // Every 256 virtual-machine steps a running statement asks whether an inline lookup's deadline has
  // passed (a few microseconds of work between checks).
  sqlite3_progress_handler(db, kProgressSteps, &EngagedCompletionCache::onProgress, this);
  sqlite3_busy_handler(db, &EngagedCompletionCache::onBusy, this);
  db_.store(db);
  log().notice("Completions database opened: {}", databasePath_.string());
  return true;
}

std::optional<std::string> EngagedCompletionCache::unreadableReason() {
  sqlite3* db = db_.load();
  char** result = nullptr;
  int rows = 0, cols = 0;
  int rc = sqlite3_get_table(db, "PRAGMA quick_check;", &result, &rows, &cols, nullptr);
  std::optional<std::string> reason;
  if (rc == SQLITE_NOTADB || rc == SQLITE_CORRUPT) {
    reason = sqlite3_errstr(rc);
  } else if (rc == SQLITE_OK && rows >= 1 && cols >= 1 &&
             (!result[cols] || std::strcmp(result[cols], "ok") != 0)) {
    reason = std::string("integrity check: ") + (result[cols] ? result[cols] : "(null)");
  }
  sqlite3_free_table(result);
  if (reason || rc != SQLITE_OK) return reason;  // busy or otherwise unsure: keep the file
  // A version table that says current over a missing or different engagement table would never be rebuilt.
  result = nullptr;
  rc = sqlite3_get_table(db, "SELECT schema_version from completion_cache_schema_version", &result, &rows,
                         &cols, nullptr);
  bool claimsCurrent = rc == SQLITE_OK && rows == 1 && cols == 1 && result[1] &&
                       std::strtoll(result[1], nullptr, 10) == kSchemaVersion;
  sqlite3_free_table(result);
  if (!claimsCurrent) return std::nullopt;
  sqlite3_stmt* probe = nullptr;
  rc = sqlite3_prepare_v2(
      db, "SELECT completion, input, engagement_date, origin, client FROM completion_cache_engagement", -1,
      &probe, nullptr);
  if (rc != SQLITE_OK && rc != SQLITE_BUSY)
    reason = std::string("schema version 3 without its table: ") + sqlite3_errmsg(db);
  sqlite3_finalize(probe);
  return reason;
}

void EngagedCompletionCache::moveAsideAndRecreate(const std::string& reason) {
  if (sqlite3* old = db_.exchange(nullptr)) {
    finalizeIdleStatements();
    sqlite3_close_v2(old);
  }
  std::filesystem::path aside = databasePath_;
  aside += ".corrupt";
  std::error_code ec;
  std::filesystem::rename(databasePath_, aside, ec);
  if (!ec) syncDirectory(databasePath_.parent_path());
  for (const char* suffix : {"-journal", "-wal", "-shm"}) {
    std::filesystem::path companion = databasePath_;
    companion += suffix;
    std::filesystem::remove(companion, ec);
  }
  log().error("Completions database {} could not be read ({}); moved aside to {} and recreated",
              databasePath_.string(), reason, aside.string());
  schemaVersion_ = 0;
  openDatabase();
  setDBSchema();
}

bool EngagedCompletionCache::isSchemaCurrent() {
  if (schemaVersion_ == kSchemaVersion) return true;
  sqlite3* db = db_.load();
  if (!db) return false;
  char** result = nullptr;
  int rows = 0, cols = 0;
  int rc = sqlite3_get_table(db, "SELECT schema_version from completion_cache_schema_version", &result, &rows,
                             &cols, nullptr);
  bool current = false;
  if (rc == SQLITE_BUSY) {
    // Another user holds the database right now; its schema was good enough for that user, keep it.
    current = true;
  } else if (rc == SQLITE_OK) {
    // One row or one column is enough to take the first data cell as the version.
    if ((rows == 1 || cols == 1) && rows >= 1) {
      schemaVersion_ = result[cols] ? std::strtoll(result[cols], nullptr, 10) : 0;
      current = schemaVersion_ == kSchemaVersion;
    }
  } else {
    log().notice("Engaged completion cache schema version read failed");
  }
  sqlite3_free_table(result);
  return current;
}

void EngagedCompletionCache::setDBSchema() {
  static const std::pair<const char*, const char*> statements[] = {
      {"PRAGMA auto_vacuum = 2;", "Error _setDBSchema pragma auto_vacum"},
      {"DROP table IF EXISTS completion_cache_schema_version;", "Error _setDBSchema drop schema table"},
      {"CREATE table completion_cache_schema_version(schema_version INT);",
       "Error _setDBSchema create schema table"},
      {"DROP table IF EXISTS completion_cache_engagement;",
       "Error _setDBSchema drop completion_cache_engagement table"},
      {"CREATE TABLE IF NOT EXISTS completion_cache_engagement(completion TEXT, input TEXT, engagement_date "
       "INT, "
       "origin TEXT, client INT);",
       "Error _setDBSchema create completion_cache_engagement table"},
      {"CREATE INDEX completion_index ON completion_cache_engagement(completion);",
       "Error _setDBSchema table completion_cache_engagement create index completion"},
      {"CREATE INDEX input_index ON completion_cache_engagement(input);",
       "Error _setDBSchema table completion_cache_engagement create index input "},
  };
  for (auto& [sql, failure] : statements)
    if (execSQLStatement(sql) != 0) log().notice("{}", failure);
  char* insert =
      sqlite3_mprintf("INSERT INTO completion_cache_schema_version VALUES (%d)", int(kSchemaVersion));
  if (!insert) {
    log().notice("Error _setDBSchema alloc schema version string");
    return;
  }
  // _schemaVersion stays what was read from the file; it only short-cuts a later schema check.
  if (execSQLStatement(insert) != 0) log().notice("Error _setDBSchema insert schema version string");
  sqlite3_free(insert);
}

int EngagedCompletionCache::execSQLStatement(const std::string& sql) {
  sqlite3* db = db_.load();
  if (!db) return 1;
  char* message = nullptr;
  int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message);
  if (rc != SQLITE_OK)
    log().notice("_execSQLStatement failed - SQL:{} error-code: {} error-message: {}", sql, rc,
                 message ? message : "");
  sqlite3_free(message);
  return rc;
}

void EngagedCompletionCache::updateParameters(double h, double d, double w, double m, double all,
                                              double recent, double threshold) {
  updateQueue_->sync([&] {
    {
      std::lock_guard lock(paramsMu_);
      params_ = Parameters{h, d, w, m, all, recent, threshold};
      selectText_.reset();  // made again from the new weights by the next lookup
    }
    log().notice(
        "EngagedCompletionCache updateParameters: (1h {:.6f}) (1d {:.6f}) (7d {:.6f}) (1m {:.6f}) (all "
        "{:.6f}) "
        "(recent {:.6f}) (t {:.6f})",
        h, d, w, m, all, recent, threshold);
  });
}

int64_t EngagedCompletionCache::countRows(bool* ok) {
  *ok = false;
  sqlite3* db = db_.load();
  if (!db) return 0;
  Statement st;
  if (sqlite3_prepare_v2(db, "SELECT Count(*) FROM completion_cache_engagement;", -1, &st.s, nullptr) !=
          SQLITE_OK ||
      sqlite3_step(st.s) != SQLITE_ROW) {
    log().notice("Failed to get number of entries in engaged completion cache");
    return 0;
  }
  *ok = true;
  return sqlite3_column_int64(st.s, 0);
}

int64_t EngagedCompletionCache::numberOfRows() {
  bool ok = false;
  int64_t n = countRows(&ok);
  if (ok) log().notice("Number of completion in cache: {}", n);
  // Reports 0 whatever the true count is, so eviction by count only happens with a row limit of 0. Kept
  // on purpose: the 30-day age-out is what bounds the table, and servers tune around this behaviour.
  return 0;
}

bool EngagedCompletionCache::addCompletion(const std::string& completion, const std::string& input,
                                           int64_t origin, int64_t client) {
  if (!cacheEnabled() || completion.empty() || !db_.load()) return false;
  log().notice("Adding completion: {} input: {}", Private(completion), Private(input));
  int64_t now = nowSeconds();
  clearCompletionsFromSeconds(kDistantPastSeconds, now - kAgeOutSeconds);

  if (static_cast<uint64_t>(numberOfRows()) >= maxRowCount_.load()) {
    if (execSQLStatement(
            "DELETE FROM completion_cache_engagement WHERE engagement_date IN (SELECT engagement_date "
            "FROM completion_cache_engagement ORDER BY engagement_date ASC LIMIT 1);") != 0)
      log().notice("Error _setDBSchema table completion_cache_engagement create index completion");
  }

  sqlite3* db = db_.load();
  if (!db) return false;
  bool stored = false;
  {
    // Five bound values, never text pasted into the statement.
    char* sql = sqlite3_mprintf(
        "INSERT INTO completion_cache_engagement (completion, input, engagement_date, origin, client) VALUES "
        "(%q, "
        "%q, %q, %q, %q)",
        "?", "?", "?", "?", "?");
    Statement st;
    int rc = sqlite3_prepare_v2(db, sql, -1, &st.s, nullptr);
    if (rc != SQLITE_OK) {
      log().notice("_prepareInsertStatement failed - SQL:{} code: {}", sql ? sql : "", rc);
      sqlite3_free(sql);
      return false;
    }
    sqlite3_free(sql);
    std::string originString = originText(origin);
    sqlite3_bind_text(st.s, 1, completion.data(), int(completion.size()), SQLITE_TRANSIENT);
    sqlite3_bind_text(st.s, 2, input.data(), int(input.size()), SQLITE_TRANSIENT);
    // Engagement dates are stored as 32-bit whole seconds.
    sqlite3_bind_int(st.s, 3, static_cast<int32_t>(now));
    sqlite3_bind_text(st.s, 4, originString.data(), int(originString.size()), SQLITE_TRANSIENT);
    sqlite3_bind_int64(st.s, 5, client);
    stored = sqlite3_step(st.s) == SQLITE_DONE;
    if (stored) {
      log().notice("Completion added: {} input {}", Private(completion), Private(input));
    } else {
      log().error("Failed to add completion: {}", Private(completion));
    }
  }
  performTallydLogging();
  return stored;
}

std::optional<EngagedCompletion> EngagedCompletionCache::completionForInput(const std::string& input,
                                                                            int64_t client) {
  sqlite3* db = db_.load();
  if (!cacheEnabled() || !db) return std::nullopt;
  const auto budget = std::chrono::milliseconds(searchTimeout_.load());
  std::vector<EngagedCompletion> results;
  // A free connection runs the query right here, under a deadline that the progress handler enforces:
  // the caller waits no longer than it would for the search queue, without two thread hand-offs on every
  // keystroke, and a query past its budget stops instead of running on unseen.
  sqlite3_mutex* connection = sqlite3_db_mutex(db);
  if (connection && sqlite3_mutex_try(connection) == SQLITE_OK) {
    const auto deadline = std::chrono::steady_clock::now() + budget;
    deadline_.store(deadline.time_since_epoch().count(), std::memory_order_relaxed);
    const bool finished = runQuery(db, input, client, &results);
    deadline_.store(kNoDeadline, std::memory_order_relaxed);
    sqlite3_mutex_leave(connection);
    if (!finished) {
      log().notice("EngagedCompletionCache search timed out for input {}", Private(input));
      return std::nullopt;
    }
  } else {
    // Another lookup or a write holds the connection: queue the query and wait for it within the budget.
    struct Wait {
      std::mutex mu;
      std::condition_variable cv;
      bool done = false;
      std::vector<EngagedCompletion> results;
    };
    auto wait = std::make_shared<Wait>();
    std::weak_ptr<EngagedCompletionCache> weak = weak_from_this();
    searchQueue_->async([weak, wait, input, client] {
      std::vector<EngagedCompletion> found;
      if (auto self = weak.lock()) {
        if (sqlite3* current = self->db_.load()) self->runQuery(current, input, client, &found);
      }
      std::lock_guard lock(wait->mu);
      wait->results = std::move(found);
      wait->done = true;
      wait->cv.notify_all();
    });
    std::unique_lock lock(wait->mu);
    // A late query finishes in the background and its answer is dropped.
    if (!wait->cv.wait_for(lock, budget, [&] { return wait->done; })) {
      log().notice("EngagedCompletionCache search timed out for input {}", Private(input));
      return std::nullopt;
    }
    results = std::move(wait->results);
  }
  if (results.empty()) return std::nullopt;
  double threshold;
  {
    std::lock_guard plock(paramsMu_);
    threshold = params_.minThresholdToSend;
  }
  if (results.front().score < threshold) return std::nullopt;
  return std::move(results.front());
}

void EngagedCompletionCache::holdConnectionForTesting(const std::function<void()>& whileHeld) {
  sqlite3* db = db_.load();
  sqlite3_mutex* connection = db ? sqlite3_db_mutex(db) : nullptr;
  if (connection) sqlite3_mutex_enter(connection);
  whileHeld();
  if (connection) sqlite3_mutex_leave(connection);
}

int EngagedCompletionCache::onBusy(void* context, int attempts) {
  constexpr auto kPause = std::chrono::milliseconds(5);
  if (onProgress(context) || attempts * kPause >= kBusyTimeout) return 0;
  std::this_thread::sleep_for(kPause);
  return 1;
}

int EngagedCompletionCache::onProgress(void* context) {
  auto* self = static_cast<EngagedCompletionCache*>(context);
  const auto deadline = self->deadline_.load(std::memory_order_relaxed);
  return deadline != kNoDeadline && std::chrono::steady_clock::now().time_since_epoch().count() >= deadline;
}

bool EngagedCompletionCache::runQuery(sqlite3* db, const std::string& input, int64_t client,
                                      std::vector<EngagedCompletion>* out) {
  std::shared_ptr<const SelectText> text = selectText();
  log().notice("_prepareSelectStatement SQL:\n{}", text->logged);
  Statement st;
  st.s = takeSelectStatement(db, text->filled);
  if (!st.s) {
    int rc = sqlite3_prepare_v3(db, text->filled.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &st.s, nullptr);
    if (rc != SQLITE_OK) {
      log().notice("_prepareSelectStatement failed - SQL:{} code: {}", text->filled, rc);
      return true;
    }
  }
  int64_t now = nowSeconds();
  sqlite3_bind_int64(st.s, 1, now - 3600);
  sqlite3_bind_int64(st.s, 2, now - 86400);
  sqlite3_bind_int64(st.s, 3, now - 604800);
  sqlite3_bind_int64(st.s, 4, now - 2592000);
  sqlite3_bind_int64(st.s, 5, now - 31536000);
  sqlite3_bind_int64(st.s, 6, now);
  sqlite3_bind_int64(st.s, 7, client);
  std::string pattern = input + "%";
  sqlite3_bind_text(st.s, 8, pattern.data(), int(pattern.size()), SQLITE_TRANSIENT);
  sqlite3_bind_text(st.s, 9, pattern.data(), int(pattern.size()), SQLITE_TRANSIENT);
  if (Logger::enabled(LogLevel::Default)) {
    // The expanded text is built only when it will be written: without private logging it is a
    // "<private>" either way, and building it re-tokenises the whole statement on every keystroke.
    char* expanded = Log::privateDataEnabled() ? sqlite3_expanded_sql(st.s) : nullptr;
    log().notice("SQL: {}", Private(expanded ? expanded : ""));
    sqlite3_free(expanded);
  }
  auto rowStart = std::chrono::steady_clock::now();
  int rc;
  while ((rc = sqlite3_step(st.s)) == SQLITE_ROW) {
    auto column = [&](int col) {
      const unsigned char* t = sqlite3_column_text(st.s, col);
      return std::string(t ? reinterpret_cast<const char*>(t) : "");
    };
    EngagedCompletion c{column(0), sqlite3_column_double(st.s, 2), suggestionTypeForOrigin(column(1))};
    auto rowEnd = std::chrono::steady_clock::now();
    log().notice("Match found input {}, completion {}, score {:.6f}, time {}", Private(input),
                 Private(c.suggestion), c.score,
                 std::chrono::duration_cast<std::chrono::milliseconds>(rowEnd - rowStart).count());
    rowStart = rowEnd;
    out->push_back(std::move(c));
  }
  sqlite3_reset(st.s);
  sqlite3_clear_bindings(st.s);
  if (keepSelectStatement(db, text->filled, st.s)) st.s = nullptr;
  if (rc == SQLITE_INTERRUPT) {
    out->clear();
    return false;
  }
  return true;
}

std::shared_ptr<const EngagedCompletionCache::SelectText> EngagedCompletionCache::selectText() {
  std::lock_guard lock(paramsMu_);
  if (!selectText_) {
    const Parameters& p = params_;
    auto text = std::make_shared<SelectText>();
    text->logged = fmt::format(kSelectTemplate, p.last1hour, p.last1day, p.last1week, p.last1month, p.all,
                               p.mostRecent, "%s", "%s");
    char* filled = sqlite3_mprintf(text->logged.c_str(), "?", "?");
    text->filled = filled ? filled : "";
    sqlite3_free(filled);
    selectText_ = std::move(text);
  }
  return selectText_;
}

sqlite3_stmt* EngagedCompletionCache::takeSelectStatement(sqlite3* db, const std::string& text) {
  std::lock_guard lock(statementsMu_);
  if (statementsDb_ != db || statementsText_ != text || idleStatements_.empty()) return nullptr;
  sqlite3_stmt* st = idleStatements_.back();
  idleStatements_.pop_back();
  return st;
}

bool EngagedCompletionCache::keepSelectStatement(sqlite3* db, const std::string& text, sqlite3_stmt* st) {
  std::vector<sqlite3_stmt*> stale;
  {
    std::lock_guard lock(statementsMu_);
    if (db_.load() != db) return false;  // the connection was closed or replaced meanwhile
    if (statementsDb_ != db || statementsText_ != text) {
      stale.swap(idleStatements_);  // new weights: statements of the old text are of no more use
      statementsDb_ = db;
      statementsText_ = text;
    }
    if (idleStatements_.size() < kSearchWorkers)
      idleStatements_.push_back(st);
    else
      stale.push_back(st);
  }
  for (sqlite3_stmt* old : stale) sqlite3_finalize(old);
  return true;
}

void EngagedCompletionCache::finalizeIdleStatements() {
  std::vector<sqlite3_stmt*> idle;
  {
    std::lock_guard lock(statementsMu_);
    idle.swap(idleStatements_);
    statementsDb_ = nullptr;
    statementsText_.clear();
  }
  for (sqlite3_stmt* st : idle) sqlite3_finalize(st);
}

void EngagedCompletionCache::clearCompletionsFromDate(Time from, Time to) {
  if (!db_.load()) return;
  // Equal dates compare before conversion, so two different instants within one second stay a range.
  if (from == to) {
    from -= std::chrono::seconds(5);
    to += std::chrono::seconds(5);
  }
  auto secs = [](Time t) { return static_cast<int64_t>(toUnixSeconds(t)); };
  clearCompletionsFromSeconds(secs(from), secs(to));
}

void EngagedCompletionCache::clearCompletionsFromSeconds(int64_t from, int64_t to) {
  sqlite3* db = db_.load();
  if (!db) return;
  std::string sql = fmt::format(
      "DELETE FROM completion_cache_engagement WHERE engagement_date >= {} AND engagement_date <= {};", from,
      to);
  Statement st;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &st.s, nullptr) != SQLITE_OK ||
      sqlite3_step(st.s) != SQLITE_DONE) {
    log().notice("Failed to clear all completions");
    return;
  }
  log().notice("Cleared completions fromDate:{} toDate:{}", from, to);
}

void EngagedCompletionCache::clearAllCompletions() {
  sqlite3* db = db_.load();
  if (!db) return;
  Statement st;
  if (sqlite3_prepare_v2(db, "DELETE FROM completion_cache_engagement;", -1, &st.s, nullptr) != SQLITE_OK ||
      sqlite3_step(st.s) != SQLITE_DONE) {
    log().notice("Failed to clear all completions");
    return;
  }
  log().notice("Cleared all completions");
}

void EngagedCompletionCache::closeDBConnection() {
  sqlite3* db = db_.exchange(nullptr);
  finalizeIdleStatements();
  // A lookup still running keeps the connection alive until its statement is finalised (close_v2).
  if (db) sqlite3_close_v2(db);
}

int64_t EngagedCompletionCache::significantValue(int64_t value) {
  std::string s = std::to_string(value);
  if (s.size() > 1)
    for (size_t i = 2; i < s.size(); ++i) s[i] = '0';
  return std::strtoll(s.c_str(), nullptr, 10);
}

void EngagedCompletionCache::performTallydLogging() {
  if (!db_.load()) return;
  bool ok = false;
  int64_t count = countRows(&ok);
  if (count >= 1) {
    const char* key = "com.velmo.vorlend.voyant.localCompletionIndex.entries";
    VorlenDiagnosticDataReporter::setValue(significantValue(count), key);
    log().notice("Tallyd logging {}: {}", key, significantValue(count));
  }
  std::error_code ec;
  auto size = std::filesystem::file_size(databasePath_, ec);
  if (ec) {
    log().notice("Failed retrieving engaged completion cache db file size");
    return;
  }
  const char* key = "com.velmo.vorlend.voyant.localCompletionIndex.size";
  VorlenDiagnosticDataReporter::setValue(significantValue(static_cast<int64_t>(size)), key);
  log().notice("Tallyd logging {}: {}", key, significantValue(static_cast<int64_t>(size)));
}

}  // namespace vorlen
