// The session state machine on a manual clock: every transition, the timers and their generations, the
// overrides, the bag switch and the flush paths. Sessions are real ClientSessions; the storage slot is
// empty, so completed sessions stay readable through the handles the tests keep.
#include <atomic>

#include <gtest/gtest.h>

#include "base/Counters.h"
#include "base/Log.h"
#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "feedback/ClientSession.h"
#include "feedback/ClientSessionManager.h"
#include "feedback/ClientSessionShared.h"
#include "model/VORBag.h"
#include "network/VorlenBagController.h"
#include "network/VorlenUserGUIDController.h"
#include "platform/Assembly.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"

namespace vorlen {
namespace {

constexpr const char* kBrowser = "Vorlend/1.0 (Test; Linux 1) Voyant/1.0";
constexpr const char* kNews = "news/1.0";

constexpr int kTypeResultEngagement = 8;
constexpr int kTypeCardEngagement = 10;
constexpr int kTypeSessionEnd = 25;

using State = ClientSessionManager::State;

class SessionManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Counters::install(platform.counters);
    assembly->userDefaults = std::make_shared<Preferences>(platform.paths.configDir, "com.velmo.vorlend");
    assembly->userDefaults->registerDefaults({{"VORSessionSoftLimitOverride", Value(int64_t{600})},
                                              {"VORSessionIdleTimeOverride", Value(int64_t{180})}});
    assembly->notificationCenter = platform.notificationCenter;
    softTokens = assembly->notificationCenter->addObserver("VORSessionSoftLimitNotification", nullptr,
                                                           [this](const Notification&) { ++softPosts; });
    maxTokens = assembly->notificationCenter->addObserver("VORSessionMaxLimitNotification", nullptr,
                                                          [this](const Notification&) { ++maxPosts; });
  }
  void TearDown() override {
    // The manager and the bag controller hold the Assembly that holds them: let go of them so the test's
    // objects are freed.
    assembly->clientSessionManager.reset();
    assembly->bagController.reset();
    manager.reset();
    // A timer still pending on the manual clock holds its queue, which holds the clock: let every one fall
    // due (their owners are gone, so they do nothing) so that the clock and the queues are freed too.
    clock->advance(std::chrono::hours(24));
    if (sink) Log::setSink(nullptr);
    Counters::install(nullptr);
  }

  // A manager with a GUID controller of its own, fresh now.
  std::shared_ptr<ClientSessionManager> makeManager(bool shared = true) {
    guids = VorlenUserGUIDController::create(*assembly);
    assembly->guidController = guids;
    assembly->sharedSession = shared;
    manager = ClientSessionManager::create(assembly, guids, "vorlen");
    assembly->clientSessionManager = manager;
    return manager;
  }

  static VorlenFeedback event(const char* className, const std::string& agent = kBrowser) {
    return VorlenFeedback(QXFeedback(className), 7, std::nullopt, agent, 3);
  }
  // Adds an event and waits until the manager has handled it; returns the state after it.
  uint64_t add(const char* className, const std::string& agent = kBrowser) {
    manager->addVorlenFeedback(event(className, agent));
    return manager->currentState();
  }
  void advance(double s) {
    clock->advance(seconds(s));
    manager->currentState();  // work the timers queued on the manager's queue has run
  }
  static std::vector<int> types(const std::shared_ptr<ManagedClientSession>& session) {
    std::vector<int> out;
    for (const auto& f : session->getSessionFeedbacks()) out.push_back(f.type());
    return out;
  }
  static int64_t endReason(const std::shared_ptr<ManagedClientSession>& session) {
    auto events = session->getSessionFeedbacks();
    if (events.empty() || events.back().type() != kTypeSessionEnd) return -1;
    return events.back().feedback.integer("reason").value_or(-1);
  }
  void captureLog() {
    sink = std::make_shared<CapturingSink>();
    Log::setSink(sink);
    Log::setThreshold(LogLevel::Debug);
  }

  test::TempDir dir;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  Platform platform = test::platformForTesting(dir.path() / "root", clock);
  std::shared_ptr<Assembly> assembly = std::make_shared<Assembly>(platform);
  std::shared_ptr<VorlenUserGUIDController> guids;
  std::shared_ptr<ClientSessionManager> manager;
  std::shared_ptr<CapturingSink> sink;
  std::atomic<int> softPosts{0}, maxPosts{0};
  std::unique_ptr<NotificationCenter::Token> softTokens, maxTokens;
};

