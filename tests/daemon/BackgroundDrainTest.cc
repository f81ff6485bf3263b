// The daemon's object graph on a manual clock against the reference service: a browser types and engages
// through the client library, its session ends, the clock reaches the next scheduled flush, and the
// service's feedback endpoint holds the browser's session record with its events.
#include <gtest/gtest.h>

#include "base/Counters.h"
#include "base/Log.h"
#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "client/VorlenClient.h"
#include "daemon/Daemon.h"
#include "daemon/DaemonFixture.h"
#include "feedback/ClientSession.h"
#include "feedback/ClientSessionManagerProtocol.h"
#include "ipc/IpcTestSupport.h"
#include "model/QXFeedback.h"
#include "model/QXSearchResult.h"
#include "model/VORRequest.h"
#include "model/VORSessionConfiguration.h"
#include "storage/BackgroundActivitiesManager.h"
#include "storage/FileContainer.h"
#include "storage/PersistentStorage.h"
#include "storage/UploadFile.h"
#include "storage/UploadManager.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"
#include "vorlen-refserver/FeedbackInbox.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen {
namespace {

constexpr const char* kBrowserAgent = "Voyant/5.0";

class BackgroundDrainTest : public test::DaemonFixture {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(DaemonFixture::SetUp());
    startDaemon();
  }

  // Whether a finished session file of the browser is waiting in storage.
  bool browserSessionStored() {
    for (const auto& handle : assembly->persistentStorage->getAvailableSessionHandles()) {
      auto session = handle->read(*assembly);
      if (session && session->agent().ends_with(std::string(") ") + kBrowserAgent)) return true;
    }
    return false;
  }
  std::vector<FeedbackInbox::Received> browserRecords() {
    std::vector<FeedbackInbox::Received> out;
    for (auto& r : server.feedbackInbox().received())
      if (r.record.is_object() && r.record.value("agent", "").ends_with(std::string(") ") + kBrowserAgent))
        out.push_back(std::move(r));
    return out;
  }
};

TEST_F(BackgroundDrainTest, ATypedAndEngagedSessionReachesTheFeedbackEndpointAtTheFirstFlushAfterItEnds) {
  auto browser = connectClient("com.example.browser", kBrowserAgent);
  for (uint64_t id : {1u, 2u}) {
    VORSearchRequest search;
    search.queryId = id;
    search.queryString = id == 1 ? "ne" : "new";
    ASSERT_TRUE(browser->request(search).ok());
  }
  QXSearchResult result;
  result.identifier = "r1";
  result.type = 1;
  result.title = "new york";
  result.queryId = 2;
  result.userInput = "new";
  result.completedQuery = "new york";
  QXFeedback engagement("QXResultEngagementFeedback");
  engagement.set("result", result.toRecord());
  ASSERT_TRUE(browser->reportEvent("engage", 2, engagement.toRecord()).ok());
  // Time moves only once the open session holds the engagement.
  ASSERT_TRUE(test::eventually([&] {
    for (const Value& e : assembly->clientSessionManager->currentSessionFeedbacksWithRelativeTimestamp())
      if (const Value* type = e.find("type");
          type && type->getString() && *type->getString() == "result_engagement")
        return true;
    return false;
  }));

  // The drain at 300 s finds the session open. At 900 s it ends (the max timer, or the user GUID's
  // rotation when an envelope arrives first), while the scheduled drain of 900 s runs: that drain or the
  // next one, at 1500 s, sends it.
  advanceTo(300);
  EXPECT_TRUE(browserRecords().empty());
  advanceTo(900);
  ASSERT_TRUE(test::eventually([&] { return browserSessionStored() || !browserRecords().empty(); }));
  advanceTo(1500);
  ASSERT_TRUE(test::eventually([&] { return !browserRecords().empty(); }));
  ASSERT_TRUE(assembly->uploadManager->waitForUploadsToEnd(std::chrono::seconds(30)));
  auto records = browserRecords();
  ASSERT_EQ(records.size(), 1u);
  std::vector<std::string> types;
  for (const auto& r : records) {
    EXPECT_TRUE(r.valid) << r.reason;
    EXPECT_EQ(r.endpoint, "feedback");
    EXPECT_EQ(r.record["fb"].back().value("type", ""), "session_end") << r.record.dump();
    for (const auto& e : r.record["fb"]) types.push_back(e.value("type", ""));
  }
  auto has = [&](const char* type) { return std::find(types.begin(), types.end(), type) != types.end(); };
  EXPECT_TRUE(has("network_search_start")) << types.size();
  EXPECT_TRUE(has("result_engagement")) << types.size();
  EXPECT_FALSE(browserSessionStored());
  for (const auto& r : server.feedbackInbox().received()) EXPECT_TRUE(r.valid) << r.reason;
  for (const auto& entry : std::filesystem::directory_iterator(platform.paths.tempDir))
    EXPECT_FALSE(entry.path().filename().string().starts_with(UploadFile::kNamePrefix)) << entry.path();
}

}  // namespace
}  // namespace vorlen
