// Client sessions: the header (first use of the day, counters), the GUID-mismatch event, relative times,
// the privacy-filtered form and the JSON session record, the header's archive form, and the per-agent
// sessions of a shared session.
#include <gtest/gtest.h>

#include "base/Counters.h"
#include "base/Log.h"
#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "download/VorlenDownloadManager.h"
#include "feedback/ClientSession.h"
#include "feedback/ClientSessionShared.h"
#include "feedback/FeedbackEventType.h"
#include "feedback/FeedbackTestSupport.h"
#include "feedback/SessionProcessingHelper.h"
#include "feedback/VorlenSessionEndFeedback.h"
#include "network/VorlenUserGUIDController.h"
#include "platform/Assembly.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"

namespace vorlen {
namespace {

constexpr const char* kBrowser = "Vorlend/1.0 (Test; Linux 1) Voyant/1.0";
constexpr uint64_t kMs = QXFeedback::kMachineTimeUnitsPerMillisecond;

class ClientSessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Counters::install(platform.counters);
    assembly->userDefaults = std::make_shared<Preferences>(platform.paths.configDir, "com.velmo.vorlend");
    assembly->notificationCenter = platform.notificationCenter;
  }
  void TearDown() override {
    Log::setSink(nullptr);
    Log::setThreshold(threshold);
    Counters::install(nullptr);
  }

  static VorlenFeedback at(uint64_t timestamp, const char* className = "QXStartSearchFeedback",
                           std::optional<Uuid> guid = kGuid, const std::string& agent = kBrowser) {
    return VorlenFeedback(QXFeedback(className, timestamp), 5, guid, agent);
  }
  int64_t counter(const std::string& client, const char* name) const {
    return platform.counters->value(createTallydKey(client, name));
  }
  static std::vector<std::string> typesOf(const nlohmann::ordered_json& events) {
    std::vector<std::string> out;
    for (const auto& e : events) out.push_back(e.value("type", ""));
    return out;
  }

  static inline const Uuid kGuid = Uuid::random();
  const LogLevel threshold = Log::threshold();
  test::TempDir dir;
  // Noon, so that an hour later is the same calendar day in any time zone.
  std::shared_ptr<ManualClock> clock =
      std::make_shared<ManualClock>(fromUnixSeconds(1767225600.0 + 12 * 3600));
  Platform platform = test::platformForTesting(dir.path() / "root", clock);
  std::shared_ptr<Assembly> assembly = std::make_shared<Assembly>(platform);
};

TEST_F(ClientSessionTest, FirstUseOfTheDayIsCountedOncePerClientAndDay) {
  auto first = ClientSession::create(*assembly, at(kMs));
  clock->advance(seconds(3600));
  auto second = ClientSession::create(*assembly, at(kMs));
  EXPECT_TRUE(first->firstUseOfTheDay());
  EXPECT_FALSE(second->firstUseOfTheDay());
  EXPECT_EQ(counter("voyant", "dailyactiveusers"), 1);
  EXPECT_EQ(counter("voyant", "sessions"), 2);
  EXPECT_EQ(assembly->userDefaults->dateForKey("VorlenFirstUseOfTheDay_voyant"),
            clock->now() - seconds(3600));

  // The next calendar day is a first use again.
  clock->advance(seconds(24 * 3600));
  EXPECT_TRUE(ClientSession::create(*assembly, at(kMs))->firstUseOfTheDay());
  EXPECT_EQ(counter("voyant", "dailyactiveusers"), 2);
}

TEST_F(ClientSessionTest, AgentsWithoutAKnownWordGetNoRecordAndNoCounters) {
  auto sink = std::make_shared<CapturingSink>();
  Log::setSink(sink);
  Log::setThreshold(LogLevel::Debug);
  // (An agent the daemon built holds "Vorlend/1.0 (" and so counts as "vorlend"; this one is bare.)
  const std::string agent = "Editor/2.0 (Test)";
  auto session = ClientSession::create(*assembly, at(kMs, "QXStartSearchFeedback", kGuid, agent));
  EXPECT_FALSE(session->firstUseOfTheDay());
  EXPECT_TRUE(platform.counters->snapshot().empty());
  EXPECT_TRUE(sink->contains("user default key not found for agent: " + agent));
  // The client-name list is wider than the first-use list: "vorlend" is counted but keeps no record.
  ClientSession::create(*assembly, at(kMs, "QXStartSearchFeedback", kGuid, "vorlend-self-test"));
  EXPECT_EQ(counter("vorlend", "sessions"), 1);
  EXPECT_EQ(counter("vorlend", "dailyactiveusers"), 0);
}

