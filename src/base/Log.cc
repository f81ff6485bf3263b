#include "base/Log.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/Preferences.h"

#include <sys/uio.h>
#include <syslog.h>

#ifdef VORLEN_HAVE_SYSTEMD
#include <systemd/sd-journal.h>
#endif

namespace vorlen {

std::atomic<bool> VORTraceEnabled{false};

namespace {

const char* const kCategoryNames[VorlenLoggingCategoryCount] = {
    "Vorlen",
    "Vorlen_Feedback",
    "Vorlen_Session",
    "Vorlen_Request",
    "Vorlen_Flusher",
    "Vorlen_Search",
    "Vorlen_ZeroKeyword",
    "Vorlen_MoreResults",
    "Vorlen_Card",
    "Vorlen_LookUp",
    "Vorlen_Flight",
    "Vorlen_Images",
    "Vorlen_Connection",
    "Vorlen_DownloadManager",
    "Vorlen_Bag",
    "Vorlen_Subscription",
    "Vorlen_Caching",
    "Vorlen_Feedback_Errors",
    "Vorlen_Feedback_Storage",
    "Vorlen_Protocol",
    "Vorlen_UploadManager",
};

// The threshold named by VORLEND_LOG_LEVEL; info when it is unset or unknown. An unknown name is left in
// *unknown, to be reported once the log can write.
LogLevel levelFromEnvironment(std::string* unknown) {
  const char* v = std::getenv("VORLEND_LOG_LEVEL");
  if (!v) return LogLevel::Info;
  static const std::pair<const char*, LogLevel> names[] = {{"debug", LogLevel::Debug},
                                                           {"info", LogLevel::Info},
                                                           {"default", LogLevel::Default},
                                                           {"error", LogLevel::Error},
                                                           {"fault", LogLevel::Fault}};
  for (auto& [n, l] : names)
    if (strcasecmp(v, n) == 0) return l;
  *unknown = v;
  return LogLevel::Info;
}

// "2026-01-02T03:04:05.678Z": UTC with milliseconds, so that lines of several processes sort together.
std::string utcTimestamp() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  tm parts{};
  ::gmtime_r(&now.tv_sec, &parts);
  char text[40];
  size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  return fmt::format("{}.{:03d}Z", std::string_view(text, n), static_cast<int>(now.tv_nsec / 1000000));
}

// Line breaks and other control characters written as escapes, so that one message stays one line.
void appendEscaped(std::string& out, std::string_view message) {
  for (char c : message) {
    unsigned char u = static_cast<unsigned char>(c);
    if (c == '\n')
      out += "\\n";
    else if (c == '\r')
      out += "\\r";
    else if (u < 0x20 && c != '\t')
      out += fmt::format("\\x{:02x}", u);
    else
      out += c;
  }
}

// One line per message: "<UTC time> vorlend[<pid>] <<level>> <category>: <message>".
class StderrSink final : public LogSink {
 public:
  void write(const LogRecord& r) override {
    std::string line =
        fmt::format("{} vorlend[{}] <{}> {}{}", utcTimestamp(), ::getpid(), logLevelName(r.level),
                    r.category.empty() ? "" : r.category, r.category.empty() ? "" : ": ");
    appendEscaped(line, r.message);
    line += '\n';
    // One write per line so that lines of concurrent threads never interleave.
    ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
    (void)ignored;
  }
};

#ifdef VORLEN_HAVE_SYSTEMD
class JournalSink final : public LogSink {
 public:
  void write(const LogRecord& r) override {
    std::vector<std::string> fields = journalFields(r);
    std::vector<iovec> iov(fields.size());
    for (size_t i = 0; i < fields.size(); ++i) iov[i] = iovec{fields[i].data(), fields[i].size()};
    sd_journal_sendv(iov.data(), static_cast<int>(iov.size()));
  }
};
#endif

}  // namespace

std::vector<std::string> journalFields(const LogRecord& r) {
  static const int priorities[] = {LOG_DEBUG, LOG_INFO, LOG_NOTICE, LOG_ERR, LOG_CRIT};
  return {"MESSAGE=" + r.message, fmt::format("PRIORITY={}", priorities[static_cast<int>(r.level)]),
          fmt::format("SYSLOG_IDENTIFIER={}", program_invocation_short_name),
          fmt::format("VORLEN_SUBSYSTEM={}", kLogSubsystem),
          "VORLEN_CATEGORY=" + (r.category.empty() ? std::string("default") : r.category)};
}

namespace {

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
  std::string unknownLevel;
  std::mutex mu;
  std::shared_ptr<LogSink> sink = automaticSink();
  std::atomic<int> threshold{static_cast<int>(levelFromEnvironment(&unknownLevel))};
  std::atomic<bool> privateData{privateFromEnvironment()};
};

LogState& state() {
  // Never destroyed: logging stays valid during static teardown. Built once per process, so a bad
  // VORLEND_LOG_LEVEL is reported once, whatever the threshold.
  static LogState* s = [] {
    auto* built = new LogState;
    if (!built->unknownLevel.empty()) {
      built->sink->write(LogRecord{LogLevel::Error, "",
                                   fmt::format("unknown VORLEND_LOG_LEVEL \"{}\", using info (debug, info, "
                                               "default, error or fault)",
                                               built->unknownLevel)});
    }
    return built;
  }();
  return *s;
}

}  // namespace

const char* logLevelName(LogLevel level) {
  switch (level) {
    case LogLevel::Debug:
      return "debug";
    case LogLevel::Info:
      return "info";
    case LogLevel::Default:
      return "default";
    case LogLevel::Error:
      return "error";
    case LogLevel::Fault:
      return "fault";
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

void Log::setThreshold(LogLevel level) {
  state().threshold.store(static_cast<int>(level));
}
LogLevel Log::threshold() {
  return static_cast<LogLevel>(state().threshold.load());
}
void Log::setPrivateDataEnabled(bool enabled) {
  state().privateData.store(enabled, std::memory_order_relaxed);
}
bool Log::privateDataEnabled() {
  return state().privateData.load(std::memory_order_relaxed);
}

void CapturingSink::write(const LogRecord& record) {
  std::lock_guard lock(mu_);
  records_.push_back(record);
}

std::vector<LogRecord> CapturingSink::records() const {
  std::lock_guard lock(mu_);
  return records_;
}

bool CapturingSink::contains(std::string_view message) const {
  return count(message) > 0;
}

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
    : sink_(std::make_shared<CapturingSink>()),
      previous_(Log::setSink(sink_)),
      previousThreshold_(Log::threshold()) {
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
