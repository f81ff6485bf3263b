// The upload manager against the reference service over loopback: endpoints from the bag, the request
// as the server sees it, and what one upload leaves behind under each fault (counters, what the server
// received, no temporary file, the next upload still works).
#include <dirent.h>
#include <sys/stat.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "base/Counters.h"
#include "base/Log.h"
#include "base/ManualClock.h"
#include "base/MappedFile.h"
#include "base/Preferences.h"
#include "feedback/ClientSession.h"
#include "feedback/FeedbackTestSupport.h"
#include "feedback/SessionProcessingHelper.h"
#include "model/Constants.h"
#include "network/BagController.h"
#include "network/HttpSessions.h"
#include "network/VORNetworkRequestFactory.h"
#include "platform/Assembly.h"
#include "storage/UploadManager.h"
#include "support/Deflate.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"
#include "vorlen-refserver/FeedbackInbox.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen {
namespace {

using Json = nlohmann::ordered_json;
constexpr auto kPatience = std::chrono::seconds(30);
constexpr const char* kSent = "com.velmo.vorlend.feedbacksent";
constexpr const char* kNotSent = "com.velmo.vorlend.feedbacknotsent";
constexpr const char* kTimedOut = "com.velmo.vorlend.fbrequesttimedout";

// A valid session record of `events` search-start events whose inputs are `inputBytes` long.
Json sessionRecord(size_t events, size_t inputBytes = 12) {
  Json fb = Json::array();
  for (size_t i = 0; i < events; ++i) {
    std::string input = "weather " + std::to_string(i);
    input.resize(std::max(inputBytes, input.size()), static_cast<char>('a' + i % 26));
    fb.push_back(Json{
        {"trigger_event", "new_character"}, {"input", input}, {"type", "search_start"}, {"timestamp", i}});
  }
  return Json{{"fb", fb},
              {"agent", "Vorlend/1.0 (test) Voyant/1"},
              {"user_guid", "1B4E28BA-2FA1-41D2-883F-0016D3CCA427"},
              {"resource_versions", Json::object()},
              {"first_use", true},
              {"base_time", 1767268800},
              {"previous_session_end_reason", "no previous session"}};
}

// A bag controller that has one bag installed.
class InstalledBag final : public BagController {
 public:
  explicit InstalledBag(VORBag bag) : bag_(std::move(bag)) {}
  std::optional<VORBag> currentBag() override { return bag_; }
  std::optional<VORBag> cachedBagState() override { return bag_; }
  std::optional<std::string> warmURL() override { return std::nullopt; }
  void forceFetchBag(const Value::Dict&) override {}
  std::string bagFetchURLWithCountry(const std::optional<std::string>&) const override { return {}; }

 private:
  VORBag bag_;
};

class UploadManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.start());
    assembly = std::make_shared<Assembly>(test::platformForTesting(dir.path(), clock));
    ASSERT_TRUE(assembly->platform.paths.create());
    assembly->userDefaults = std::make_shared<Preferences>(assembly->platform.paths.configDir, kServiceName);
    assembly->notificationCenter = assembly->platform.notificationCenter;
    assembly->requestFactory = VORNetworkRequestFactory::create(*assembly);
    assembly->httpSessions =
        std::make_shared<HttpSessions>(assembly->userDefaults, clock, assembly->platform.paths.tempDir);
    Counters::install(assembly->platform.counters);
    UploadManager::Settings settings;
    // The "never answers" case ends in 5 s, not 300; a sanitizer build of the reference service can take
    // over a second to check a 2 MiB session before it answers, which must not count as silence.
    settings.requestTimeoutSeconds = 5;
    manager = UploadManager::create(*assembly, settings);
    installBag(true);
  }

  void TearDown() override {
    server.stop();
    Counters::install(nullptr);
  }

  VORBag bag(bool feedbackEnabled, bool withFeedbackURL = true) const {
    Value::Dict raw{{"enabled", true},
                    {"feedback_enabled", feedbackEnabled},
                    {"crowdsourcing_url", server.baseURL() + "/crowdsourcing"}};
    if (withFeedbackURL) raw.emplace("feedback_url", server.baseURL() + "/feedback");
    return VORBag(raw, "Vorlend/1.0 (test)");
  }

  void installBag(bool feedbackEnabled, bool withFeedbackURL = true) {
    Notification n;
    n.name = kVORBagChangeNotification;
    n.userInfo = Value::dict({{kVORBagKey, bag(feedbackEnabled, withFeedbackURL).toRecord()}});
    assembly->notificationCenter->post(n);
  }

  int64_t counter(const char* key) const { return assembly->platform.counters->value(key); }

  size_t tempFiles() const {
    size_t n = 0;
    for (const auto& entry : std::filesystem::directory_iterator(assembly->platform.paths.tempDir)) {
      if (entry.path().filename().string().rfind(UploadFile::kNamePrefix, 0) == 0) ++n;
    }
    return n;
  }

  // Waits until `uploads` uploads have ended in all.
  void waitForEnd(uint64_t uploads) {
    ASSERT_TRUE(manager->waitForUploadsToEnd(kPatience));
    EXPECT_EQ(manager->uploadsEnded(), uploads);
  }

  FeedbackInbox& inbox() { return server.feedbackInbox(); }

  test::TempDir dir;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  RefServer server;
  std::shared_ptr<Assembly> assembly;
  std::shared_ptr<UploadManager> manager;
};

