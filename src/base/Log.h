// Log: the system log of subsystem "com.velmo.vorlend" with its 21 categories and five levels.
//
// Each message goes to the installed sink: journald when the process runs under systemd (JOURNAL_STREAM
// set and libsystemd available), otherwise one line per message on stderr. Tests install a CapturingSink.
// The level threshold comes from VORLEND_LOG_LEVEL (debug|info|default|error|fault; default "info").
// Formatting is skipped for messages below the threshold, so debug lines cost one comparison.
//
// Arguments that carry user data (typed text, queries, completions, request URLs with their items, GUIDs,
// locations, SQL with bound text) are wrapped in Private(...): they are written as "<private>" unless
// private logging is on (VORLEND_LOG_PRIVATE=1 in the environment, or Log::setPrivateDataEnabled, which
// the daemon drives from the preference "VORLogPrivateData"). The fixed text of a message never changes.
//
// Threading: every function is safe from any thread.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

namespace vorlen {

inline constexpr const char* kLogSubsystem = "com.velmo.vorlend";

enum class LogLevel { Debug = 0, Info = 1, Default = 2, Error = 3, Fault = 4 };
const char* logLevelName(LogLevel level);

enum VorlenLoggingCategory : unsigned {
  VorlenLogCategoryVorlen = 0,
  VorlenLogCategoryFeedback,
  VorlenLogCategorySession,
  VorlenLogCategoryRequest,
  VorlenLogCategoryFlusher,
  VorlenLogCategorySearch,
  VorlenLogCategoryZeroKeyword,
  VorlenLogCategoryMoreResults,
  VorlenLogCategoryCard,
  VorlenLogCategoryLookUp,
  VorlenLogCategoryFlight,
  VorlenLogCategoryImages,
  VorlenLogCategoryConnection,
  VorlenLogCategoryDownloadManager,
  VorlenLogCategoryBag,
  VorlenLogCategorySubscription,
  VorlenLogCategoryCaching,
  VorlenLogCategoryFeedbackErrors,
  VorlenLogCategoryFeedbackStorage,
  VorlenLogCategoryProtocol,
  VorlenLogCategoryUploadManager,
  VorlenLoggingCategoryCount  // 21
};

struct LogRecord {
  LogLevel level;
  std::string category;  // empty for the process's default log
  std::string message;
};

class LogSink {
 public:
  virtual ~LogSink() = default;
  virtual void write(const LogRecord& record) = 0;
};

// The fields the journald sink sends for a record: MESSAGE (multi-line text kept whole), PRIORITY (syslog
// level), SYSLOG_IDENTIFIER (the program's name, so that `journalctl -t vorlend` finds the daemon's lines),
// VORLEN_SUBSYSTEM and VORLEN_CATEGORY ("default" for the default log).
std::vector<std::string> journalFields(const LogRecord& record);

// Collects records in memory; for tests.
class CapturingSink final : public LogSink {
 public:
  void write(const LogRecord& record) override;
  std::vector<LogRecord> records() const;
  // True when some record's message equals `message` exactly (and, if given, its category and level).
  bool contains(std::string_view message) const;
  bool contains(LogLevel level, std::string_view category, std::string_view message) const;
  size_t count(std::string_view message) const;
  void clear();

 private:
  mutable std::mutex mu_;
  std::vector<LogRecord> records_;
};

// A log handle: one category of the subsystem, or the default log.
class Logger {
 public:
  explicit constexpr Logger(const char* category) : category_(category) {}
  const char* category() const { return category_; }

  void write(LogLevel level, std::string_view message) const;

  template <class... A>
  void log(LogLevel level, fmt::format_string<A...> f, A&&... args) const {
    if (!enabled(level)) return;
    write(level, fmt::format(f, std::forward<A>(args)...));
  }
  template <class... A>
  void debug(fmt::format_string<A...> f, A&&... a) const {
    log(LogLevel::Debug, f, std::forward<A>(a)...);
  }
  template <class... A>
  void info(fmt::format_string<A...> f, A&&... a) const {
    log(LogLevel::Info, f, std::forward<A>(a)...);
  }
  template <class... A>
  void notice(fmt::format_string<A...> f, A&&... a) const {
    log(LogLevel::Default, f, std::forward<A>(a)...);
  }
  template <class... A>
  void error(fmt::format_string<A...> f, A&&... a) const {
    log(LogLevel::Error, f, std::forward<A>(a)...);
  }
  template <class... A>
  void fault(fmt::format_string<A...> f, A&&... a) const {
    log(LogLevel::Fault, f, std::forward<A>(a)...);
  }

  static bool enabled(LogLevel level);

 private:
  const char* category_;  // "" for the default log
};

// The handle of a category. REQUIRES: category < VorlenLoggingCategoryCount; otherwise the process stops
// with the assertion "category < VorlenLoggingCategoryCount".
const Logger& VorlenLogForCategory(unsigned category);
// The process's default log (messages that name no category).
const Logger& VorlenDefaultLog();

// A log argument that carries user data; see the top of this file. Holds a reference: use it only inside
// the logging call's argument list.
template <class T>
struct Private {
  explicit Private(const T& v) : value(v) {}
  const T& value;
};
template <class T>
Private(const T&) -> Private<T>;

class Log {
 public:
  // Replaces the sink; returns the previous one. A null sink restores the automatic choice.
  static std::shared_ptr<LogSink> setSink(std::shared_ptr<LogSink> sink);
  static void setThreshold(LogLevel level);
  static LogLevel threshold();
  // Whether Private(...) arguments are written as they are. Off unless VORLEND_LOG_PRIVATE=1.
  static void setPrivateDataEnabled(bool enabled);
  static bool privateDataEnabled();
};

// Installs a CapturingSink (and debug threshold) for the lifetime of the object; for tests.
class ScopedLogCapture {
 public:
  ScopedLogCapture();
  ~ScopedLogCapture();
  CapturingSink& sink() { return *sink_; }

 private:
  std::shared_ptr<CapturingSink> sink_;
  std::shared_ptr<LogSink> previous_;
  LogLevel previousThreshold_;
};

// Turns private logging on (or off) for the lifetime of the object, then restores it; for tests that
// compare lines carrying user data.
class ScopedPrivateLogging {
 public:
  explicit ScopedPrivateLogging(bool enabled = true);
  ~ScopedPrivateLogging();

 private:
  bool previous_;
};

// Trace switch: VORTracingSetup() reads the boolean preference "TraceEnabled" once per process into
// VORTraceEnabled and logs "VORTraceEnabled flag set to %d" at debug level.
extern std::atomic<bool> VORTraceEnabled;
class Preferences;
void VORTracingSetup(const Preferences& defaults);

}  // namespace vorlen

template <class T>
struct fmt::formatter<vorlen::Private<T>> : fmt::formatter<std::string_view> {
  template <class Context>
  auto format(const vorlen::Private<T>& p, Context& ctx) const -> decltype(ctx.out()) {
    if (vorlen::Log::privateDataEnabled()) return fmt::format_to(ctx.out(), "{}", p.value);
    return fmt::formatter<std::string_view>::format(std::string_view("<private>"), ctx);
  }
};
