// The flusher and the background drain over real session files, on a manual clock, against the reference
// service on loopback: what a send uploads, when scheduled drains run, stopFlushing, and what a drain does
// with a file it cannot read or an upload the server refuses.
#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <set>

#include "base/Counters.h"
#include "base/Log.h"
#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "feedback/ClientSession.h"
#include "feedback/VorlenFeedback.h"
#include "model/Constants.h"
#include "model/QXFeedbackFactory.h"
#include "network/HttpSessions.h"
#include "network/VORNetworkRequestFactory.h"
#include "platform/Assembly.h"
#include "storage/BackgroundActivitiesManager.h"
#include "storage/FlusherIPC.h"
#include "storage/UploadManager.h"
#include "storage/VorlenFeedbackFlusher.h"
#include "storage/VorlenPersistentStorage.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"
#include "vorlen-refserver/FeedbackInbox.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen {
namespace {

constexpr auto kPatience = std::chrono::seconds(30);
constexpr const char* kAgent = "Voyant/18.0";

// Collects what a drain forwards to a connected tool.
class CollectingListener final : public FlusherIPC {
 public:
  void sendDataToSendingStreamListener(std::vector<MappedFile> payloads) override {
    std::lock_guard lock(mu_);
    batches_.push_back(payloads.size());
  }
  // Only the sending stream is watched here.
  void sendDataToReceivingStreamListener(const VorlenFeedback&) override {}
  std::optional<IpcEndpoint> endpoint() const override { return std::nullopt; }
  std::vector<size_t> batches() const {
    std::lock_guard lock(mu_);
    return batches_;
  }

 private:
  mutable std::mutex mu_;
  std::vector<size_t> batches_;
};

class BackgroundFlushTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.start());
    assembly = std::make_shared<Assembly>(test::platformForTesting(dir.path(), clock));
    assembly->userDefaults = std::make_shared<Preferences>(assembly->platform.paths.configDir, kServiceName);
    assembly->notificationCenter = assembly->platform.notificationCenter;
    assembly->requestFactory = VORNetworkRequestFactory::create(*assembly);
    assembly->httpSessions =
        std::make_shared<HttpSessions>(assembly->userDefaults, clock, assembly->platform.paths.tempDir);
    Counters::install(assembly->platform.counters);
    uploads = UploadManager::create(*assembly);
    assembly->uploadManager = uploads;
    storage = VorlenPersistentStorage::create(*assembly, "Vorlend/1.0 (test; Linux 12) Vorlend/1.0");
    assembly->persistentStorage = storage;
    crowdsourcing = VorlenFeedbackFlusher::create(assembly, VorlenFeedbackFlusher::kCrowdsourcing);
    assembly->crowdsourcingFeedbackFlusher = crowdsourcing;
    manager = BackgroundActivitiesManager::create(assembly);
    assembly->backgroundFlusher = manager;
    installBag(true);
  }

  // A bag, as the bag controller announces it; the uploads take their endpoints from it.
  void installBag(bool feedbackEnabled) {
    Notification n;
    n.name = kVORBagChangeNotification;
    n.userInfo = Value::dict(
        {{kVORBagKey, VORBag(Value::Dict{{"enabled", true},
                                         {"feedback_enabled", feedbackEnabled},
                                         {"feedback_url", server.baseURL() + "/feedback"},
                                         {"crowdsourcing_url", server.baseURL() + "/crowdsourcing"}},
                             "Vorlend/1.0 (test)")
                          .toRecord()}});
    assembly->notificationCenter->post(n);
  }

  void TearDown() override {
    uploads->waitForUploadsToEnd(kPatience);
    // The Assembly holds the components that hold it weakly; break its slots so everything goes.
    manager.reset();
    assembly->backgroundFlusher.reset();
    server.stop();
    Counters::install(nullptr);
  }

  // A completed session of `events` search events, waiting in storage.
  std::shared_ptr<ClientSession> storeSession(int events) {
    std::shared_ptr<ClientSession> session;
    for (int i = 0; i < events; ++i) {
      QXFeedback skip = QXFeedbackFactory::skipSearch(1, "query " + std::to_string(i));
      skip.setTimestamp(1000000 + static_cast<uint64_t>(i));
      VorlenFeedback f(std::move(skip), 100 + i, Uuid::parse("7a3b1c2d-0000-4000-8000-000000000001"), kAgent,
                       static_cast<uint64_t>(i));
      if (!session)
        session = ClientSession::create(*assembly, std::move(f));
      else
        session->addFeedback(std::move(f));
    }
    session->sessionComplete();
    return session;
  }
  size_t stored() { return storage->getAvailableSessionHandles().size(); }
  // Every drain queued so far has finished, and every upload it started has ended.
  void settle() {
    manager->queue()->sync([] {});
    ASSERT_TRUE(uploads->waitForUploadsToEnd(kPatience));
  }
  void advanceTo(double s) {
    clock->set(start + seconds(s));
    settle();
  }
  FeedbackInbox& inbox() { return server.feedbackInbox(); }
  int64_t counter(const char* key) { return assembly->platform.counters->value(key); }

  test::TempDir dir;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  const Time start = clock->now();
  RefServer server;
  std::shared_ptr<Assembly> assembly;
  std::shared_ptr<UploadManager> uploads;
  std::shared_ptr<VorlenPersistentStorage> storage;
  std::shared_ptr<VorlenFeedbackFlusher> crowdsourcing;
  std::shared_ptr<BackgroundActivitiesManager> manager;
};

