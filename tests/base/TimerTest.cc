#include "base/Timer.h"

#include <gtest/gtest.h>

#include <vector>

#include "base/ManualClock.h"

namespace vorlen {
namespace {

struct TimerTest : ::testing::Test {
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  std::shared_ptr<Queue> queue = Queue::serial("test.timer");
  int fired = 0;
  std::shared_ptr<Timer> timer = Timer::create(clock, queue, [this] {
    EXPECT_TRUE(queue->isCurrent());
    ++fired;
  });
};

TEST_F(TimerTest, ReArmingReplacesTheEarlierDeadline) {
  EXPECT_FALSE(timer->isArmed());
  timer->arm(seconds(10));
  uint64_t first = timer->generation();
  timer->arm(seconds(30));
  EXPECT_GT(timer->generation(), first);
  EXPECT_TRUE(timer->isArmed());
  clock->advance(seconds(20));
  EXPECT_EQ(fired, 0);
  clock->advance(seconds(10));
  EXPECT_EQ(fired, 1);
  EXPECT_FALSE(timer->isArmed());
  clock->advance(seconds(100));
  EXPECT_EQ(fired, 1);  // one-shot
}

TEST_F(TimerTest, CancelPreventsFiringAndTheTimerCanBeArmedAgain) {
  timer->arm(seconds(10));
  timer->cancel();
  EXPECT_FALSE(timer->isArmed());
  clock->advance(seconds(20));
  EXPECT_EQ(fired, 0);
  timer->arm(seconds(5));
  clock->advance(seconds(5));
  EXPECT_EQ(fired, 1);
}

TEST_F(TimerTest, AHandlerMayReArmItsOwnTimer) {
  std::vector<double> at;
  Time start = clock->now();
  std::shared_ptr<Timer> periodic;
  periodic = Timer::create(clock, queue, [&] {
    at.push_back(toSeconds(clock->now() - start));
    periodic->arm(seconds(10));
  });
  periodic->arm(seconds(10));
  clock->advance(seconds(35));
  EXPECT_EQ(at, (std::vector<double>{10, 20, 30}));
  EXPECT_TRUE(periodic->isArmed());
}

TEST_F(TimerTest, ADroppedTimerOrAGoneOwnerMeansNoCall) {
  timer->arm(seconds(10));
  timer.reset();
  clock->advance(seconds(10));
  EXPECT_EQ(fired, 0);

  struct Owner {
    int id = 7;
  };
  auto owner = std::make_shared<Owner>();
  std::vector<int> calls;
  auto weakTimer = Timer::weak(clock, queue, owner, [&](Owner& o) { calls.push_back(o.id); });
  weakTimer->arm(seconds(1));
  clock->advance(seconds(1));
  EXPECT_EQ(calls, std::vector<int>{7});  // the handler receives the live owner

  std::weak_ptr<Owner> watch = owner;
  weakTimer->arm(seconds(1));
  owner.reset();
  EXPECT_TRUE(watch.expired());  // the timer does not keep its owner alive
  clock->advance(seconds(1));
  EXPECT_EQ(calls.size(), 1u);
}

// A clock whose calls cannot be cancelled: every scheduled work is kept, so a test can deliver a firing
// that arrives after the timer was re-armed or cancelled, as a real clock may when it has already started.
class UncancellableClock final : public Clock {
 public:
  struct Call final : ScheduledCall {
    void cancel() override {}
  };
  Time now() const override { return Time(); }
  std::shared_ptr<ScheduledCall> schedule(Time, std::shared_ptr<Queue>, std::function<void()> work) override {
    works.push_back(std::move(work));
    return std::make_shared<Call>();
  }
  std::vector<std::function<void()>> works;
};

TEST(TimerGenerationTest, FiringsOfAStaleGenerationAreIgnored) {
  auto clock = std::make_shared<UncancellableClock>();
  int fired = 0;
  auto timer = Timer::create(clock, nullptr, [&] { ++fired; });
  timer->arm(seconds(1));
  timer->arm(seconds(2));
  ASSERT_EQ(clock->works.size(), 2u);
  clock->works[0]();  // the replaced arming
  EXPECT_EQ(fired, 0);
  EXPECT_TRUE(timer->isArmed());
  clock->works[1]();
  EXPECT_EQ(fired, 1);
  clock->works[1]();  // the same firing delivered twice
  EXPECT_EQ(fired, 1);

  timer->arm(seconds(1));
  timer->cancel();
  clock->works[2]();  // a firing that arrives after cancel()
  EXPECT_EQ(fired, 1);
}

}  // namespace
}  // namespace vorlen
