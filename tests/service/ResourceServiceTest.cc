// Resource files end to end inside one process: the real bag controller and download manager on a manual
// clock, the reference service on loopback, and a client (libvorlen-client on a real socket) that receives
// a resource as a descriptor and hears about downloads and deletions.
#include <unistd.h>

#include <mutex>

#include "client/VorlenClient.h"
#include "download/VorlenDownloadManager.h"
#include "model/VORRequest.h"
#include "network/AppWhitelistController.h"
#include "network/HttpSessions.h"
#include "network/HttpTestSupport.h"
#include "network/VORNetworkRequestFactory.h"
#include "network/VorlenBagController.h"
#include "network/VorlenUserGUIDController.h"
#include "service/ServiceTestSupport.h"
#include "support/PlatformFakes.h"
#include "support/TempDir.h"
#include "support/WaitCounter.h"
#include "vorlen-refserver/RefServer.h"
#include "vorlen-refserver/ResourceFiles.h"

namespace vorlen {
namespace {

using test::eventually;

constexpr const char* kAllowList = "installed_app_whitelist";
constexpr const char* kMonthly = "lookup_hints_monthly";

class ResourceServiceTest : public test::ServiceFixture {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.start());
    start();
  }
  void TearDown() override {
    client.reset();
    if (assembly) assembly->appWhitelistController.reset();
    ServiceFixture::TearDown();
  }

  void prepareAssembly() override {
    assembly->userDefaults->set("VORBagURL", Value(server.baseURL() + "/bag"));
    assembly->diskBagCacheEnabled = false;
    assembly->httpSessions =
        std::make_shared<HttpSessions>(assembly->userDefaults, clock, platform.paths.tempDir);
    assembly->guidController = VorlenUserGUIDController::create(*assembly);
    assembly->requestFactory = VORNetworkRequestFactory::create(*assembly);
    VorlenDownloadManager::Settings settings;
    settings.lookupEnabled = [] { return true; };
    downloads = VorlenDownloadManager::create(assembly, settings);
    assembly->downloadManager = downloads;
    bags = VorlenBagController::create(assembly);
    assembly->bagController = bags;
    // Two of the sample allow-list's applications are installed.
    auto apps = std::make_shared<test::FakeInstalledApplications>();
    apps->setApplications({{"firefox", "128.0"}, {"thunderbird", "115.0"}});
    assembly->platform.installedApplications = apps;
    assembly->appWhitelistController = AppWhitelistController::create(*assembly);
  }

  void connectClient() {
    VorlenClientOptions options;
    options.socketPath = platform.paths.serviceSocket;
    options.runtime = runtime;
    client = VorlenClient::create(options);
    client->onDidDownloadResource([this](const std::string& id) { heard("downloaded " + id); });
    client->onDidDeleteResource([this](const std::string& id) { heard("deleted " + id); });
    VORSessionConfiguration configuration;
    configuration.identifier = "com.example.reader";
    configuration.userAgent = "reader/1.0";
    ASSERT_TRUE(client->configure(configuration).ok());
  }

  void heard(std::string what) {
    {
      std::lock_guard lock(mu);
      events.push_back(std::move(what));
    }
    eventCount.add();
  }
  std::vector<std::string> heardEvents() {
    std::lock_guard lock(mu);
    return events;
  }

  RefServer server;
  std::shared_ptr<VorlenDownloadManager> downloads;
  std::shared_ptr<VorlenBagController> bags;
  std::shared_ptr<VorlenClient> client;
  std::mutex mu;
  std::vector<std::string> events;
  test::WaitCounter eventCount;
};

