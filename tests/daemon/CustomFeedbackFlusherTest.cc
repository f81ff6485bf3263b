// The custom feedback flusher of the daemon's object graph against the reference service: report files in
// the custom feedback folder and privacy reports, what is uploaded, what is refused, what is left.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "base/Counters.h"
#include "base/Log.h"
#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "daemon/Daemon.h"
#include "daemon/DaemonFixture.h"
#include "ipc/IpcTestSupport.h"
#include "network/BagController.h"
#include "platform/PrivacyReportFolder.h"
#include "storage/UploadManager.h"
#include "storage/VorlenCustomFeedbackFlusher.h"
#include "support/Eventually.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"
#include "vorlen-refserver/FeedbackInbox.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen {
namespace {

namespace fs = std::filesystem;

class CustomFeedbackFlusherTest : public test::DaemonFixture {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(DaemonFixture::SetUp());
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    ASSERT_TRUE(test::eventually([&] { return assembly->bagController->cachedBagState().has_value(); }));
    ASSERT_TRUE(test::eventually([&] { return assembly->uploadManager->feedbackEndpoint().has_value(); }));
    flusher = VorlenCustomFeedbackFlusher::create(assembly);
  }
  fs::path customFolder() const {
    return platform.paths.cachesDir / VorlenCustomFeedbackFlusher::kFolderName;
  }
  static void write(const fs::path& path, size_t bytes, char fill = 'r') {
    fs::create_directories(path.parent_path());
    test::writeFile(path, std::string(bytes, fill));
  }
  std::vector<FeedbackInbox::Received> receivedAt(const std::string& endpoint) {
    assembly->uploadManager->waitForUploadsToEnd(std::chrono::seconds(30));
    std::vector<FeedbackInbox::Received> out;
    for (auto& r : server.feedbackInbox().received())
      if (r.endpoint == endpoint && r.record.is_null()) out.push_back(std::move(r));
    return out;
  }

  std::shared_ptr<VorlenCustomFeedbackFlusher> flusher;
  ScopedLogCapture capture;
};

TEST_F(CustomFeedbackFlusherTest, WithoutACustomFolderPrivacyReportsAreStillSentAndRetired) {
  PrivacyReportFolder reports(platform.paths.cachesDir);
  write(reports.folder() / "report.1", 100);
  write(reports.folder() / "report.2", 200);
  // The daemon's start registered the maintenance task that makes these runs.
  EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Default, "Registered CTS task"), 1u);
  flusher->flushStartingOn(clock->now(), clock->now());
  EXPECT_TRUE(capture.sink().contains("No custom feedback found. Nothing to flush."));
  EXPECT_EQ(receivedAt("crowdsourcing").size(), 2u);
  EXPECT_TRUE(reports.pendingReports().empty());
  // Nothing pending: nothing sent the next time.
  flusher->flushDPFeedback();
  EXPECT_TRUE(capture.sink().contains("No crowdsourcing reports available for flushing"));
}

TEST_F(CustomFeedbackFlusherTest, OverSizeFilesBecomeErrorSessionsAndOnlyRegularFilesOfTheUserAreSent) {
  write(customFolder() / "AutoFill" / "small", 1000);
  write(customFolder() / "AutoFill" / "nested" / "also", 10);
  write(customFolder() / "Other" / "big", VorlenCustomFeedbackFlusher::kDefaultMaximumSize + 1);
  write(customFolder() / "top", 5);
  write(customFolder() / ".hidden", 5);
  // Links planted by another process are neither followed nor sent; their targets stay.
  const fs::path secret = dir.path() / "secret";
  write(secret, 50, 's');
  fs::create_directories(customFolder() / "AutoPlay");
  fs::create_symlink(secret, customFolder() / "AutoPlay" / "link");
  fs::create_directories(customFolder() / "ResultFeatures");
  ASSERT_EQ(::mkfifo((customFolder() / "ResultFeatures" / "fifo").c_str(), 0600), 0);

  flusher->flushCustomFeedback();
  std::vector<std::string> types;
  for (const auto& r : receivedAt("feedback")) types.push_back(r.type.value_or(""));
  std::sort(types.begin(), types.end());
  EXPECT_EQ(types, (std::vector<std::string>{"autofill", "autofill", "custom"}));
  EXPECT_EQ(platform.counters->value("com.velmo.vorlend.customfeedback.other.filetoolarge"), 1);
  EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error, "too big to process: 2097153"), 1u);
  EXPECT_TRUE(capture.sink().contains("No ResultFeatures custom feedback available for flushing"));
  EXPECT_FALSE(fs::exists(customFolder()));
  EXPECT_EQ(test::readFile(secret), std::string(50, 's'));
}

}  // namespace
}  // namespace vorlen
