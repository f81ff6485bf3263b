#include "base/Queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "base/ManualClock.h"
#include "base/SerialQueue.h"
#include "base/Timer.h"
#include "support/WaitCounter.h"

namespace vorlen {
namespace {

using test::WaitCounter;

std::shared_ptr<Queue> serialOn(const std::string& label, std::shared_ptr<WorkerPool> pool) {
  return Queue::serial(label, QueuePriority::Default, nullptr, std::move(pool));
}

TEST(QueueTest, SerialQueueKeepsEveryProducersOrderAndRunsOneItemAtATime) {
  auto q = Queue::serial("test.serial");
  constexpr int kProducers = 4, kItems = 400;
  std::vector<int> last(kProducers, -1);  // element p is written by producer p's items only
  std::atomic<int> inside{0}, violations{0};
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kItems; ++i) {
        auto item = [&, p, i] {
          if (inside.fetch_add(1) != 0) ++violations;
          if (last[p] != i - 1) ++violations;  // an earlier item of this producer was skipped or is late
          last[p] = i;
          inside.fetch_sub(1);
        };
        if (i % 10 == 9) {
          q->sync(item);
          if (last[p] != i) ++violations;  // sync returned before its own work ran
        } else if (i % 10 == 4) {
          q->asyncOrRunHere(item);
        } else {
          q->async(item);
        }
      }
    });
  }
  for (auto& t : producers) t.join();
  q->sync([&] { EXPECT_EQ(last, std::vector<int>(kProducers, kItems - 1)); });
  EXPECT_EQ(violations.load(), 0);
}

// An idle queue runs the work on the calling thread before returning; a busy one takes it in line and the
// caller does not wait.
TEST(QueueTest, AsyncOrRunHereRunsOnTheCallerOnlyWhenTheQueueIsIdle) {
  auto q = Queue::serial("test.runhere");
  std::thread::id ranOn;
  bool wasCurrent = false;
  q->asyncOrRunHere([&] {
    ranOn = std::this_thread::get_id();
    wasCurrent = q->isCurrent();
  });
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_TRUE(wasCurrent);

  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  WaitCounter started;
  std::vector<int> order;
  q->async([&, released] {
    started.add();
    released.wait();
    order.push_back(1);
  });
  ASSERT_TRUE(started.waitFor(1));
  q->asyncOrRunHere([&] { order.push_back(2); });  // returns at once: the queue is busy
  EXPECT_TRUE(order.empty());
  release.set_value();
  q->sync([&] { EXPECT_EQ(order, (std::vector<int>{1, 2})); });
}

TEST(QueueTest, SyncCallersRunOnTheirOwnThreadWhenTheWorkerOrTheCallerBeforeThemHandsOver) {
  auto q = Queue::serial("test.sync");
  auto* serial = static_cast<SerialQueue*>(q.get());
  auto waitForPending = [serial](size_t n) {
    while (serial->pendingCountForTesting() < n) std::this_thread::yield();
  };
  std::thread::id ranOn;
  q->sync([&] { ranOn = std::this_thread::get_id(); });  // idle queue: taken at once
  EXPECT_EQ(ranOn, std::this_thread::get_id());

  std::vector<std::string> order;  // touched on q only
  // A worker is inside an item; the sync caller queues behind it and the next item.
  auto started = std::make_shared<WaitCounter>();
  std::promise<void> gate;
  q->async([&, started, opened = gate.get_future().share()] {
    started->add();
    opened.wait();
    order.push_back("gate");
  });
  ASSERT_TRUE(started->waitFor(1));
  q->async([&] { order.push_back("a"); });
  std::thread opener([&] {
    waitForPending(2);  // "a" and the sync caller's place in line
    gate.set_value();
  });
  q->sync([&] {
    order.push_back("sync");
    ranOn = std::this_thread::get_id();
  });
  opener.join();
  EXPECT_EQ(ranOn, std::this_thread::get_id());

  // Another thread holds the queue through sync; it hands over straight to the caller waiting next.
  auto holding = std::make_shared<WaitCounter>();
  std::thread holder([&] {
    q->sync([&] {
      holding->add();
      waitForPending(1);
      order.push_back("holder");
    });
  });
  ASSERT_TRUE(holding->waitFor(1));
  q->sync([&] { order.push_back("next"); });
  holder.join();
  q->async([&] { order.push_back("b"); });
  q->sync([] {});
  EXPECT_EQ(order, (std::vector<std::string>{"gate", "a", "sync", "holder", "next", "b"}));
}

