// LogRepeatFilter: keeps one source (a client connection) from filling the log with one line. The first
// time a message is given it is written; afterwards the same message is only counted, and flush() writes
// "<message> (repeated N more times)" once for each message that came again. At most kMaxMessages
// distinct messages are tracked; messages beyond them are counted together and reported as one line.
//
// Threading: every method is safe from any thread.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "base/Log.h"

namespace vorlen {

class LogRepeatFilter {
 public:
  static constexpr size_t kMaxMessages = 16;

  // Writes `message` on `logger` at `level` unless it was written before.
  void log(const Logger& logger, LogLevel level, std::string message);
  // Writes the repeat counts and forgets them.
  void flush();
  ~LogRepeatFilter() { flush(); }

 private:
  struct Seen {
    const Logger* logger;
    LogLevel level;
    std::string message;
    size_t repeats = 0;
  };
  std::mutex mu_;
  std::vector<Seen> seen_;
  size_t untracked_ = 0;
};

}  // namespace vorlen
