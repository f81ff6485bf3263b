// The in-process background activity scheduler on a manual clock: due times, repeats, the accepted state
// transitions, device conditions with a grace period, check-in; and the Linux power-supply reading.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "base/ManualClock.h"
#include "platform/DevicePowerState.h"
#include "platform/InProcessActivityScheduler.h"
#include "support/TempDir.h"

namespace vorlen {
namespace {

using Activity = std::shared_ptr<BackgroundActivity>;

class ActivitySchedulerTest : public ::testing::Test {
 protected:
  void make(InProcessActivityScheduler::Probes probes = {}) {
    scheduler = InProcessActivityScheduler::create(clock, std::move(probes));
  }
  // Registers `id` with the criteria; every run records its time (seconds since the start) and, when
  // `keepRunning`, asks to continue and keeps the activity for the test.
  void add(const std::string& id, Value::Dict criteria, bool keepRunning = false) {
    scheduler->registerActivity(id, std::move(criteria), [this, keepRunning](const Activity& a) {
      std::lock_guard lock(mu);
      runs.push_back(toSeconds(clock->now() - start));
      last = a;
      if (keepRunning) {
        EXPECT_TRUE(scheduler->setState(a, kActivityStateContinue));
      }
    });
  }
  std::vector<double> runTimes() {
    std::lock_guard lock(mu);
    return runs;
  }
  void advanceTo(double s) { clock->set(start + seconds(s)); }

  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  const Time start = clock->now();
  std::shared_ptr<InProcessActivityScheduler> scheduler;
  std::mutex mu;
  std::vector<double> runs;
  Activity last;
};

Value::Dict flushCriteria() {
  return {{kActivityDelay, Value(300)},
          {kActivityRepeating, Value(true)},
          {kActivityInterval, Value(600)},
          {kActivityGracePeriod, Value(300)},
          {kActivityAllowBattery, Value(true)}};
}

TEST_F(ActivitySchedulerTest, RepeatingActivityRunsAfterItsDelayThenEveryIntervalAndAlongPeriodSkipsRuns) {
  make();
  add("flush", flushCriteria());
  advanceTo(299);
  EXPECT_TRUE(runTimes().empty());
  advanceTo(1500);
  EXPECT_EQ(runTimes(), (std::vector<double>{300, 900, 1500}));

  // A period that goes on (continue) past its next due time: that run is skipped, not queued.
  scheduler->unregisterActivity("flush");
  add("long", flushCriteria(), /*keepRunning=*/true);  // re-registered at 1500: due at 1800
  runs.clear();
  advanceTo(2500);
  EXPECT_EQ(runTimes(), (std::vector<double>{1800}));
  EXPECT_EQ(scheduler->getState(last), kActivityStateContinue);
  EXPECT_TRUE(scheduler->setState(last, kActivityStateDone));  // at 2500: next due 3000
  EXPECT_EQ(scheduler->getState(last), kActivityStateWait);
  advanceTo(3000);
  EXPECT_EQ(runTimes(), (std::vector<double>{1800, 3000}));
}

TEST_F(ActivitySchedulerTest, OnlyRunAndContinueMayMoveOnAndStaleHandlesAreRefused) {
  make();
  add("once", {{kActivityDelay, Value(10)}}, /*keepRunning=*/true);
  advanceTo(10);
  ASSERT_TRUE(last);
  struct Step {
    int64_t to;
    bool accepted;
  };
  // From continue (the handler asked for it): continue again and run are refused; done ends it.
  for (Step s : {Step{kActivityStateContinue, false}, Step{kActivityStateRun, false},
                 Step{kActivityStateCheckIn, false}, Step{kActivityStateDone, true},
                 Step{kActivityStateDone, false}, Step{kActivityStateContinue, false}}) {
    SCOPED_TRACE(s.to);
    EXPECT_EQ(scheduler->setState(last, s.to), s.accepted);
  }
  EXPECT_EQ(scheduler->getState(last), kActivityStateDone);  // not repeating: stays done
  advanceTo(10000);
  EXPECT_EQ(runTimes().size(), 1u);

  // A handle of an earlier registration of the same name changes nothing.
  Activity old = last;
  add("once", {{kActivityDelay, Value(0)}}, /*keepRunning=*/true);
  advanceTo(10001);
  ASSERT_NE(last, old);
  EXPECT_FALSE(scheduler->setState(old, kActivityStateDone));
  EXPECT_EQ(scheduler->getState(last), kActivityStateContinue);
  // Unregistering cancels what is due and refuses the running period's later changes.
  add("gone", flushCriteria());
  scheduler->unregisterActivity("gone");
  scheduler->unregisterActivity("once");
  EXPECT_FALSE(scheduler->setState(last, kActivityStateDone));
  advanceTo(20000);
  EXPECT_EQ(runTimes().size(), 2u);
}

TEST_F(ActivitySchedulerTest, DeviceConditionsHoldRunsBackAndAGracePeriodSkipsToTheNextDueTime) {
  std::atomic<bool> battery{true}, asleep{false};
  make({[&] { return battery.load(); }, [&] { return asleep.load(); }});
  add("battery-ok", flushCriteria());
  add("no-battery", {{kActivityRepeating, Value(true)},
                     {kActivityInterval, Value(600)},
                     {kActivityGracePeriod, Value(120)}});
  add("screen", {{kActivityDelay, Value(0)},
                 {kActivityRequireScreenSleep, Value(true)},
                 {kActivityAllowBattery, Value(true)}});
  advanceTo(300);
  EXPECT_EQ(runTimes(), (std::vector<double>{300}));  // allowed on battery
  advanceTo(1100);  // "no-battery" due at 600, rechecked every 60 s, skipped at 720: next due 1200
  EXPECT_EQ(runTimes(), (std::vector<double>{300, 900}));
  battery = false;
  advanceTo(1200);
  EXPECT_EQ(runTimes(), (std::vector<double>{300, 900, 1200}));
  // No grace period: the screen run waits as long as it takes, checked every minute.
  asleep = true;
  advanceTo(1260);
  EXPECT_EQ(runTimes(), (std::vector<double>{300, 900, 1200, 1260}));
}

TEST_F(ActivitySchedulerTest, ATimeScaleShortensEverySpan) {
  scheduler = InProcessActivityScheduler::create(clock, {}, 60);
  add("flush", flushCriteria());
  advanceTo(25);
  EXPECT_EQ(runTimes(), (std::vector<double>{5, 15, 25}));
}

TEST_F(ActivitySchedulerTest, CheckInOnlyRegistrationWaitsForTheCriteriaItsHandlerGives) {
  make();
  std::atomic<int> checkIns{0};
  std::atomic<int> runsSeen{0};
  scheduler->registerActivity("task", std::nullopt, [&](const Activity& a) {
    if (scheduler->getState(a) == kActivityStateCheckIn) {
      ++checkIns;
      EXPECT_TRUE(
          scheduler->setCriteria(a, {{kActivityRepeating, Value(true)}, {kActivityInterval, Value(100)}}));
    } else {
      ++runsSeen;
    }
  });
  scheduler->queue()->sync([] {});  // the check-in call has run
  EXPECT_EQ(checkIns, 1);
  advanceTo(99);
  EXPECT_EQ(runsSeen, 0);
  advanceTo(300);
  EXPECT_EQ(runsSeen, 3);
  EXPECT_EQ(checkIns, 1);
}

TEST(DevicePowerStateTest, BatteryCountsOnlyWhenDischargingWithoutAnOnlineSupply) {
  struct Supply {
    const char* name;
    const char* type;
    const char* file;
    const char* value;
  };
  struct Case {
    const char* name;
    std::vector<Supply> supplies;
    bool onBattery;
  };
  const Case cases[] = {
      {"no supplies", {}, false},
      {"battery discharging", {{"BAT0", "Battery", "status", "Discharging"}}, true},
      {"battery charging", {{"BAT0", "Battery", "status", "Charging"}}, false},
      {"mains online", {{"BAT0", "Battery", "status", "Discharging"}, {"AC", "Mains", "online", "1"}}, false},
      {"mains offline", {{"BAT0", "Battery", "status", "Discharging"}, {"AC", "Mains", "online", "0"}}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    test::TempDir dir;
    for (const Supply& s : c.supplies) {
      std::filesystem::create_directories(dir / s.name);
      test::writeFile(dir / s.name / "type", std::string(s.type) + "\n");
      test::writeFile(dir / s.name / s.file, std::string(s.value) + "\n");
    }
    EXPECT_EQ(DevicePowerState(dir.path()).onBattery(), c.onBattery);
  }
  EXPECT_FALSE(DevicePowerState("/nonexistent/power_supply").onBattery());
}

}  // namespace
}  // namespace vorlen
