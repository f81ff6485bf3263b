// Counters: the aggregate-counter service. Scalars by string key, kept in memory and persisted to a
// property-list file (counters.plist in the caches folder, mode 0600) at most every few seconds and at
// flush(), so `vorlenctl stats` and a restarted daemon see them.
//
// VorlenDiagnosticDataReporter is the facade every component uses; it forwards to the process's installed
// Counters (none installed: the calls do nothing).
//
// Threading: every method is safe from any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "base/Clock.h"

namespace vorlen {

class Counters {
 public:
  // The file name of the persisted counters in the caches folder.
  static constexpr const char* kFileName = "counters.plist";

  // `file` empty keeps counters in memory only. Existing values are loaded from `file`.
  Counters(std::filesystem::path file, std::shared_ptr<Clock> clock);
  ~Counters();  // writes pending changes

  void setValue(int64_t value, std::string_view key);
  void addValue(int64_t value, std::string_view key);
  void clear(std::string_view key);
  int64_t value(std::string_view key) const;  // 0 when absent
  std::map<std::string, int64_t> snapshot() const;

  // Writes now when something changed since the last write. Returns false on a write failure.
  bool flush();

  // Reads a persisted counters file (for tools); empty map when missing or unreadable.
  static std::map<std::string, int64_t> readFile(const std::filesystem::path& file);

  // The process-wide instance the facade forwards to.
  static void install(std::shared_ptr<Counters> counters);
  static std::shared_ptr<Counters> installed();

 private:
  void changedLocked();

  std::filesystem::path file_;
  std::shared_ptr<Clock> clock_;
  mutable std::mutex mu_;
  std::map<std::string, int64_t, std::less<>> values_;
  bool dirty_ = false;
  Time lastWrite_{};
};

class VorlenDiagnosticDataReporter {
 public:
  static void setValue(int64_t value, std::string_view key);
  static void addValue(int64_t value, std::string_view key);
  static void clearScalarKey(std::string_view key);
};

// "com.velmo.vorlend.<first>.<second>"
std::string createTallydKey(std::string_view first, std::string_view second);

}  // namespace vorlen