TEST_F(BackgroundFlushTest, FlusherSendsOneRecordPerBufferedSessionAndNothingForAnEmptyBuffer) {
  EXPECT_EQ(VorlenFeedbackFlusher::nameForIdentifier(0), "crowdsourcing");
  EXPECT_EQ(VorlenFeedbackFlusher::nameForIdentifier(2), "last_");
  EXPECT_EQ(VorlenFeedbackFlusher::nameForIdentifier(7), "(unknown: 7)");
  auto flusher = manager->feedbackFlusher();
  {
    ScopedLogCapture capture;
    std::vector<MappedFile> payloads;
    flusher->flushToWireSync(&payloads);
    EXPECT_TRUE(payloads.empty());
    EXPECT_TRUE(capture.sink().contains(LogLevel::Debug, "Vorlen_Flusher", "Sessions Flushed 0"));
    EXPECT_EQ(uploads->uploadsInFlight() + uploads->uploadsEnded(), 0u);
  }

  // Two sessions in, one dropped buffer, two sessions in again: two uploads, payloads returned, empty after.
  flusher->flushSyncFromArray({storeSession(1)});
  flusher->dropFeedbacks();
  flusher->flushSyncFromArray({storeSession(2), storeSession(3)});
  EXPECT_EQ(flusher->countOfDatabuffer(), 2u);
  std::promise<size_t> returned;
  flusher->flushToWireAsync([&](std::vector<MappedFile> payloads) {
    size_t nonEmpty = 0;
    for (const MappedFile& m : payloads) nonEmpty += m.bytes().empty() ? 0 : 1;
    returned.set_value(nonEmpty);
  });
  EXPECT_EQ(returned.get_future().get(), 2u);
  EXPECT_EQ(counter("com.velmo.vorlend.clientconnection"), 2);
  EXPECT_EQ(flusher->countOfDatabuffer(), 0u);
  ASSERT_TRUE(inbox().waitForReceived(2, kPatience));
  // Uploads run side by side: the server sees them in any order.
  std::multiset<size_t> sizes;
  for (const auto& r : inbox().received()) {
    EXPECT_EQ(r.endpoint, "feedback");
    EXPECT_TRUE(r.valid) << r.reason;
    sizes.insert(r.record["fb"].size());
  }
  EXPECT_EQ(sizes, (std::multiset<size_t>{2, 3}));
}

TEST_F(BackgroundFlushTest, ScheduledDrainsRunAt300SecondsThenEvery600AndEachStoredSessionIsSentOnce) {
  auto listener = std::make_shared<CollectingListener>();
  storeSession(2);
  advanceTo(299);
  EXPECT_EQ(stored(), 1u);
  EXPECT_EQ(inbox().receivedCount(), 0u);

  advanceTo(300);
  EXPECT_EQ(stored(), 0u);
  ASSERT_TRUE(inbox().waitForReceived(1, kPatience));

  // From now a tool listens: each send's payloads are forwarded, and the crowdsourcing buffer is sent too
  // (its session's file is stored too, so the feedback flusher sends it as well).
  assembly->flusherIPCListener = listener;
  storeSession(3);
  storeSession(4);
  crowdsourcing->flush(storeSession(1), nullptr);
  advanceTo(899);
  EXPECT_EQ(inbox().receivedCount(), 1u);
  advanceTo(900);
  ASSERT_TRUE(inbox().waitForReceived(5, kPatience));
  EXPECT_EQ(stored(), 0u);
  size_t crowdsourced = 0;
  for (const auto& r : inbox().received()) crowdsourced += r.endpoint == "crowdsourcing" ? 1 : 0;
  EXPECT_EQ(crowdsourced, 1u);
  EXPECT_EQ(listener->batches(), (std::vector<size_t>{1, 1, 1, 1}));

  // 1500 and 2100: nothing is stored, nothing is sent again.
  advanceTo(2100);
  EXPECT_EQ(inbox().receivedCount(), 5u);
  EXPECT_EQ(counter("com.velmo.vorlend.feedbacksent"), 5 * 7);  // counted per top-level key
}

