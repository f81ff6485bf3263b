#include "base/NotificationCenter.h"

#include <gtest/gtest.h>

#include <thread>

namespace vorlen {
namespace {

TEST(NotificationCenterTest, DeliversByNameAndSenderInRegistrationOrder) {
  auto center = NotificationCenter::create();
  int a = 0, b = 0;
  std::vector<std::string> order;
  auto t1 = center->addObserver("X", nullptr, [&](const Notification& n) {
    order.push_back("any");
    EXPECT_EQ(*n.userInfo.find("k")->getString(), "v");
  });
  auto t2 = center->addObserver("X", &a, [&](const Notification&) { order.push_back("a"); });
  auto t3 = center->addObserver("Y", nullptr, [&](const Notification&) { order.push_back("y"); });
  center->post("X", &a, Value::dict({{"k", "v"}}));
  center->post("X", &b, Value::dict({{"k", "v"}}));
  EXPECT_EQ(order, (std::vector<std::string>{"any", "a", "any"}));
}

TEST(NotificationCenterTest, RemovalByTokenAndWeakOwners) {
  auto center = NotificationCenter::create();
  int calls = 0;
  auto token = center->addObserver("X", nullptr, [&](const Notification&) { ++calls; });
  auto owner = std::make_shared<int>(0);
  auto weakToken = center->addObserver<int>("X", nullptr, owner, [&](int& o, const Notification&) { ++o; });
  center->post("X");
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(*owner, 1);

  std::weak_ptr<int> gone = owner;
  owner.reset();
  EXPECT_TRUE(gone.expired());  // the centre does not keep the owner alive
  token.reset();
  center->post("X");
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(center->observerCountForTesting("X"), 1u);  // the weak one's token is still held
}

TEST(NotificationCenterTest, HandlersMayPostAndRemoveDuringDelivery) {
  auto center = NotificationCenter::create();
  std::unique_ptr<NotificationCenter::Token> second;
  int firstCalls = 0, secondCalls = 0, nested = 0;
  auto first = center->addObserver("X", nullptr, [&](const Notification&) {
    ++firstCalls;
    second.reset();  // removed before its turn: must not be called
    center->post("Nested");
  });
  second = center->addObserver("X", nullptr, [&](const Notification&) { ++secondCalls; });
  auto third = center->addObserver("Nested", nullptr, [&](const Notification&) { ++nested; });
  center->post("X");
  EXPECT_EQ(firstCalls, 1);
  EXPECT_EQ(secondCalls, 0);
  EXPECT_EQ(nested, 1);
}

TEST(NotificationCenterTest, ConcurrentPostsAndRegistrations) {
  auto center = NotificationCenter::create();
  std::atomic<int> calls{0};
  auto token = center->addObserver("X", nullptr, [&](const Notification&) { ++calls; });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        auto tmp = center->addObserver("Y", nullptr, [](const Notification&) {});
        center->post("X");
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(calls.load(), 2000);
  EXPECT_EQ(center->observerCountForTesting("Y"), 0u);
}

}  // namespace
}  // namespace vorlen
