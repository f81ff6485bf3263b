// Periodic tasks over a hand-driven scheduler: the period floor, the criteria given at check-in, a run
// that the scheduler extends or refuses to extend, and replacing and unregistering tasks.
#include <gtest/gtest.h>

#include "base/Log.h"
#include "storage/VorlenPeriodicTaskManager.h"
#include "support/FakeActivityScheduler.h"
#include "support/WaitCounter.h"

namespace vorlen {
namespace {

TEST(PeriodicTaskTest, PeriodHasAFloorOfFiveSecondsAndNameAndHandlerAreRequired) {
  for (auto [asked, kept] : {std::pair<uint64_t, uint64_t>{0, 5}, {4, 5}, {5, 5}, {43200, 43200}}) {
    auto task = VorlenPeriodicTask::taskWithName("t", asked, [] {});
    ASSERT_TRUE(task);
    EXPECT_EQ(task->periodSeconds(), kept);
    EXPECT_EQ(task->executionCriteria().at(kActivityInterval).getInt(), static_cast<int64_t>(kept));
  }
  EXPECT_FALSE(VorlenPeriodicTask::taskWithName("", 60, [] {}));
  EXPECT_FALSE(VorlenPeriodicTask::taskWithName("t", 60, nullptr));
}

class PeriodicTaskManagerTest : public ::testing::Test {
 protected:
  std::shared_ptr<VorlenPeriodicTask> registerCounting(const std::string& name) {
    auto task = VorlenPeriodicTask::taskWithName(name, 43200, [this] { handled.add(); });
    manager->registerTask(task);
    return task;
  }

  ScopedLogCapture capture;
  std::shared_ptr<test::FakeActivityScheduler> scheduler = std::make_shared<test::FakeActivityScheduler>();
  std::shared_ptr<VorlenPeriodicTaskManager> manager = VorlenPeriodicTaskManager::create(scheduler);
  test::WaitCounter handled;
};

TEST_F(PeriodicTaskManagerTest, ChecksInWithTheTaskCriteriaAndMarksAnExtendedRunDoneAfterTheHandler) {
  auto task = registerCounting("com.velmo.vorlend.dp.flush");
  EXPECT_TRUE(capture.sink().contains("Registered CTS task " + task->description()));
  EXPECT_FALSE(scheduler->criteria(task->name()));  // check-in only
  ASSERT_TRUE(scheduler->checkIn(task->name()));
  EXPECT_TRUE(capture.sink().contains("Checking-in activity com.velmo.vorlend.dp.flush"));
  EXPECT_EQ(scheduler->criteria(task->name()), task->executionCriteria());

  ASSERT_TRUE(scheduler->run(task->name()));
  EXPECT_TRUE(capture.sink().contains("Running activity com.velmo.vorlend.dp.flush, extended=1"));
  ASSERT_TRUE(handled.waitFor(1));
  task->queue()->sync([] {});
  EXPECT_TRUE(capture.sink().contains("Done running activity com.velmo.vorlend.dp.flush, extended=1"));
  using R = std::vector<std::pair<int64_t, bool>>;
  EXPECT_EQ(scheduler->requests(), (R{{kActivityStateContinue, true}, {kActivityStateDone, true}}));
}

TEST_F(PeriodicTaskManagerTest, ARefusedContinueStillRunsTheHandlerButDoesNotMarkItselfDone) {
  scheduler->refuse(kActivityStateContinue);
  auto task = registerCounting("t");
  ASSERT_TRUE(scheduler->run("t"));
  ASSERT_TRUE(handled.waitFor(1));
  task->queue()->sync([] {});
  EXPECT_TRUE(capture.sink().contains("Running activity t, extended=0"));
  EXPECT_EQ(capture.sink().count("Done running activity t, extended=0") +
                capture.sink().count("Done running activity t, extended=1"),
            0u);
  using R = std::vector<std::pair<int64_t, bool>>;
  EXPECT_EQ(scheduler->requests(), (R{{kActivityStateContinue, false}}));
  // Other states call nothing.
  scheduler->checkIn("t");
  EXPECT_EQ(handled.value(), 1);
}

TEST_F(PeriodicTaskManagerTest, ASecondTaskOfTheSameNameReplacesTheFirstAndUnregisterForgetsIt) {
  registerCounting("t");
  test::WaitCounter second;
  auto replacement = VorlenPeriodicTask::taskWithName("t", 60, [&] { second.add(); });
  manager->registerTask(replacement);
  ASSERT_EQ(manager->allTasks().size(), 1u);
  EXPECT_EQ(manager->allTasks().at("t"), replacement);
  scheduler->run("t");
  ASSERT_TRUE(second.waitFor(1));
  EXPECT_EQ(handled.value(), 0);

  manager->unregisterTask(replacement);
  EXPECT_TRUE(manager->allTasks().empty());
  EXPECT_FALSE(scheduler->isRegistered("t"));
}

}  // namespace
}  // namespace vorlen