TEST_F(ResourceServiceTest, BagResourcesReachClientsAndDroppedOnesDisappear) {
  connectClient();  // the configuration fetches the bag, which lists three resources
  ASSERT_TRUE(eventually([&] { return bags->cachedBagState().has_value(); }));
  ASSERT_TRUE(eventually([&] { return downloads->allResources().size() == 3; }));

  // The 60 s delay passes in virtual time; a call half way keeps the connection from idling out.
  clock->advance(std::chrono::seconds(30));
  ASSERT_TRUE(client->listSessions().ok());
  EXPECT_EQ(server.requestCount("/resources/installed_app_whitelist"), 0u);
  clock->advance(std::chrono::seconds(30));
  ASSERT_TRUE(eventCount.waitFor(3));
  std::vector<std::string> downloaded = heardEvents();
  std::sort(downloaded.begin(), downloaded.end());
  EXPECT_EQ(downloaded,
            (std::vector<std::string>{"downloaded installed_app_whitelist", "downloaded lookup_hints_monthly",
                                      "downloaded lookup_hints_weekly"}));

  // The allow-list arrives as a read-only descriptor with its attributes.
  ASSERT_TRUE(eventually([&] { return downloads->resourceVersions().contains(kAllowList); }));
  ClientResult<ResourceFile> file = client->fileHandleForResource(kAllowList);
  ASSERT_TRUE(file.ok()) << file.errorText();
  ASSERT_TRUE(file.value->file);
  const std::string expected = server.resources().contentOf(kAllowList);
  std::string content(expected.size() + 16, '\0');
  content.resize(static_cast<size_t>(::read(file.value->file.get(), content.data(), content.size())));
  EXPECT_EQ(content, expected);
  EXPECT_EQ(file.value->attributes.at(kVORResourceAttributeSize), Value(uint64_t{expected.size()}));
  EXPECT_EQ(file.value->attributes.at(kVORResourceAttributeVersion), Value("1"));
  EXPECT_EQ(::write(file.value->file.get(), "x", 1), -1) << "the client cannot write the daemon's file";

  ClientResult<ResourceFile> unknown = client->fileHandleForResource("no_such_resource");
  ASSERT_TRUE(unknown.ok());
  EXPECT_FALSE(unknown.value->file);
  ASSERT_TRUE(unknown.value->error);
  EXPECT_EQ(unknown.value->error->code, 404);

  // The next bag drops the monthly hints: the file goes and the client hears of it.
  ResourceFiles::Control monthly = *server.resources().control(kMonthly);
  monthly.listed = false;
  server.resources().setControl(kMonthly, monthly);
  RefServer::BagControl next;
  next.version = "2";
  server.setBagControl(next);
  ASSERT_TRUE(eventually([&] {
    bags->forceFetchBag(Value::Dict{{"bag", Value(int64_t{2})}});
    auto bag = bags->cachedBagState();
    return bag && bag->version() == "2";
  }));
  ASSERT_TRUE(eventCount.waitFor(4));
  EXPECT_EQ(heardEvents().back(), "deleted lookup_hints_monthly");
  EXPECT_FALSE(std::filesystem::exists(downloads->resourcesFolder() / kMonthly));
  EXPECT_TRUE(std::filesystem::exists(downloads->resourcesFolder() / kAllowList));
}

TEST_F(ResourceServiceTest, TheArrivingAllowListGivesRequestsTheInstalledAppsSignature) {
  connectClient();
  auto signature = [&] { return assembly->appWhitelistController->whitelistSignature(); };
  EXPECT_FALSE(signature()) << "no allow-list yet, no signature";
  ASSERT_TRUE(eventually([&] { return downloads->allResources().size() == 3; }));
  // The 60 s delay passes, with a call half way so that the connection does not idle out.
  clock->advance(std::chrono::seconds(30));
  ASSERT_TRUE(client->listSessions().ok());
  clock->advance(std::chrono::seconds(30));
  ASSERT_TRUE(eventually([&] { return signature().has_value(); }));
  EXPECT_FALSE(signature()->empty());

  VORSearchRequest search;
  search.queryId = 1;
  search.queryString = "firefox";
  ASSERT_TRUE(client->request(search).ok());
  std::string sent;
  for (const auto& r : server.requests())
    if (r.path == "/search") sent = r.header("X-Velmo-Whitelisted-App-Signature");
  EXPECT_EQ(sent, *signature());
}

}  // namespace
}  // namespace vorlen