TEST_F(SessionManagerTest, OverridesAreValidatedWithTheirMessages) {
  struct Case {
    Value soft, idle;
    int64_t wantSoft, wantIdle, wantMax;
    const char* message;  // "" when none is expected
  };
  const Case cases[] = {
      {Value(int64_t{300}), Value(int64_t{60}), 300, 60, 600, ""},
      {Value(int64_t{899}), Value(int64_t{100000}), 899, 100000, 1, ""},
      {Value(int64_t{0}), Value(int64_t{180}), 600, 180, 300,
       "Soft limit override value must be greater than 0 : 0 defaulting to 600"},
      {Value(int64_t{-5}), Value(int64_t{180}), 600, 180, 300,
       "Soft limit override value must be greater than 0 : -5 defaulting to 600"},
      {Value(int64_t{900}), Value(int64_t{180}), 600, 180, 300,
       "Soft limit override value must be less than guid expiration 900 : 900 defaulting to 600"},
      {Value(int64_t{600}), Value(int64_t{0}), 600, 180, 300,
       "Idle limit override value must be greater than 0 : 0 defaulting to 180"},
  };
  captureLog();
  for (const Case& c : cases) {
    sink->clear();
    assembly->userDefaults->set("VORSessionSoftLimitOverride", c.soft);
    assembly->userDefaults->set("VORSessionIdleTimeOverride", c.idle);
    auto m = makeManager();
    SCOPED_TRACE(c.message);
    EXPECT_EQ(m->softLimitTime(), c.wantSoft);
    EXPECT_EQ(m->idleTime(), c.wantIdle);
    EXPECT_EQ(m->maxTime(), c.wantMax);
    EXPECT_EQ(m->softLimitTime() + m->maxTime(), 900);
    if (*c.message) {
      EXPECT_TRUE(sink->contains(LogLevel::Error, "Vorlen_Session", c.message));
    }
    EXPECT_TRUE(sink->contains(LogLevel::Info, "Vorlen_Session",
                               "Vorlen is using shared session for all clients vorlen"));
  }
}

TEST_F(SessionManagerTest, FirstEventOpensAndFurtherEventsJoin) {
  makeManager();
  EXPECT_EQ(manager->currentState(), State::kStateClosed);
  EXPECT_EQ(manager->session(), nullptr);
  EXPECT_EQ(add("QXStartSearchFeedback"), State::kStateOpen);
  auto session = manager->session();
  ASSERT_NE(session, nullptr);
  // An engagement while open is an ordinary event.
  EXPECT_EQ(add("QXResultEngagementFeedback"), State::kStateOpen);
  EXPECT_EQ(manager->session(), session);
  EXPECT_EQ(types(session), (std::vector<int>{14, kTypeResultEngagement}));
  // Every envelope carries the GUID current when it was accepted, whatever the sender set.
  for (const auto& f : session->getSessionFeedbacks()) EXPECT_EQ(f.userGuid, guids->currentUserGUID());
  ASSERT_TRUE(manager->expirationTime());
  EXPECT_EQ(*manager->expirationTime(), clock->now() + seconds(180));
}

TEST_F(SessionManagerTest, SoftLimitThenMaxTimerEndsTheSession) {
  makeManager();
  add("QXStartSearchFeedback");
  auto session = manager->session();
  advance(500);
  EXPECT_EQ(add("QXStartSearchFeedback"), State::kStateOpen);
  advance(99);
  EXPECT_EQ(manager->currentState(), State::kStateOpen);
  EXPECT_EQ(softPosts.load(), 0);
  advance(1);
  EXPECT_EQ(manager->currentState(), State::kStateSoftLimited);
  EXPECT_EQ(softPosts.load(), 1);
  // A soft-limited session keeps taking ordinary events that arrive within the idle time.
  EXPECT_EQ(add("QXStartSearchFeedback"), State::kStateSoftLimited);
  EXPECT_EQ(manager->session(), session);
  advance(299);
  EXPECT_EQ(manager->currentState(), State::kStateSoftLimited);
  advance(1);
  EXPECT_EQ(manager->currentState(), State::kStateClosed);
  EXPECT_EQ(manager->session(), nullptr);
  EXPECT_EQ(maxPosts.load(), 1);
  EXPECT_EQ(endReason(session), 3);  // "max session time passed"
}