TEST(QueueTest, SyncChainsDeeperThanThePoolNeverDeadlock) {
  auto pool = std::make_shared<WorkerPool>(2);
  std::vector<std::shared_ptr<Queue>> qs;
  for (int i = 0; i < 6; ++i) qs.push_back(serialOn("test.chain." + std::to_string(i), pool));
  auto filler = std::make_shared<WaitCounter>(), chains = std::make_shared<WaitCounter>();
  std::atomic<int> wrongCurrent{0};
  // Runs a sync chain from qs[first] through the last queue; the innermost work checks which are current.
  std::function<void(size_t, size_t)> chain = [&](size_t first, size_t next) {
    if (next == qs.size()) {
      for (size_t i = 0; i < qs.size(); ++i) {
        if (qs[i]->isCurrent() != (i >= first)) ++wrongCurrent;
      }
      chains->add();
      return;
    }
    qs[next]->sync([&, first, next] { chain(first, next + 1); });
  };
  constexpr int kRounds = 20;
  for (int r = 0; r < kRounds; ++r) {
    for (auto& q : qs) q->async([filler] { filler->add(); });
    // Two chains at once on the two workers, plus the filler queued everywhere.
    qs[0]->async([&] { chain(0, 1); });
    qs[1]->async([&] { chain(1, 2); });
  }
  ASSERT_TRUE(chains->waitFor(2 * kRounds));
  ASSERT_TRUE(filler->waitFor(6 * kRounds));
  for (auto& q : qs) q->sync([] {});
  EXPECT_EQ(wrongCurrent.load(), 0);
}

TEST(QueueTest, SyncCallersDrainABusyQueueThemselvesWhenEveryWorkerIsWaiting) {
  auto pool = std::make_shared<WorkerPool>(2);
  auto a = serialOn("test.a", pool), b = serialOn("test.b", pool);
  auto c = serialOn("test.c", pool), d = serialOn("test.d", pool);
  auto started = std::make_shared<WaitCounter>(), done = std::make_shared<WaitCounter>();
  std::promise<void> go;
  std::shared_future<void> goSeen = go.get_future().share();
  std::vector<std::string> cOrder, dOrder;  // touched on c and d only
  a->async([&, started, done, goSeen] {
    started->add();
    goSeen.wait();
    c->sync([&] { cOrder.push_back("sync"); });
    done->add();
  });
  b->async([&, started, done, goSeen] {
    started->add();
    goSeen.wait();
    d->sync([&] { dOrder.push_back("sync"); });
    done->add();
  });
  ASSERT_TRUE(started->waitFor(2));  // both workers are held now
  // These drain jobs wait in the pool with no free worker; the sync callers must run them.
  c->async([&] { cOrder.push_back("item"); });
  d->async([&] { dOrder.push_back("item"); });
  go.set_value();
  ASSERT_TRUE(done->waitFor(2));
  c->sync([&] { EXPECT_EQ(cOrder, (std::vector<std::string>{"item", "sync"})); });
  d->sync([&] { EXPECT_EQ(dOrder, (std::vector<std::string>{"item", "sync"})); });
}

// A thread waiting in runUntil() runs the queue's items itself: with the pool's only worker held, the
// waiter still sees the items it waits for, in order, on its own thread; items that come after it left
// go to the pool again.
TEST(QueueTest, RunUntilRunsTheItemsItWaitsForOnTheWaitingThread) {
  auto pool = std::make_shared<WorkerPool>(1);
  auto blocker = serialOn("test.blocker", pool), q = serialOn("test.helped", pool);
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  auto started = std::make_shared<WaitCounter>();
  blocker->async([started, released] {
    started->add();
    released.wait();
  });
  ASSERT_TRUE(started->waitFor(1));  // the pool's only worker is held from now on

  std::atomic<bool> done{false};
  std::vector<std::thread::id> ranOn;  // touched on q only
  std::vector<int> order;
  auto waiter = std::async(std::launch::async, [&] {
    q->runUntil([&] { return done.load(); });
    return std::this_thread::get_id();
  });
  std::thread producer([&] {
    for (int i = 0; i < 3; ++i) {
      q->async([&, i] {
        order.push_back(i);
        ranOn.push_back(std::this_thread::get_id());
        if (i == 2) done = true;
      });
    }
  });
  producer.join();
  ASSERT_EQ(waiter.wait_for(std::chrono::seconds(30)), std::future_status::ready)
      << "the waiter was never helped";
  const std::thread::id waiterThread = waiter.get();
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(ranOn, std::vector<std::thread::id>(3, waiterThread));

  // Nobody waits any more: a new item needs the pool, which runs it once its worker is free.
  auto later = std::make_shared<WaitCounter>();
  q->async([later] { later->add(); });
  release.set_value();
  EXPECT_TRUE(later->waitFor(1));
}

// A waiter on a concurrent queue runs nothing itself: the pool's items wake it as they finish.
TEST(QueueTest, RunUntilOnAConcurrentQueueWaitsForThePoolsItems) {
  auto c = Queue::concurrent("test.concurrent.wait");
  std::atomic<int> ran{0};
  for (int i = 0; i < 4; ++i) c->async([&] { ++ran; });
  c->runUntil([&] { return ran.load() == 4; });
  EXPECT_EQ(ran.load(), 4);
}

