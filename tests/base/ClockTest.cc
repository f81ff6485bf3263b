#include "base/Clock.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>
#include <vector>

#include "base/ManualClock.h"
#include "base/Queue.h"
#include "support/WaitCounter.h"

namespace vorlen {
namespace {

using test::WaitCounter;

TEST(ManualClockTest, FiresDueTimersInDeadlineOrderWithTiesInSchedulingOrder) {
  auto clock = std::make_shared<ManualClock>();
  auto q = Queue::serial("test.manual");
  Time start = clock->now();
  std::vector<std::string> order;
  std::vector<double> at;  // now() inside each firing, in seconds after start
  auto record = [&](std::string name) {
    return [&, name] {
      order.push_back(name);
      at.push_back(toSeconds(clock->now() - start));
      EXPECT_TRUE(q->isCurrent());
    };
  };
  clock->scheduleAfter(seconds(30), q, record("30"));
  clock->scheduleAfter(seconds(10), q, record("10"));
  clock->scheduleAfter(seconds(20), q, record("20a"));
  clock->scheduleAfter(seconds(20), q, record("20b"));
  clock->scheduleAfter(seconds(40), q, record("40"));
  clock->advance(seconds(30));
  EXPECT_EQ(order, (std::vector<std::string>{"10", "20a", "20b", "30"}));
  EXPECT_EQ(at, (std::vector<double>{10, 20, 20, 30}));
  EXPECT_EQ(clock->now(), start + seconds(30));
  EXPECT_EQ(clock->pendingCountForTesting(), 1u);

  clock->set(start + seconds(5));  // earlier than now: nothing moves
  EXPECT_EQ(clock->now(), start + seconds(30));
  clock->scheduleAfter(seconds(0), q, record("now"));
  clock->advance(seconds(0));  // already due: fires without time passing
  EXPECT_EQ(order.back(), "now");
  EXPECT_EQ(clock->pendingCountForTesting(), 1u);
}

TEST(ManualClockTest, WorkRunsOnTheAdvancingThreadAndItsOwnTimersFireWithinTheSpan) {
  auto clock = std::make_shared<ManualClock>();
  auto q = Queue::serial("test.manual");
  std::vector<int> fired;  // seconds since start
  Time start = clock->now();
  auto elapsed = [&] { return static_cast<int>(toSeconds(clock->now() - start)); };
  std::thread::id ranOn, nullQueueRanOn;
  // A periodic job: each firing schedules the next one 10 s after its own time.
  std::function<void()> tick = [&] {
    fired.push_back(elapsed());
    ranOn = std::this_thread::get_id();
    clock->scheduleAfter(seconds(10), q, tick);
  };
  clock->scheduleAfter(seconds(10), q, tick);
  clock->scheduleAfter(seconds(15), nullptr, [&] { nullQueueRanOn = std::this_thread::get_id(); });
  clock->advance(seconds(35));
  EXPECT_EQ(fired, (std::vector<int>{10, 20, 30}));
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_EQ(nullQueueRanOn, std::this_thread::get_id());
  EXPECT_EQ(clock->pendingCountForTesting(), 1u);  // the one at 40 s
}

TEST(ManualClockTest, CancelledCallsNeverRunEvenWhenCancelledByAnEarlierFiring) {
  auto clock = std::make_shared<ManualClock>();
  auto q = Queue::serial("test.manual");
  std::vector<std::string> order;
  auto later = clock->scheduleAfter(seconds(20), q, [&] { order.push_back("later"); });
  auto dropped = clock->scheduleAfter(seconds(5), q, [&] { order.push_back("dropped"); });
  clock->scheduleAfter(seconds(10), q, [&] {
    order.push_back("first");
    later->cancel();
  });
  dropped->cancel();
  EXPECT_EQ(clock->pendingCountForTesting(), 2u);
  clock->advance(seconds(30));
  EXPECT_EQ(order, std::vector<std::string>{"first"});
  EXPECT_EQ(clock->pendingCountForTesting(), 0u);
  later->cancel();  // after the fact: harmless
}

TEST(ClockTest, SystemClockWakesForANewEarliestDeadlineAndPostsInDeadlineOrder) {
  auto clock = Clock::system();
  auto q = Queue::serial("test.system");
  // The timer thread sleeps on a far deadline; a call due now must wake it. That call runs on the timer
  // thread itself (null queue) and holds it while the others are scheduled, so their order is decided by
  // their deadlines alone and not by how fast this thread schedules them.
  auto far = clock->scheduleAfter(std::chrono::hours(1), q, [] { ADD_FAILURE() << "cancelled"; });
  auto holding = std::make_shared<WaitCounter>();
  std::promise<void> release;
  clock->schedule(clock->now(), nullptr, [&, holding, released = release.get_future().share()] {
    holding->add(q->isCurrent() ? 2 : 1);
    released.wait();
  });
  ASSERT_TRUE(holding->waitFor(1));
  EXPECT_EQ(holding->value(), 1);  // a null queue runs the work on the timer thread, on no queue

  auto done = std::make_shared<WaitCounter>();
  std::vector<std::string> order;  // touched on q only
  auto record = [&, done](std::string name) {
    return [&, done, name] {
      order.push_back(name + (q->isCurrent() ? "" : " off the queue"));
      done->add();
    };
  };
  clock->scheduleAfter(std::chrono::milliseconds(30), q, record("30"));
  auto cancelled = clock->scheduleAfter(std::chrono::milliseconds(15), q, record("15"));
  clock->scheduleAfter(std::chrono::milliseconds(10), q, record("10"));
  clock->scheduleAfter(std::chrono::milliseconds(20), q, record("20"));
  clock->schedule(clock->now() - std::chrono::seconds(1), q, record("past"));
  cancelled->cancel();
  release.set_value();
  ASSERT_TRUE(done->waitFor(4));
  far->cancel();
  q->sync([&] { EXPECT_EQ(order, (std::vector<std::string>{"past", "10", "20", "30"})); });
}

TEST(ClockTest, SystemClockCancelWinsOverAFiringAlreadyPosted) {
  auto clock = Clock::system();
  auto q = Queue::serial("test.system.cancel");
  std::promise<void> gate;
  q->async([opened = gate.get_future().share()] { opened.wait(); });
  bool ran = false;
  auto call = clock->schedule(clock->now(), q, [&] { ran = true; });
  // Whether or not the timer thread has posted it behind the gate by now, cancel must stop it.
  std::promise<void> posted;
  clock->scheduleAfter(std::chrono::milliseconds(1), nullptr, [&] { posted.set_value(); });
  posted.get_future().wait();  // timers fire in order: the first one has been posted
  call->cancel();
  gate.set_value();
  q->sync([] {});
  EXPECT_FALSE(ran);
}

}  // namespace
}  // namespace vorlen
