#include "network/VorlenUserGUIDController.h"

#include <gtest/gtest.h>

#include "base/Counters.h"
#include "base/ManualClock.h"

namespace vorlen {
namespace {

class GUIDControllerTest : public ::testing::Test {
 protected:
  void SetUp() override { Counters::install(counters); }
  void TearDown() override { Counters::install(nullptr); }

  // A read of the controller queues behind the notification block of an earlier roll, so after one
  // more currentUserGUID() this count is settled.
  int notifications() {
    std::lock_guard lock(mu);
    return posted;
  }

  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  std::shared_ptr<NotificationCenter> center = NotificationCenter::create();
  std::shared_ptr<Counters> counters = std::make_shared<Counters>(std::filesystem::path(), clock);
  std::mutex mu;
  int posted = 0;
  std::unique_ptr<NotificationCenter::Token> token =
      center->addObserver("VORUserGUIDChangeNotification", nullptr, [this](const Notification&) {
        std::lock_guard lock(mu);
        ++posted;
      });
};

TEST_F(GUIDControllerTest, LivesNineHundredSecondsAndRollsLazilyWithOneNotification) {
  auto c = VorlenUserGUIDController::create(clock, center);
  Uuid first = c->currentUserGUID();
  clock->advance(std::chrono::seconds(1));
  EXPECT_EQ(c->currentUserGUID(), first);
  clock->advance(std::chrono::seconds(898));  // 899 s after creation
  EXPECT_EQ(c->currentUserGUID(), first);
  EXPECT_EQ(notifications(), 0);  // construction and reads of a live GUID post nothing

  clock->advance(std::chrono::seconds(1));  // exactly at expiry: rolled
  Uuid second = c->currentUserGUID();
  EXPECT_NE(second, first);
  c->currentUserGUID();  // queues behind the notification block
  EXPECT_EQ(notifications(), 1);
  EXPECT_EQ(counters->value("com.velmo.vorlend.userguid"), 1);
  EXPECT_EQ(c->currentUserGUID(), second);
}

TEST_F(GUIDControllerTest, ReadAfterResetSeesTheNewGuidAndTheLifetimeRestarts) {
  auto c = VorlenUserGUIDController::create(clock, center);
  for (int i = 0; i < 50; ++i) {
    Uuid before = c->currentUserGUID();
    c->reset();
    EXPECT_NE(c->currentUserGUID(), before);
  }
  c->currentUserGUID();
  EXPECT_EQ(notifications(), 50);
  clock->advance(std::chrono::seconds(600));
  Uuid current = c->currentUserGUID();
  c->reset();
  Uuid afterReset = c->currentUserGUID();
  clock->advance(std::chrono::seconds(899));  // the reset restarted the 900 s
  EXPECT_EQ(c->currentUserGUID(), afterReset);
  EXPECT_NE(current, afterReset);
}

TEST_F(GUIDControllerTest, IndividualControllersRollIndependently) {
  auto a = VorlenUserGUIDController::create(clock, center);
  auto b = VorlenUserGUIDController::create(clock, center);
  Uuid bFirst = b->currentUserGUID();
  EXPECT_NE(a->currentUserGUID(), bFirst);
  a->reset();
  a->currentUserGUID();  // waits for the roll
  a->currentUserGUID();  // and for the notification block the roll enqueued
  EXPECT_EQ(b->currentUserGUID(), bFirst);
  EXPECT_EQ(notifications(), 1);
}

}  // namespace
}  // namespace vorlen
