#include "base/Trace.h"

#include <sys/sdt.h>

#include "base/Log.h"

namespace vorlen {

void VorlenTraceEvent(uint32_t code) {
  if (!VORTraceEnabled.load(std::memory_order_relaxed)) return;
  DTRACE_PROBE1(vorlend, trace, code);
}

}  // namespace vorlen
