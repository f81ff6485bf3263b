#include "network/AppWhitelistController.h"

#include <gtest/gtest.h>

#include "base/Log.h"
#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "model/Constants.h"
#include "network/AppWhitelistSignature.h"
#include "network/VORNetworkRequestFactory.h"
#include "platform/Assembly.h"
#include "support/FakeDownloadManager.h"
#include "support/PlatformFakes.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"

namespace vorlen {
namespace {

std::string allowList(const std::string& version, const std::string& appsJson) {
  nlohmann::json inner =
      nlohmann::json::parse(R"({"version": ")" + version + R"(", "apps": )" + appsJson + "}");
  return nlohmann::json{{"apps", inner.dump()}, {"compression", "RLE"}, {"encoding", "bitmap"}}.dump();
}

const std::string kList = allowList("0a1b", R"({"org.example.Notes": [{"encoding_id": 9}],
                                               "org.example.Maps": [{"encoding_id": 1}],
                                               "org.example.Later": [{"encoding_id": 30}]})");

class AppWhitelistControllerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    assembly = std::make_shared<Assembly>(test::platformForTesting(dir.path(), clock));
    assembly->userDefaults = std::make_shared<Preferences>(assembly->platform.paths.configDir, kServiceName);
    assembly->notificationCenter = assembly->platform.notificationCenter;
    apps = std::make_shared<test::FakeInstalledApplications>(assembly->notificationCenter);
    apps->setApplications({{"org.example.Notes", "1.0"}, {"org.example.Maps", "2"}});
    assembly->platform.installedApplications = apps;
    downloads = std::make_shared<test::FakeDownloadManager>(dir / "resources", assembly->notificationCenter);
    assembly->downloadManager = downloads;
    assembly->requestFactory = VORNetworkRequestFactory::create(*assembly);
  }
  void TearDown() override {
    controller.reset();
    assembly.reset();
  }

  std::shared_ptr<AppWhitelistController> start() {
    controller = AppWhitelistController::create(*assembly);
    controller->drainForTesting();
    return controller;
  }

  // The header a search request carries now.
  std::optional<std::string> header() {
    VORBag bag(Value::Dict{{"enabled", true}, {"search_url", "http://127.0.0.1:9/search"}}, "Voyant/1");
    VORSearchRequest q;
    q.queryString = "notes";
    auto request = assembly->requestFactory->searchRequest(q, bag, Uuid(), VORRequestClient{});
    EXPECT_TRUE(request);
    return request ? request->header("X-Velmo-Whitelisted-App-Signature") : std::nullopt;
  }
  std::optional<std::string> stored() const {
    return assembly->userDefaults->stringForKey(AppWhitelistController::kSignaturePreference);
  }
  static std::string expected(const std::string& file, const std::vector<InstalledApplication>& installed) {
    return processWhitelist(std::span(reinterpret_cast<const uint8_t*>(file.data()), file.size()), installed)
        .value_or("(none)");
  }

  test::TempDir dir;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  std::shared_ptr<Assembly> assembly;
  std::shared_ptr<test::FakeInstalledApplications> apps;
  std::shared_ptr<test::FakeDownloadManager> downloads;
  std::shared_ptr<AppWhitelistController> controller;
};

TEST_F(AppWhitelistControllerTest, GeneratesAtStartWhenNothingIsStoredAndRequestsCarryIt) {
  test::writeFile(downloads->pathOf(kVORInstalledAppWhitelistResource), kList);
  start();
  const std::string signature = expected(kList, apps->installedApplications());
  EXPECT_EQ(controller->whitelistSignature(), signature);
  EXPECT_EQ(stored(), signature);
  EXPECT_EQ(header(), signature);
}

TEST_F(AppWhitelistControllerTest, AStoredSignatureIsUsedAsItIsUntilSomethingChanges) {
  assembly->userDefaults->set(AppWhitelistController::kSignaturePreference, Value("c3RvcmVk"));
  test::writeFile(downloads->pathOf(kVORInstalledAppWhitelistResource), kList);
  start();
  EXPECT_EQ(controller->whitelistSignature(), "c3RvcmVk");
  EXPECT_EQ(header(), "c3RvcmVk");
}