TEST_F(BackgroundFlushTest, StopFlushingEndsScheduledPeriodsAtOnceWhileAnInsertedDrainStillRuns) {
  ScopedLogCapture capture;
  manager->setStopFlushing(true);
  storeSession(2);
  advanceTo(300);
  EXPECT_TRUE(capture.sink().contains("flushing has been stopped, will start again with dump command"));
  EXPECT_EQ(stored(), 1u);
  advanceTo(900);
  EXPECT_EQ(capture.sink().count("flushing has been stopped, will start again with dump command"), 2u);
  EXPECT_EQ(inbox().receivedCount(), 0u);

  std::promise<void> done;
  manager->insertFlushActivity([&] { done.set_value(); });
  done.get_future().get();
  EXPECT_EQ(stored(), 0u);
  ASSERT_TRUE(inbox().waitForReceived(1, kPatience));
  for (const LogRecord& r : capture.sink().records()) EXPECT_NE(r.level, LogLevel::Fault) << r.message;

  manager->setStopFlushing(false);
  storeSession(1);
  advanceTo(1500);
  EXPECT_EQ(stored(), 0u);
  EXPECT_TRUE(
      capture.sink().contains("scheduled flush feedbacks to wire com.velmo.vorlend.flusher.background"));
}

TEST_F(BackgroundFlushTest, AnUnreadableFileIsDeletedUnsentAndARefusedUploadIsLostNotRetried) {
  storeSession(2);
  auto bad = storage->getAvailableSessionHandles().front()->fileUrl();
  test::writeFile(bad, "not a session file");
  storeSession(3);
  inbox().setControl({.status = 500});
  manager->insertFlushActivity(nullptr);
  settle();
  EXPECT_FALSE(std::filesystem::exists(bad));
  EXPECT_EQ(stored(), 0u);
  ASSERT_TRUE(inbox().waitForReceived(1, kPatience));
  EXPECT_EQ(uploads->uploadsEnded(), 1u);  // the unreadable file sent nothing
  EXPECT_EQ(inbox().received()[0].status, 500);
  EXPECT_EQ(counter("com.velmo.vorlend.feedbacknotsent"), 7);

  // The refused session is gone: the next drain sends nothing.
  inbox().setControl({});
  manager->insertFlushActivity(nullptr);
  settle();
  EXPECT_EQ(uploads->uploadsEnded(), 1u);
  EXPECT_EQ(inbox().receivedCount(), 1u);
}

// The bag turns feedback off between two drains: the second drain still reads and deletes what is
// stored, but with no endpoint nothing is uploaded and no temporary file is made; those sessions are lost.
TEST_F(BackgroundFlushTest, WithFeedbackSwitchedOffADrainDeletesStoredSessionsWithoutSendingThem) {
  storeSession(2);
  manager->insertFlushActivity(nullptr);
  settle();
  ASSERT_TRUE(inbox().waitForReceived(1, kPatience));

  installBag(false);
  storeSession(3);
  manager->insertFlushActivity(nullptr);
  settle();
  EXPECT_EQ(stored(), 0u);
  EXPECT_EQ(uploads->uploadsEnded(), 1u);
  for (const auto& entry : std::filesystem::directory_iterator(assembly->platform.paths.tempDir))
    EXPECT_FALSE(entry.path().filename().string().starts_with(UploadFile::kNamePrefix)) << entry.path();

  installBag(true);
  storeSession(4);
  manager->insertFlushActivity(nullptr);
  settle();
  ASSERT_TRUE(inbox().waitForReceived(2, kPatience));
  std::multiset<size_t> sizes;
  for (const auto& r : inbox().received()) sizes.insert(r.record["fb"].size());
  EXPECT_EQ(sizes, (std::multiset<size_t>{2, 4}));
}

}  // namespace
}  // namespace vorlen
