// Pieces every benchmark shares.
#pragma once

#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>

#include "base/Log.h"

namespace vorlen::bench {

// Drops every log line: messages are still formatted as in production (the threshold is unchanged), but
// no log I/O enters a figure.
class DiscardingSink final : public LogSink {
 public:
  void write(const LogRecord&) override {}
};

// A "Name:   N kB" field of /proc/self/status in KiB (VmRSS, VmHWM, ...); 0 when absent. Writing "5" to
// /proc/self/clear_refs first resets VmHWM to the current resident size, so VmHWM after some work less
// VmRSS before it is the peak extra memory of that work.
inline int64_t statusKib(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(field, 0) == 0) return std::stoll(line.substr(std::strlen(field)));
  }
  return 0;
}

// Resets the peak (VmHWM) to the current resident size and returns that size in KiB: the start of a
// peak-extra-memory measurement, ended by statusKib("VmHWM:") less this.
inline int64_t resetPeakRssKib() {
  std::ofstream("/proc/self/clear_refs") << "5";
  return statusKib("VmRSS:");
}

}  // namespace vorlen::bench