TEST(QueueTest, ABusyQueueYieldsItsWorkerToOtherQueuesNowAndThen) {
  auto pool = std::make_shared<WorkerPool>(1);
  auto busy = serialOn("test.busy", pool), other = serialOn("test.other", pool);
  auto done = std::make_shared<WaitCounter>();
  std::mutex mu;
  std::vector<std::string> order;
  auto record = [&, done](std::string name) {
    return [&, done, name] {
      {
        std::lock_guard lock(mu);
        order.push_back(name);
      }
      done->add();
    };
  };
  std::promise<void> gate;
  busy->async([opened = gate.get_future().share()] { opened.wait(); });  // holds the only worker
  constexpr int kBusyItems = 200;
  for (int i = 0; i < kBusyItems; ++i) busy->async(record("busy"));
  other->async(record("other"));
  gate.set_value();
  ASSERT_TRUE(done->waitFor(kBusyItems + 1));
  std::lock_guard lock(mu);
  auto otherAt = std::find(order.begin(), order.end(), "other") - order.begin();
  EXPECT_LT(otherAt, kBusyItems);  // it did not wait for the whole backlog of the busy queue
}

TEST(QueueTest, IsCurrentOnlyWhileTheQueuesWorkRunsIncludingOuterQueuesOfASyncChain) {
  auto a = Queue::serial("test.a"), b = Queue::serial("test.b");
  auto c = Queue::concurrent("test.c");
  EXPECT_FALSE(a->isCurrent());

  std::promise<std::vector<bool>> seenAsync;
  a->async([&] { seenAsync.set_value({a->isCurrent(), b->isCurrent()}); });
  EXPECT_EQ(seenAsync.get_future().get(), (std::vector<bool>{true, false}));
  std::promise<bool> seenConcurrent;
  c->async([&] { seenConcurrent.set_value(c->isCurrent() && !a->isCurrent()); });
  EXPECT_TRUE(seenConcurrent.get_future().get());

  std::vector<bool> seen;
  a->sync([&] {
    seen.push_back(a->isCurrent() && !b->isCurrent());
    b->sync([&] {
      seen.push_back(a->isCurrent() && b->isCurrent());
      c->sync([&] { c->sync([&] { seen.push_back(a->isCurrent() && b->isCurrent() && c->isCurrent()); }); });
      b->assertCurrent();
    });
    seen.push_back(a->isCurrent() && !b->isCurrent() && !c->isCurrent());
  });
  EXPECT_EQ(seen, std::vector<bool>(4, true));
  EXPECT_FALSE(a->isCurrent() || b->isCurrent() || c->isCurrent());
}

TEST(QueueDeathTest, SyncOntoAQueueThisThreadIsAlreadyRunningAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto a = Queue::serial("test.dead.a"), b = Queue::serial("test.dead.b");
  EXPECT_DEATH(a->sync([&] { a->sync([] {}); }), "test\\.dead\\.a");
  EXPECT_DEATH(a->sync([&] { b->sync([&] { a->sync([] {}); }); }), "test\\.dead\\.a");
  EXPECT_DEATH(
      {
        a->async([&] { a->sync([] {}); });
        WaitCounter never;
        never.waitFor(1, std::chrono::seconds(60));
      },
      "test\\.dead\\.a");
  EXPECT_DEATH(a->assertCurrent(), "test\\.dead\\.a");
}

TEST(QueueTest, ConcurrentQueuesRunItemsInParallel) {
  auto pool = std::make_shared<WorkerPool>(2);
  for (const auto& q : {Queue::concurrent("test.concurrent", QueuePriority::Default, nullptr, pool),
                        Queue::global(QueuePriority::Utility)}) {
    auto inside = std::make_shared<WaitCounter>(), met = std::make_shared<WaitCounter>();
    for (int i = 0; i < 2; ++i) {
      // Each item waits inside until the other one is inside too.
      q->async([inside, met] {
        inside->add();
        if (inside->waitFor(2, std::chrono::seconds(60))) met->add();
      });
    }
    EXPECT_TRUE(met->waitFor(2)) << q->label();
  }
  EXPECT_EQ(Queue::global(QueuePriority::Utility), Queue::global(QueuePriority::Utility));
  EXPECT_NE(Queue::global(QueuePriority::Utility), Queue::global(QueuePriority::Background));
  EXPECT_EQ(Queue::global(QueuePriority::Background)->priority(), QueuePriority::Background);
}

