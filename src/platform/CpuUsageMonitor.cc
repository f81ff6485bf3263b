#include "platform/CpuUsageMonitor.h"

#include "base/Log.h"

namespace vorlen {

void CpuUsageMonitor::setLimit(int percent, int seconds) {
  VorlenDefaultLog().debug("CPU usage allowance raised to {}% over {} s", percent, seconds);
}

void CpuUsageMonitor::restoreDefaults() {
  VorlenDefaultLog().debug("CPU usage allowance back to its defaults");
}

}  // namespace vorlen