TEST_F(AppWhitelistControllerTest, OnlyTheAllowListsDownloadRegenerates) {
  start();
  EXPECT_FALSE(controller->whitelistSignature()) << "no file yet";
  EXPECT_FALSE(header());

  downloads->store(kVORLookupHintsWeeklyResource, kList);
  controller->drainForTesting();
  EXPECT_FALSE(controller->whitelistSignature()) << "another resource is ignored";

  downloads->store(kVORInstalledAppWhitelistResource, kList);
  controller->drainForTesting();
  EXPECT_EQ(controller->whitelistSignature(), expected(kList, apps->installedApplications()));
  EXPECT_EQ(header(), controller->whitelistSignature());
}

TEST_F(AppWhitelistControllerTest, AppChangesAreDebouncedToOneGenerationSixtySecondsAfterTheLast) {
  test::writeFile(downloads->pathOf(kVORInstalledAppWhitelistResource), kList);
  start();
  const auto before = controller->whitelistSignature();
  ScopedLogCapture capture;
  std::vector<InstalledApplication> more{
      {"org.example.Notes", "1.0"}, {"org.example.Maps", "2"}, {"org.example.Later", "1"}};
  for (int i = 0; i < 3; ++i) {
    apps->setApplications(more);
    clock->advance(std::chrono::seconds(59));
    controller->drainForTesting();
    EXPECT_EQ(controller->whitelistSignature(), before) << "burst step " << i;
  }
  clock->advance(std::chrono::seconds(1));
  controller->drainForTesting();
  EXPECT_EQ(controller->whitelistSignature(), expected(kList, more));
  EXPECT_NE(controller->whitelistSignature(), before);
  EXPECT_EQ(capture.sink().count("generating app whitelist"), 1u);
  EXPECT_FALSE(controller->debounceArmedForTesting());
}

TEST_F(AppWhitelistControllerTest, FailuresRemoveThePreferenceAndTheHeader) {
  test::writeFile(downloads->pathOf(kVORInstalledAppWhitelistResource), kList);
  start();
  ASSERT_TRUE(stored());
  struct Step {
    const char* what;
    std::function<void()> act;
  } steps[] = {
      {"a broken file", [&] { downloads->store(kVORInstalledAppWhitelistResource, "{\"apps\": 4}"); }},
      {"no installed app listed",
       [&] {
         apps->setApplications({{"org.example.Other", "1"}});
         downloads->store(kVORInstalledAppWhitelistResource, kList);
       }},
      {"the file gone",
       [&] {
         std::filesystem::remove(downloads->pathOf(kVORInstalledAppWhitelistResource));
         assembly->notificationCenter->post(
             kVORFileDownloadCompletedNotification, nullptr,
             Value::dict({{kVORIdentifierKey, Value(kVORInstalledAppWhitelistResource)}}));
       }},
  };
  for (const Step& s : steps) {
    SCOPED_TRACE(s.what);
    // Back to a good state first, so each step starts from a stored signature.
    apps->setApplications({{"org.example.Notes", "1.0"}});
    downloads->store(kVORInstalledAppWhitelistResource, kList);
    controller->drainForTesting();
    ASSERT_TRUE(stored());
    s.act();
    controller->drainForTesting();
    EXPECT_FALSE(controller->whitelistSignature());
    EXPECT_FALSE(stored());
    EXPECT_FALSE(header());
  }
}

TEST_F(AppWhitelistControllerTest, AMissingFileIsLoggedWithTheManagersError) {
  ScopedLogCapture capture;
  start();
  EXPECT_TRUE(capture.sink().contains("error reading app whitelist VORErrorDomain 404: not found"));
}

}  // namespace
}  // namespace vorlen