TEST_F(ClientSessionTest, ADifferentGuidIsKeptAndFollowedByAnErrorEvent) {
  auto session = ClientSession::create(*assembly, at(1 * kMs));
  const Uuid other = Uuid::random();
  session->addFeedback(at(2 * kMs, "QXStartSearchFeedback", other));
  session->addFeedback(at(3 * kMs));
  auto events = session->getSessionFeedbacks();
  ASSERT_EQ(events.size(), 4u);
  // The error is made now, so it sorts last; what matters is that it is there, once, and what it says.
  int errors = 0;
  for (const auto& f : events) {
    if (f.type() != kEventError) continue;
    ++errors;
    EXPECT_EQ(f.queryId, 0);
    EXPECT_FALSE(f.userGuid);
    EXPECT_EQ(f.userAgent, kBrowser);
    auto d = f.dictionary();
    EXPECT_EQ(d.dump().find("different guid in session") != std::string::npos, true) << d.dump();
  }
  EXPECT_EQ(errors, 1);
  EXPECT_EQ(std::count_if(events.begin(), events.end(),
                          [&](const VorlenFeedback& f) { return f.userGuid == other; }),
            1);
}

TEST_F(ClientSessionTest, RelativeTimesCountFromTheFirstStampedEvent) {
  struct Case {
    const char* name;
    std::vector<uint64_t> stamps;  // in arrival order
    std::vector<uint64_t> want;    // relative milliseconds, in time order
  };
  const Case cases[] = {
      {"ascending", {10 * kMs, 12 * kMs, 25 * kMs + 999999}, {0, 2, 15}},
      {"arrival out of order", {30 * kMs, 10 * kMs, 20 * kMs}, {0, 10, 20}},
      {"a first stamp of 0 leaves the base unset", {0, 3 * kMs, 5 * kMs}, {0, 0, 2}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto session = ClientSession::create(*assembly, at(c.stamps[0]));
    for (size_t i = 1; i < c.stamps.size(); ++i) session->addFeedback(at(c.stamps[i]));
    std::vector<uint64_t> got;
    for (const auto& e : session->feedbacksWithRelativeTimestamp())
      got.push_back(e.at("timestamp").get<uint64_t>());
    EXPECT_EQ(got, c.want);
  }
}

// The versions of the resource files held when a session starts go into its record; a resource without
// a version is left out.
TEST_F(ClientSessionTest, RecordCarriesTheResourceVersionsHeldAtTheStart) {
  auto entry = [](const std::string& url) { return Value(Value::Dict{{"url", Value(url)}}); };
  assembly->userDefaults->set(
      VorlenDownloadManager::kResourcesPreference,
      Value(Value::Dict{{"installed_app_whitelist", entry("https://r.example/allow?version=3")},
                        {"no_version", entry("https://r.example/other")}}));
  auto downloads = VorlenDownloadManager::create(assembly);
  assembly->downloadManager = downloads;
  auto session = ClientSession::create(*assembly, at(1 * kMs));
  SessionProcessingHelper helper;
  nlohmann::ordered_json record = session->getFeedbacksToSend(helper);
  EXPECT_EQ(record["resource_versions"], (nlohmann::ordered_json{{"installed_app_whitelist", "3"}}));
  assembly->downloadManager.reset();
}

TEST_F(ClientSessionTest, SessionRecordLeadsWithMissingSuggestionsThenMissingResults) {
  using test::event;
  auto session = ClientSession::create(
      *assembly, VorlenFeedback(event("QXResultEngagementFeedback",
                                      {{"result", test::result("r-secret").toRecord()}}, 1 * kMs),
                                9, kGuid, kBrowser));
  session->addFeedback(
      VorlenFeedback(event("QXSuggestionEngagementFeedback",
                           {{"suggestion", test::suggestion("s-secret", "weather").toRecord()}}, 2 * kMs),
                     9, kGuid, kBrowser));
  SessionProcessingHelper helper;
  nlohmann::ordered_json record = session->getFeedbacksToSend(helper);

  std::vector<std::string> keys;
  for (const auto& item : record.items()) keys.push_back(item.key());
  EXPECT_EQ(keys, (std::vector<std::string>{"fb", "agent", "user_guid", "resource_versions", "first_use",
                                            "base_time", "previous_session_end_reason"}));
  EXPECT_EQ(typesOf(record["fb"]),
            (std::vector<std::string>{"session_missing_suggestions", "session_missing_results",
                                      "result_engagement", "suggestion_engagement"}));
  EXPECT_EQ(record["agent"], kBrowser);
  EXPECT_EQ(record["user_guid"], kGuid.string());
  EXPECT_EQ(record["resource_versions"], nlohmann::ordered_json::object());
  EXPECT_EQ(record["first_use"], true);
  EXPECT_EQ(record["base_time"], static_cast<int64_t>(toUnixSeconds(clock->now())));
  EXPECT_EQ(record["previous_session_end_reason"], "no previous session");
  // Nothing the client sent as an identifier leaves the daemon.
  EXPECT_EQ(record.dump().find("secret"), std::string::npos) << record.dump();
}

TEST_F(ClientSessionTest, HeaderArchiveRoundTripsAndRemovedTimestampsGiveBaseTimeZero) {
  auto session = ClientSession::create(*assembly, at(kMs), VorlenSessionEndFeedback::kGuidChanged);
  Value archive = session->toArchive();
  for (const char* key : {"agent", "user_guid", "resource_versions", "base_time",
                          "previous_session_end_reason", "first_use", "remove_timestamps"}) {
    EXPECT_TRUE(archive.find(key)) << key;
  }
  auto restored = ClientSession::fromArchive(archive, *assembly);
  ASSERT_NE(restored, nullptr);
  EXPECT_EQ(restored->agent(), kBrowser);
  EXPECT_EQ(restored->userGuid(), kGuid);
  EXPECT_EQ(restored->previousSessionEndReason(), VorlenSessionEndFeedback::kGuidChanged);
  EXPECT_EQ(restored->firstUseOfTheDay(), session->firstUseOfTheDay());
  EXPECT_EQ(restored->sessionStart(), session->sessionStart());
  EXPECT_TRUE(restored->getSessionFeedbacks().empty());  // the events are records of their own
  SessionProcessingHelper helper;
  EXPECT_EQ(restored->getFeedbacksToSend(helper)["previous_session_end_reason"], "guid changed");

  // A session of custom result features carries no base time. No event class of this build reports that
  // type, so the header flag comes from a file.
  archive.set("remove_timestamps", Value(true));
  auto custom = ClientSession::fromArchive(archive, *assembly);
  EXPECT_EQ(custom->getFeedbacksToSend(helper)["base_time"], 0);

  // A header with nothing usable still restores, with its gaps logged.
  auto sink = std::make_shared<CapturingSink>();
  Log::setSink(sink);
  auto bare = ClientSession::fromArchive(Value(Value::Dict{}), *assembly);
  ASSERT_NE(bare, nullptr);
  EXPECT_TRUE(sink->contains("decoder returned nil for agent"));
  EXPECT_TRUE(sink->contains("decoder returned nil for resource_versions"));
  EXPECT_EQ(ClientSession::fromArchive(Value("not a header"), *assembly), nullptr);
}

TEST_F(ClientSessionTest, CompletingWithoutStorageKeepsTheEventsAndSaysSo) {
  auto sink = std::make_shared<CapturingSink>();
  Log::setSink(sink);
  auto session =
      ClientSession::createFeedbackSessionFromError(VORError::make(500, "client state nil"), *assembly);
  session->sessionComplete();
  EXPECT_TRUE(sink->contains(LogLevel::Fault, "Vorlen_Feedback_Storage", "Storage Handle nil major error"));
  auto events = session->getSessionFeedbacks();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].type(), kEventError);
  EXPECT_EQ(events[0].queryId, 0);
}

