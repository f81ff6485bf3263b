#include "base/LogRepeatFilter.h"

#include <utility>

#include <fmt/format.h>

namespace vorlen {

void LogRepeatFilter::log(const Logger& logger, LogLevel level, std::string message) {
  if (!Logger::enabled(level)) return;
  {
    std::lock_guard lock(mu_);
    for (Seen& s : seen_) {
      if (s.logger == &logger && s.level == level && s.message == message) {
        ++s.repeats;
        return;
      }
    }
    if (seen_.size() >= kMaxMessages) {
      ++untracked_;
      return;
    }
    seen_.push_back(Seen{&logger, level, message});
  }
  logger.write(level, message);
}

void LogRepeatFilter::flush() {
  std::vector<Seen> seen;
  size_t untracked;
  {
    std::lock_guard lock(mu_);
    seen = std::move(seen_);
    seen_.clear();
    untracked = std::exchange(untracked_, 0);
  }
  for (const Seen& s : seen) {
    if (s.repeats > 0)
      s.logger->write(s.level, fmt::format("{} (repeated {} more times)", s.message, s.repeats));
  }
  if (untracked > 0 && !seen.empty()) {
    seen.front().logger->write(seen.front().level,
                               fmt::format("{} more lines of other kinds were not written", untracked));
  }
}

}  // namespace vorlen