TEST(QueueTest, AfterRunsOnTheQueueOnceItsClockReachesTheDelay) {
  auto clock = std::make_shared<ManualClock>();
  auto q = Queue::serial("test.after", QueuePriority::Default, clock);
  Time start = clock->now();
  std::vector<double> fired;  // seconds after start; written on q by the advancing thread
  bool onQueue = false;
  q->after(seconds(10), [&] {
    fired.push_back(toSeconds(clock->now() - start));
    onQueue = q->isCurrent();
  });
  q->after(seconds(5), [&] { fired.push_back(toSeconds(clock->now() - start)); });
  clock->advance(seconds(9));
  EXPECT_EQ(fired, std::vector<double>{5.0});
  clock->advance(seconds(1));
  EXPECT_EQ(fired, (std::vector<double>{5.0, 10.0}));
  EXPECT_TRUE(onQueue);
}

// A clock that only reports its own end; it tells when the queue holding it has been destroyed.
class LifetimeClock final : public Clock {
 public:
  explicit LifetimeClock(std::shared_ptr<WaitCounter> gone) : gone_(std::move(gone)) {}
  ~LifetimeClock() override { gone_->add(); }
  Time now() const override { return Time(); }
  std::shared_ptr<ScheduledCall> schedule(Time, std::shared_ptr<Queue>, std::function<void()>) override {
    ADD_FAILURE() << "not used for timers";
    return nullptr;
  }

 private:
  std::shared_ptr<WaitCounter> gone_;
};

TEST(QueueTest, PendingWorkKeepsItsQueueAliveAndTheLastOwnerMayBeThePoolsOwnJob) {
  auto pool = std::make_shared<WorkerPool>(1);
  std::weak_ptr<WorkerPool> weakPool = pool;
  auto gone = std::make_shared<WaitCounter>(), ran = std::make_shared<WaitCounter>();
  auto q = Queue::serial("test.lastref", QueuePriority::Default, std::make_shared<LifetimeClock>(gone), pool);
  pool.reset();
  std::promise<void> gate;
  q->async([ran, opened = gate.get_future().share()] {
    opened.wait();
    ran->add();
  });
  q.reset();  // only the pending drain job owns the queue now, and the queue the pool
  EXPECT_EQ(gone->value(), 0);
  gate.set_value();
  ASSERT_TRUE(ran->waitFor(1));
  ASSERT_TRUE(gone->waitFor(1));  // the queue, and with it the pool, died on the pool's only worker
  EXPECT_TRUE(weakPool.expired());
}

TEST(QueueTest, StressOfSharedQueuesSyncChainsAndTimersFromManyThreads) {
  struct Shared {
    std::atomic<int> inA{0}, faults{0}, aRuns{0}, bRuns{0}, cRuns{0};
    WaitCounter timersRun, cDone;
  };
  auto s = std::make_shared<Shared>();
  auto a = Queue::serial("test.stress.a"), b = Queue::serial("test.stress.b");
  auto c = Queue::concurrent("test.stress.c");
  auto timer = Timer::create(Clock::system(), b, [s, onB = b.get()] {
    if (!onB->isCurrent()) ++s->faults;
  });
  auto onA = [s] {
    if (s->inA.fetch_add(1) != 0) ++s->faults;  // two items of a serial queue at once
    ++s->aRuns;
    s->inA.fetch_sub(1);
  };
  constexpr int kThreads = 4, kRounds = 200;
  std::atomic<int> expectA{0}, expectB{0}, expectC{0}, expectTimers{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int r = 0; r < kRounds; ++r) {
        switch ((r + t) % 5) {
          case 0:
            a->async(onA);
            ++expectA;
            break;
          case 1:  // chains always take a before b
            a->sync([&] {
              onA();
              b->sync([&] { ++s->bRuns; });
            });
            ++expectA;
            ++expectB;
            break;
          case 2:
            b->async([s] { ++s->bRuns; });
            c->async([s, c] {
              c->sync([s] {
                ++s->cRuns;
                s->cDone.add();
              });
            });
            ++expectB;
            ++expectC;
            break;
          case 3:
            a->after(std::chrono::microseconds(100 * (r % 3)), [s, onA] {
              onA();
              s->timersRun.add();
            });
            ++expectA;
            ++expectTimers;
            break;
          case 4:
            if (r % 2) {
              timer->arm(std::chrono::microseconds(50));
            } else {
              timer->cancel();
            }
            break;
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  timer->cancel();
  ASSERT_TRUE(s->timersRun.waitFor(expectTimers));
  ASSERT_TRUE(s->cDone.waitFor(expectC));
  a->sync([&] { EXPECT_EQ(s->aRuns.load(), expectA.load()); });
  b->sync([&] { EXPECT_EQ(s->bRuns.load(), expectB.load()); });
  EXPECT_EQ(s->cRuns.load(), expectC.load());
  EXPECT_EQ(s->faults.load(), 0);
  EXPECT_FALSE(timer->isArmed());
}

}  // namespace
}  // namespace vorlen