TEST_F(SessionManagerTest, SoftLimitOf899LeavesOneSecondAfterTheFixedSoftTimer) {
  assembly->userDefaults->set("VORSessionSoftLimitOverride", Value(int64_t{899}));
  makeManager();
  add("QXStartSearchFeedback");
  auto session = manager->session();
  // The soft timer waits 600 s whatever the override says; the override only shortens the max time.
  advance(600);
  EXPECT_EQ(manager->currentState(), State::kStateSoftLimited);
  advance(1);
  EXPECT_EQ(manager->currentState(), State::kStateClosed);
  EXPECT_EQ(endReason(session), 3);
}

TEST_F(SessionManagerTest, EngagementAfterSoftLimitEndsTheSessionAndRotatesTheGuid) {
  struct Case {
    const char* className;
    int type;
  };
  for (const Case& c : {Case{"QXResultEngagementFeedback", kTypeResultEngagement},
                        Case{"QXMapsCardSectionEngagementFeedback", kTypeCardEngagement}}) {
    SCOPED_TRACE(c.className);
    makeManager();
    add("QXStartSearchFeedback");
    auto session = manager->session();
    advance(600);
    const Uuid before = guids->currentUserGUID();
    EXPECT_EQ(add(c.className), State::kStateClosed);
    EXPECT_EQ(manager->session(), nullptr);
    // The engagement is the last event before the end event.
    auto t = types(session);
    ASSERT_GE(t.size(), 2u);
    EXPECT_EQ(t[t.size() - 2], c.type);
    EXPECT_EQ(endReason(session), 6);  // "engagement received"
    EXPECT_NE(guids->currentUserGUID(), before);
    // The max timer of the ended session finds no session: it ends nothing and posts nothing.
    const int posted = maxPosts.load();
    advance(300);
    EXPECT_EQ(manager->currentState(), State::kStateClosed);
    EXPECT_EQ(maxPosts.load(), posted);
  }
}

TEST_F(SessionManagerTest, LateEventAfterSoftLimitOpensTheNextSessionWithARotatedGuid) {
  assembly->userDefaults->set("VORSessionIdleTimeOverride", Value(int64_t{60}));
  makeManager();
  add("QXStartSearchFeedback");
  auto first = manager->session();
  const Uuid firstGuid = *first->userGuid();
  advance(599);
  EXPECT_EQ(add("QXStartSearchFeedback"), State::kStateOpen);
  advance(1);
  advance(58);
  EXPECT_EQ(add("QXStartSearchFeedback"), State::kStateSoftLimited);  // within the idle time
  EXPECT_EQ(manager->session(), first);
  advance(60);  // the deadline is now: it has passed
  EXPECT_EQ(add("QXStartSearchFeedback"), State::kStateOpen);
  auto second = manager->session();
  ASSERT_NE(second, nullptr);
  EXPECT_NE(second, first);
  EXPECT_EQ(endReason(first), 2);  // "session idle"
  // The late event is the first of the new session and carries the new GUID.
  auto events = second->getSessionFeedbacks();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].type(), 14);
  ASSERT_TRUE(events[0].userGuid);
  EXPECT_NE(*events[0].userGuid, firstGuid);
  EXPECT_EQ(*events[0].userGuid, guids->currentUserGUID());
  EXPECT_EQ(*second->userGuid(), *events[0].userGuid);
  // The first session's max timer is stale: it leaves the second alone (and still posts).
  const int posted = maxPosts.load();
  advance(300);
  EXPECT_EQ(manager->currentState(), State::kStateOpen);
  EXPECT_EQ(manager->session(), second);
  EXPECT_EQ(maxPosts.load(), posted + 1);
}

TEST_F(SessionManagerTest, IdleNeverEndsAnOpenSession) {
  makeManager();
  add("QXStartSearchFeedback");
  auto session = manager->session();
  advance(500);  // far beyond the idle time, still before the soft limit
  EXPECT_EQ(add("QXStartSearchFeedback"), State::kStateOpen);
  EXPECT_EQ(manager->session(), session);
}

