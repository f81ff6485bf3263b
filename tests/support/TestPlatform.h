// platformForTesting: the platform bundle of tests and benchmarks: the fakes of PlatformFakes.h below a
// private root folder, the given clock, in-memory counters, the Linux file layer, an in-process activity
// scheduler on that clock with every device condition met, and a real data-detector store under the caches
// folder. The installed applications, subscription registry and media store stay null; tests that need
// them set fakes. No change monitor runs.
//
// Threading: call from one thread; the bundle is then read-only like any Platform.
#pragma once

#include <filesystem>
#include <memory>

#include "base/Clock.h"
#include "platform/Platform.h"

namespace vorlen::test {

// The folders below `root` are created.
Platform platformForTesting(const std::filesystem::path& root, std::shared_ptr<Clock> clock);

}  // namespace vorlen::test
