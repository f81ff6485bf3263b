#include "platform/PlatformChangeMonitor.h"

#include <gtest/gtest.h>

#include <atomic>

#include "base/ManualClock.h"
#include "support/WaitCounter.h"

namespace vorlen {
namespace {

// Rounds come every kInterval of the monitor's clock and on checkNow(), each running every check once on
// the monitor's own queue; stop() ends the period but not an explicit check. A checkNow() round is queued
// behind any round the clock queued before it, so counting up to it shows there was no other.
TEST(PlatformChangeMonitorTest, ChecksRunEachIntervalAndOnDemandUntilStopped) {
  auto clock = std::make_shared<ManualClock>();
  test::WaitCounter first, second;
  std::atomic<bool> interleaved{false};
  std::shared_ptr<PlatformChangeMonitor> monitor;
  monitor = PlatformChangeMonitor::create(clock, {[&] { first.add(); },
                                                  [&] {
                                                    interleaved =
                                                        interleaved || first.value() != second.value() + 1;
                                                    second.add();
                                                  }});
  auto roundsAfter = [&](int expected) {
    monitor->checkNow();
    EXPECT_TRUE(second.waitFor(expected));
    EXPECT_EQ(first.value(), expected);
    EXPECT_EQ(second.value(), expected);
  };

  monitor->start();
  monitor->start();  // idempotent: one period
  clock->advance(PlatformChangeMonitor::kInterval - std::chrono::milliseconds(1));
  roundsAfter(1);  // only the explicit one
  clock->advance(std::chrono::milliseconds(1));
  roundsAfter(3);
  clock->advance(2 * PlatformChangeMonitor::kInterval);
  roundsAfter(6);

  monitor->stop();
  clock->advance(10 * PlatformChangeMonitor::kInterval);
  roundsAfter(7);
  EXPECT_FALSE(interleaved);  // never two rounds at a time
}

}  // namespace
}  // namespace vorlen