TEST_F(UploadManagerTest, EndpointsFollowTheBag) {
  EXPECT_EQ(manager->feedbackEndpoint(), server.baseURL() + "/feedback?v=2");
  EXPECT_EQ(manager->crowdsourcingEndpoint(), server.baseURL() + "/crowdsourcing");

  // A manager made while a bag is installed reads it at once.
  assembly->bagController = std::make_shared<InstalledBag>(bag(true));
  auto second = UploadManager::create(*assembly);
  EXPECT_EQ(second->feedbackEndpoint(), server.baseURL() + "/feedback?v=2");

  installBag(true, /*withFeedbackURL=*/false);
  EXPECT_EQ(manager->feedbackEndpoint(), std::nullopt);
  EXPECT_EQ(manager->crowdsourcingEndpoint(), server.baseURL() + "/crowdsourcing");

  // Feedback disabled: both unset, and neither kind of upload goes anywhere or leaves a file.
  installBag(false);
  EXPECT_EQ(manager->feedbackEndpoint(), std::nullopt);
  EXPECT_EQ(manager->crowdsourcingEndpoint(), std::nullopt);
  ScopedLogCapture logs;
  EXPECT_EQ(manager->uploadJSONFeedback(sessionRecord(2), UploadManager::kFeedbackEndpoint), nullptr);
  test::writeFile(dir / "stored.json", sessionRecord(2).dump());
  manager->uploadFeedback(dir / "stored.json", "voyant_autofill", UploadManager::kCrowdsourcingEndpoint);
  EXPECT_EQ(logs.sink().count("Server feedback endpoint not set, data can't be sent to server"),
            1u);  // the file upload
  EXPECT_EQ(manager->uploadsInFlight(), 0u);
  EXPECT_EQ(tempFiles(), 0u);
  EXPECT_EQ(server.requestCount("/feedback") + server.requestCount("/crowdsourcing"), 0u);
}

// The record the daemon's own encoder makes for a session arrives as a valid record.
TEST_F(UploadManagerTest, TheDaemonsOwnSessionRecordArrivesValid) {
  constexpr const char* kAgent = "Vorlend/1.0 (Test; Linux 1) Voyant/1.0";
  const Uuid guid = Uuid::random();
  const uint64_t ms = QXFeedback::kMachineTimeUnitsPerMillisecond;
  auto session = ClientSession::create(
      *assembly, VorlenFeedback(test::event("QXResultEngagementFeedback",
                                            {{"result", test::result("r1").toRecord()}}, ms),
                                9, guid, kAgent));
  session->addFeedback(
      VorlenFeedback(test::event("QXSuggestionEngagementFeedback",
                                 {{"suggestion", test::suggestion("s1", "weather").toRecord()}}, 2 * ms),
                     9, guid, kAgent));
  session->addFeedback(VorlenFeedback(test::event("QXStartSearchFeedback", {}, 3 * ms), 10, guid, kAgent));
  SessionProcessingHelper helper;
  const Json record = session->getFeedbacksToSend(helper);

  ASSERT_NE(manager->uploadJSONFeedback(record, UploadManager::kFeedbackEndpoint), nullptr);
  ASSERT_TRUE(inbox().waitForReceived(1, kPatience));
  const auto got = inbox().received();
  EXPECT_TRUE(got[0].valid) << got[0].reason;
  EXPECT_EQ(got[0].record, record);
  EXPECT_EQ(got[0].record["fb"].size(), 5u);  // missing suggestions, missing results, the three events
}