TEST_F(SessionManagerTest, GuidExpiryEndsTheSessionAndTheEventOpensTheNext) {
  // An idle time beyond the GUID lifetime keeps the soft-limited session alive until the GUID rolls.
  assembly->userDefaults->set("VORSessionIdleTimeOverride", Value(int64_t{100000}));
  assembly->userDefaults->set("VORSessionSoftLimitOverride", Value(int64_t{1}));
  makeManager();
  add("QXStartSearchFeedback");
  auto first = manager->session();
  advance(600);
  EXPECT_EQ(manager->currentState(), State::kStateSoftLimited);
  // Max time 899 s: the GUID (900 s) expires first; the next event carries the new one.
  advance(300);
  EXPECT_EQ(add("QXStartSearchFeedback"), State::kStateOpen);
  auto second = manager->session();
  ASSERT_NE(second, first);
  EXPECT_EQ(endReason(first), 4);  // "guid changed"
  auto events = second->getSessionFeedbacks();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].userGuid, second->userGuid());
  EXPECT_NE(second->userGuid(), first->userGuid());
}

TEST_F(SessionManagerTest, FlushEndsEverySessionAndAlwaysCallsBack) {
  makeManager();
  // Nothing open: the callback still runs.
  std::atomic<int> called{0};
  manager->flushSession([&] { ++called; });
  manager->currentState();
  EXPECT_EQ(called.load(), 1);

  add("QXStartSearchFeedback", kBrowser);
  add("QXStartSearchFeedback", kNews);
  auto shared = std::dynamic_pointer_cast<ClientSessionShared>(manager->session());
  ASSERT_NE(shared, nullptr);
  auto perAgent = shared->sessions();
  ASSERT_EQ(perAgent.size(), 2u);
  manager->flushSession([&] { ++called; });
  EXPECT_EQ(manager->currentState(), State::kStateClosed);
  EXPECT_EQ(called.load(), 2);
  for (const auto& s : perAgent) {
    auto events = s->getSessionFeedbacks();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events.back().type(), kTypeSessionEnd);
    EXPECT_EQ(events.back().feedback.integer("reason"), 1);  // "external request"
    EXPECT_EQ(events.back().userAgent, s->agent());
    EXPECT_EQ(events.back().userGuid, s->userGuid());
  }
  // The next session learns why the previous one ended.
  add("QXStartSearchFeedback");
  auto next = std::dynamic_pointer_cast<ClientSessionShared>(manager->session());
  ASSERT_NE(next, nullptr);
  EXPECT_EQ(next->sessions().at(0)->previousSessionEndReason(), 1);
}

TEST_F(SessionManagerTest, InvalidationMarksASharedSessionAndFlushesAnIndividualOne) {
  for (bool shared : {true, false}) {
    SCOPED_TRACE(shared ? "shared" : "individual");
    makeManager(shared);
    add("QXStartSearchFeedback");
    auto session = manager->session();
    std::atomic<int> answer{-1};
    manager->flushSessionInvalidationWithAgent(kBrowser, [&](bool flushed) { answer = flushed ? 1 : 0; });
    manager->currentState();
    EXPECT_EQ(answer.load(), shared ? 0 : 1);
    if (shared) {
      EXPECT_EQ(manager->session(), session);
      EXPECT_EQ(types(session), (std::vector<int>{14, 32}));  // "connection_invalidated"
    } else {
      EXPECT_EQ(manager->session(), nullptr);
      EXPECT_EQ(endReason(session), 1);
    }
  }
}

TEST_F(SessionManagerTest, FeedbackDisabledInTheBagForOneAgentNeverReachesASession) {
  auto bags = VorlenBagController::create(assembly);
  Value::Dict raw{{VORBagKeys::kFeedbackEnabled, Value(true)},
                  {VORBagKeys::kClients,
                   Value::dict({{"news", Value::dict({{VORBagKeys::kFeedbackEnabled, Value(false)}})}})},
                  {VorlenBagController::kRefreshDisabledKey, Value(true)}};
  bags->cacheBagState(VORBag(raw, ""), /*fromDisk=*/true);
  assembly->bagController = bags;
  makeManager();
  EXPECT_EQ(add("QXStartSearchFeedback", kNews), State::kStateClosed);
  EXPECT_FALSE(manager->expirationTime());  // a dropped event is no activity
  EXPECT_EQ(add("QXStartSearchFeedback", kBrowser), State::kStateOpen);
  EXPECT_EQ(add("QXStartSearchFeedback", kNews), State::kStateOpen);
  auto shared = std::dynamic_pointer_cast<ClientSessionShared>(manager->session());
  ASSERT_EQ(shared->sessions().size(), 1u);
  EXPECT_EQ(shared->sessions()[0]->agent(), kBrowser);
}

}  // namespace
}  // namespace vorlen
