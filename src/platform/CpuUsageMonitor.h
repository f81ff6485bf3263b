// CpuUsageMonitor: the process's CPU-usage allowance. Background work raises it for a while and restores
// the defaults afterwards. This platform has no per-process CPU monitor that would end a busy process, so
// the allowance is only logged (debug): what matters is that callers pair every raise with a restore.
//
// Threading: every function is safe from any thread.
#pragma once

namespace vorlen {

class CpuUsageMonitor {
 public:
  // Allows `percent` of one core averaged over `seconds`.
  static void setLimit(int percent, int seconds);
  static void restoreDefaults();
};

}  // namespace vorlen