TEST_F(UploadManagerTest, RecordThatCannotBeSerialisedIsCountedNotSentAndLeavesNoFile) {
  ScopedLogCapture logs;
  Json record = sessionRecord(1);
  record["agent"] = std::string("\xff\xfe not UTF-8");
  EXPECT_EQ(manager->uploadJSONFeedback(record, UploadManager::kFeedbackEndpoint), nullptr);
  EXPECT_EQ(counter(kNotSent), 1);
  EXPECT_EQ(tempFiles(), 0u);
  bool logged = false;
  for (const LogRecord& r : logs.sink().records())
    logged |= r.level == LogLevel::Error && r.message.rfind("Invalid JSON Object <private> error ", 0) == 0;
  EXPECT_TRUE(logged);
  EXPECT_EQ(server.requestCount("/feedback"), 0u);
}

TEST_F(UploadManagerTest, FileUploadsCarryTheTypeItemOnlyWhenOneIsGiven) {
  test::writeFile(dir / "stored.json", sessionRecord(3).dump());
  manager->uploadFeedback(dir / "stored.json", "", UploadManager::kFeedbackEndpoint);
  manager->uploadFeedback(dir / "stored.json", "voyant_autofill", UploadManager::kCrowdsourcingEndpoint);
  ASSERT_TRUE(inbox().waitForReceived(2, kPatience));
  waitForEnd(2);
  auto got = inbox().received();
  ASSERT_EQ(got.size(), 2u);
  std::sort(got.begin(), got.end(), [](const auto& a, const auto& b) { return a.endpoint > b.endpoint; });
  EXPECT_EQ(got[0].endpoint, "feedback");
  EXPECT_EQ(got[0].type, std::nullopt);
  EXPECT_EQ(got[0].version, "2");
  EXPECT_EQ(got[1].endpoint, "crowdsourcing");
  EXPECT_EQ(got[1].type, "voyant_autofill");
  for (const auto& r : got) {
    EXPECT_TRUE(r.valid) << r.reason;
    EXPECT_EQ(r.record, sessionRecord(3));
  }
  EXPECT_EQ(counter(kSent), 2);  // a file upload counts 1
  EXPECT_EQ(tempFiles(), 0u);

  // A file that cannot be read (missing, or a link) is not uploaded.
  ScopedLogCapture logs;
  std::filesystem::create_symlink(dir / "stored.json", dir / "link.json");
  for (const char* name : {"missing.json", "link.json"}) {
    manager->uploadFeedback(dir / name, "", UploadManager::kFeedbackEndpoint);
    EXPECT_TRUE(
        logs.sink().contains("Error getting reading file for upload: " + (dir / name).string() + "."));
  }
  EXPECT_EQ(manager->uploadsInFlight(), 0u);
  EXPECT_EQ(manager->uploadsEnded(), 2u);
  EXPECT_EQ(tempFiles(), 0u);
  EXPECT_TRUE(std::filesystem::exists(dir / "stored.json"));  // the source file is the caller's
}

// One upload under each fault the server can cause; what it received, which counters moved, no file left,
// and the next upload goes through.
struct Fault {
  const char* name;
  FeedbackInbox::Control control;
  size_t events;
  size_t inputBytes;
  int64_t sent, notSent, timedOut;
  int answered;      // the status the server stored as sent; 0 for a dropped connection
  bool serverValid;  // the server found the whole record valid
};

class UploadFaultTest : public UploadManagerTest, public ::testing::WithParamInterface<Fault> {};

TEST_P(UploadFaultTest, OneUploadEndsCountedWithNothingLeftBehind) {
  const Fault& f = GetParam();
  inbox().setControl(f.control);
  const Json record = sessionRecord(f.events, f.inputBytes);
  std::shared_ptr<UploadFile> file = manager->uploadJSONFeedback(record, UploadManager::kFeedbackEndpoint);
  ASSERT_NE(file, nullptr);
  waitForEnd(1);
  ASSERT_TRUE(inbox().waitForReceived(1, kPatience));

  EXPECT_EQ(counter(kSent), f.sent);
  EXPECT_EQ(counter(kNotSent), f.notSent);
  EXPECT_EQ(counter(kTimedOut), f.timedOut);
  EXPECT_EQ(server.requestCount("/feedback"), 1u);  // nothing retried
  auto got = inbox().received();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].status, f.answered);
  EXPECT_EQ(got[0].valid, f.serverValid) << got[0].reason;
  if (f.serverValid) {
    EXPECT_EQ(got[0].record, record);
    EXPECT_EQ(got[0].inflatedBytes, record.dump().size());
  }

  // The path is gone, the handle still reads the compressed bytes, which are the record.
  EXPECT_EQ(file->path(), std::nullopt);
  EXPECT_EQ(tempFiles(), 0u);
  auto mapped = MappedFile::map(file->fd(), static_cast<size_t>(file->size()));
  ASSERT_TRUE(mapped);
  EXPECT_EQ(test::inflateRaw(mapped->bytes()), record.dump());
  if (f.control.dropAfterBytes >= 0) {
    EXPECT_LT(got[0].compressedBytes, mapped->bytes().size());  // the server saw part of the body
    EXPECT_GE(got[0].compressedBytes, static_cast<size_t>(f.control.dropAfterBytes));
  }

  inbox().setControl({});
  ASSERT_NE(manager->uploadJSONFeedback(sessionRecord(1), UploadManager::kFeedbackEndpoint), nullptr);
  waitForEnd(2);
  ASSERT_TRUE(inbox().waitForReceived(2, kPatience));
  got = inbox().received();
  EXPECT_TRUE(got.back().valid);
  EXPECT_EQ(got.back().status, 200);
  EXPECT_EQ(counter(kSent), f.sent + 7);
  EXPECT_EQ(tempFiles(), 0u);
}