TEST_F(ClientSessionTest, SharedSessionKeepsOneSessionPerAgentInArrivalOrder) {
  auto shared = ClientSessionShared::create(*assembly, at(1 * kMs), VorlenSessionEndFeedback::kSessionIdle);
  const std::string news = "news/1.0";
  shared->addFeedback(at(2 * kMs, "QXStartSearchFeedback", kGuid, news));
  shared->addFeedback(at(3 * kMs));
  shared->addFeedback(at(4 * kMs, "QXStartSearchFeedback", kGuid, ""));
  auto sessions = shared->sessions();
  ASSERT_EQ(sessions.size(), 3u);
  EXPECT_EQ(sessions[0]->agent(), kBrowser);
  EXPECT_EQ(sessions[1]->agent(), news);
  EXPECT_EQ(sessions[2]->agent(), "");
  for (const auto& s : sessions)
    EXPECT_EQ(s->previousSessionEndReason(), VorlenSessionEndFeedback::kSessionIdle);
  EXPECT_EQ(sessions[0]->getSessionFeedbacks().size(), 2u);
  // Concatenated per agent, each with its own relative times.
  std::vector<uint64_t> times;
  for (const auto& e : shared->feedbacksWithRelativeTimestamp())
    times.push_back(e.at("timestamp").get<uint64_t>());
  EXPECT_EQ(times, (std::vector<uint64_t>{0, 2, 0, 0}));
  int calls = 0, lasts = 0;
  shared->enumerateSessions([&](ClientSession&, bool last) {
    ++calls;
    lasts += last ? 1 : 0;
  });
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(lasts, 1);
}

}  // namespace
}  // namespace vorlen
