#include "base/Log.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/Preferences.h"

#ifdef VORLEN_HAVE_SYSTEMD
#include <syslog.h>
#include <systemd/sd-journal.h>
#endif

namespace vorlen {

std::atomic<bool> VORTraceEnabled{false};

namespace {

const char* const kCategoryNames[VorlenLoggingCategoryCount] = {
    "Vorlen",           "Vorlen_Feedback",        "Vorlen_Session",        "Vorlen_Request",
    "Vorlen_Flusher",   "Vorlen_Search",          "Vorlen_ZeroKeyword",    "Vorlen_MoreResults",
    "Vorlen_Card",      "Vorlen_LookUp",          "Vorlen_Flight",         "Vorlen_Images",
    "Vorlen_Connection", "Vorlen_DownloadManager", "Vorlen_Bag",           "Vorlen_Subscription",
    "Vorlen_Caching",   "Vorlen_Feedback_Errors", "Vorlen_Feedback_Storage", "Vorlen_Protocol",
    "Vorlen_UploadManager",
};

LogLevel levelFromEnvironment() {
  const char* v = std::getenv("VORLEND_LOG_LEVEL");
  if (!v) return LogLevel::Info;
  static const std::pair<const char*, LogLevel> names[] = {{"debug", LogLevel::Debug},
                                                           {"info", LogLevel::Info},
                                                           {"default", LogLevel::Default},
                                                           {"error", LogLevel::Error},
                                                           {"fault", LogLevel::Fault}};
  for (auto& [n, l] : names)
    if (strcasecmp(v, n) == 0) return l;
  return LogLevel::Info;
}

class StderrSink final : public LogSink {
 public:
  void write(const LogRecord& r) override {
    std::string line = fmt::format("vorlend[{}] <{}> {}{}{}\n", ::getpid(), logLevelName(r.level),
                                   r.category.empty() ? "" : r.category, r.category.empty() ? "" : ": ",
                                   r.message);
    // One write per line so that lines of concurrent threads never interleave.
    ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
    (void)ignored;
  }
};

#ifdef VORLEN_HAVE_SYSTEMD
class JournalSink final : public LogSink {
 public:
  void write(const LogRecord& r) override {
    static const int priorities[] = {LOG_DEBUG, LOG_INFO, LOG_NOTICE, LOG_ERR, LOG_CRIT};
    // The program's own name, so that `journalctl -t vorlend` finds the daemon's lines.
    sd_journal_send("MESSAGE=%s", r.message.c_str(), "PRIORITY=%d", priorities[static_cast<int>(r.level)],
                    "SYSLOG_IDENTIFIER=%s", program_invocation_short_name, "VORLEN_SUBSYSTEM=%s",
                    kLogSubsystem, "VORLEN_CATEGORY=%s", r.category.empty() ? "default" : r.category.c_str(),
                    nullptr);
  }
};
#endif

std::shared_ptr<LogSink> automaticSink() {
#ifdef VORLEN_HAVE_SYSTEMD
  if (std::getenv("JOURNAL_STREAM") && std::getenv("INVOCATION_ID")) return std::make_shared<JournalSink>();
#endif
  return std::make_shared<StderrSink>();
}

bool privateFromEnvironment() {
  const char* v = std::getenv("VORLEND_LOG_PRIVATE");
  return v && std::strcmp(v, "1") == 0;
}

struct LogState {
  std::mutex mu;
  std::shared_ptr<LogSink> sink = automaticSink();
  std::atomic<int> threshold{static_cast<int>(levelFromEnvironment())};
  std::atomic<bool> privateData{privateFromEnvironment()};
};

LogState& state() {
  static LogState* s = new LogState;  // never destroyed: logging stays valid during static teardown
  return *s;
}

}  // namespace

const char* logLevelName(LogLevel level) {
  switch (level) {
    case LogLevel::Debug: return "debug";
    case LogLevel::Info: return "info";
    case LogLevel::Default: return "default";
    case LogLevel::Error: return "error";
    case LogLevel::Fault: return "fault";
  }
  return "?";
}

bool Logger::enabled(LogLevel level) {
  return static_cast<int>(level) >= state().threshold.load(std::memory_order_relaxed);
}

void Logger::write(LogLevel level, std::string_view message) const {
  if (!enabled(level)) return;
  std::shared_ptr<LogSink> sink;
  {
    std::lock_guard lock(state().mu);
    sink = state().sink;
  }
  sink->write(LogRecord{level, category_, std::string(message)});
}

const Logger& VorlenLogForCategory(unsigned category) {
  // Built at once on first use; the table is immutable afterwards and safe from any thread. Never
  // destroyed, like the log state: pool workers outlive static teardown and may still log.
  static const std::vector<Logger>* table = [] {
    auto* t = new std::vector<Logger>;
    for (const char* name : kCategoryNames) t->emplace_back(name);
    return t;
  }();
  if (category >= VorlenLoggingCategoryCount) {
    std::fprintf(stderr, "VorlenLogging:15: %s: Assertion `category < VorlenLoggingCategoryCount' failed.\n",
                 "VorlenLogForCategory");
    std::abort();
  }
  return (*table)[category];
}

const Logger& VorlenDefaultLog() {
  static const Logger* log = new Logger("");  // never destroyed, as the category table
  return *log;
}

std::shared_ptr<LogSink> Log::setSink(std::shared_ptr<LogSink> sink) {
  std::lock_guard lock(state().mu);
  auto previous = state().sink;
  state().sink = sink ? std::move(sink) : automaticSink();
  return previous;
}

void Log::setThreshold(LogLevel level) { state().threshold.store(static_cast<int>(level)); }
LogLevel Log::threshold() { return static_cast<LogLevel>(state().threshold.load()); }
void Log::setPrivateDataEnabled(bool enabled) { state().privateData.store(enabled, std::memory_order_relaxed); }
bool Log::privateDataEnabled() { return state().privateData.load(std::memory_order_relaxed); }

void CapturingSink::write(const LogRecord& record) {
  std::lock_guard lock(mu_);
  records_.push_back(record);
}

std::vector<LogRecord> CapturingSink::records() const {
  std::lock_guard lock(mu_);
  return records_;
}

bool CapturingSink::contains(std::string_view message) const { return count(message) > 0; }

bool CapturingSink::contains(LogLevel level, std::string_view category, std::string_view message) const {
  std::lock_guard lock(mu_);
  for (auto& r : records_)
    if (r.level == level && r.category == category && r.message == message) return true;
  return false;
}

size_t CapturingSink::count(std::string_view message) const {
  std::lock_guard lock(mu_);
  size_t n = 0;
  for (auto& r : records_) n += r.message == message;
  return n;
}

void CapturingSink::clear() {
  std::lock_guard lock(mu_);
  records_.clear();
}

ScopedLogCapture::ScopedLogCapture()
    : sink_(std::make_shared<CapturingSink>()), previous_(Log::setSink(sink_)), previousThreshold_(Log::threshold()) {
  Log::setThreshold(LogLevel::Debug);
}

ScopedLogCapture::~ScopedLogCapture() {
  Log::setThreshold(previousThreshold_);
  Log::setSink(previous_);
}

ScopedPrivateLogging::ScopedPrivateLogging(bool enabled) : previous_(Log::privateDataEnabled()) {
  Log::setPrivateDataEnabled(enabled);
}

ScopedPrivateLogging::~ScopedPrivateLogging() {
  Log::setPrivateDataEnabled(previous_);
}

void VORTracingSetup(const Preferences& defaults) {
  static std::once_flag once;
  std::call_once(once, [&] { VORTraceEnabled.store(defaults.boolForKey("TraceEnabled")); });
  VorlenDefaultLog().debug("VORTraceEnabled flag set to {}", VORTraceEnabled.load() ? 1 : 0);
}

}  // namespace vorlen