FeedbackInbox::Control answer(int status, int delayMs = 0, int64_t dropAfterBytes = -1) {
  FeedbackInbox::Control c;
  c.status = status;
  c.delayMs = delayMs;
  c.dropAfterBytes = dropAfterBytes;
  return c;
}

// A session record has 7 top-level keys: that is the count the counters move by.
INSTANTIATE_TEST_SUITE_P(
    Faults, UploadFaultTest,
    ::testing::Values(Fault{"Ok", answer(200), 3, 12, 7, 0, 0, 200, true},
                      Fault{"BadRequest", answer(400), 3, 12, 0, 7, 0, 400, true},
                      Fault{"ServerError", answer(500), 3, 12, 0, 7, 0, 500, true},
                      Fault{"TooManyRequests", answer(429), 3, 12, 0, 7, 0, 429, true},
                      Fault{"NeverAnswers", answer(200, 10000), 3, 12, 0, 7, 1, 200, true},
                      Fault{"ResetMidBody", answer(200, 0, 4096), 3000, 40, 0, 7, 0, 0, false},
                      Fault{"TwoMebibyteSession", answer(200), 8000, 240, 7, 0, 0, 200, true}),
    [](const ::testing::TestParamInfo<Fault>& info) { return std::string(info.param.name); });

TEST_F(UploadManagerTest, TemporaryFilesArePrivateAndUnique) {
  auto a = manager->makeTempFile();
  auto b = manager->makeTempFile();
  ASSERT_TRUE(a && b);
  ASSERT_TRUE(a->path() && b->path());
  EXPECT_NE(*a->path(), *b->path());
  EXPECT_EQ(a->path()->parent_path(), assembly->platform.paths.tempDir);
  const std::string name = a->path()->filename().string();
  EXPECT_EQ(name.rfind(UploadFile::kNamePrefix, 0), 0u);
  EXPECT_EQ(name.size(), std::strlen(UploadFile::kNamePrefix) + UploadFile::kSuffixLength);
  EXPECT_EQ(test::fileMode(*a->path()), 0600u);
  a->removePath();
  EXPECT_FALSE(a->pathExists());
  EXPECT_GE(a->fd(), 0);  // the descriptor outlives the path
}

// Files of uploads that a killed daemon left behind go when the next manager starts; a young one may be
// another daemon's upload in the making and stays, and so does anything that is not a regular file.
TEST_F(UploadManagerTest, LeftoverUploadFilesOfAnEarlierProcessAreRemoved) {
  const auto tmp = assembly->platform.paths.tempDir;
  const std::string prefix = UploadFile::kNamePrefix;
  test::writeFile(tmp / (prefix + "old01"), "x");
  test::writeFile(tmp / (prefix + "young"), "x");
  test::writeFile(tmp / "unrelated_old", "x");
  std::filesystem::create_directory(tmp / (prefix + "dir01"));
  const auto old = std::filesystem::file_time_type::clock::now() - std::chrono::hours(1);
  for (const char* name : {"old01", "dir01"}) std::filesystem::last_write_time(tmp / (prefix + name), old);
  std::filesystem::last_write_time(tmp / "unrelated_old", old);

  auto next = UploadManager::create(*assembly);
  EXPECT_FALSE(std::filesystem::exists(tmp / (prefix + "old01")));
  EXPECT_TRUE(std::filesystem::exists(tmp / (prefix + "young")));
  EXPECT_TRUE(std::filesystem::exists(tmp / (prefix + "dir01")));
  EXPECT_TRUE(std::filesystem::exists(tmp / "unrelated_old"));
}

}  // namespace
}  // namespace vorlen
