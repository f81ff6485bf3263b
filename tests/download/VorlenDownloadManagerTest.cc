#include "download/VorlenDownloadManager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fcntl.h>

#include <mutex>
#include <set>

#include "base/Counters.h"
#include "base/JsonValue.h"
#include "base/Log.h"
#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "base/Transaction.h"
#include "feedback/ClientSessionManagerProtocol.h"
#include "model/Constants.h"
#include "model/VORBag.h"
#include "network/HttpSessions.h"
#include "network/HttpTestSupport.h"
#include "network/VORNetworkRequestFactory.h"
#include "platform/Assembly.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"
#include "support/WaitCounter.h"
#include "vorlen-refserver/RefServer.h"
#include "vorlen-refserver/ResourceFiles.h"

namespace vorlen {
namespace {

using test::eventually;

constexpr const char* kAllowList = "installed_app_whitelist";
constexpr const char* kWeekly = "lookup_hints_weekly";
constexpr const char* kMonthly = "lookup_hints_monthly";

// The look-up component's signature of a hints address: path parts 3, 4 and 2 joined by "-".
std::string hintsSignature(const std::string& url) {
  std::vector<std::string> parts;
  std::string path = url.substr(url.find('/', url.find("://") + 3));
  path = path.substr(0, path.find('?'));
  size_t start = 0;
  for (size_t slash; (slash = path.find('/', start)) != std::string::npos; start = slash + 1)
    parts.push_back(path.substr(start, slash - start));
  parts.push_back(path.substr(start));
  if (parts.size() <= 4) return "";
  return parts[3] + "-" + parts[4] + "-" + parts[2];
}

// Error reports reach the session manager as error feedback; their reasons are kept.
class ReportingSessionManager final : public ClientSessionManagerProtocol {
 public:
  void addVorlenFeedback(VorlenFeedback feedback) override {
    const Value* error = feedback.feedback.field("error");
    std::string reason;
    if (error) {
      if (const Value* info = error->find("userInfo"))
        if (const Value* r = info->find("reason"); r && r->getString()) reason = *r->getString();
    }
    {
      std::lock_guard lock(mu_);
      reasons_.push_back(reason);
    }
    count.add();
  }
  void flushSessionInvalidationWithAgent(const std::string&, std::function<void(bool)> callback) override {
    if (callback) callback(false);
  }
  Value::Array currentSessionFeedbacksWithRelativeTimestamp() override { return {}; }
  std::vector<std::string> reasons() const {
    std::lock_guard lock(mu_);
    return reasons_;
  }
  test::WaitCounter count;

 private:
  mutable std::mutex mu_;
  std::vector<std::string> reasons_;
};

class DownloadManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.start());
    platform = test::platformForTesting(dir / "root", clock);
    Counters::install(platform.counters);
    assembly = std::make_shared<Assembly>(platform);
    assembly->userDefaults = std::make_shared<Preferences>(platform.paths.configDir, "com.velmo.vorlend");
    assembly->notificationCenter = platform.notificationCenter;
    assembly->httpSessions =
        std::make_shared<HttpSessions>(assembly->userDefaults, clock, platform.paths.tempDir);
    assembly->requestFactory = VORNetworkRequestFactory::create(*assembly);
    assembly->clientSessionManager = reports;
    for (const char* name : {kVORFileDownloadCompletedNotification, kVORFileDeletedNotification}) {
      tokens.push_back(
          assembly->notificationCenter->addObserver(name, nullptr, [this](const Notification& n) {
            const Value* id = n.userInfo.find(kVORIdentifierKey);
            {
              std::lock_guard lock(mu);
              posted.push_back(n.name + " " + (id && id->getString() ? *id->getString() : "?"));
            }
            postedCount.add();
          }));
    }
    makeManager();
  }

  void TearDown() override {
    tokens.clear();
    manager.reset();
    assembly->clientSessionManager.reset();
  }

  // A manager as a restarted daemon makes it: the download session takes its delegate when it is made,
  // so a new process has a new one.
  void restartManager(VorlenDownloadManager::Settings settings = {}, std::filesystem::path tempDir = {}) {
    manager.reset();
    assembly->httpSessions = std::make_shared<HttpSessions>(
        assembly->userDefaults, clock, tempDir.empty() ? platform.paths.tempDir : tempDir);
    makeManager(std::move(settings));
  }

  void makeManager(VorlenDownloadManager::Settings settings = {}) {
    if (!settings.lookupEnabled) settings.lookupEnabled = [this] { return lookupEnabled.load(); };
    if (!settings.signatureFromURL) settings.signatureFromURL = hintsSignature;
    manager = VorlenDownloadManager::create(assembly, std::move(settings));
  }

  // The bag the reference service serves now, as the bag controller would announce it.
  Value::Dict servedBag() {
    std::string error;
    auto value = JsonValue::toValue(nlohmann::json::parse(server.bagBody()), &error);
    EXPECT_TRUE(value && value->getDict()) << error;
    return *value->getDict();
  }
  void postBag(Value::Dict raw) {
    Notification n;
    n.name = kVORBagChangeNotification;
    n.object = std::make_shared<const VORBag>(std::move(raw), "test/1");
    assembly->notificationCenter->post(n);
    manager->resourceForKey("");  // the reconciliation has run once this returns
  }
  void set(const std::string& identifier, std::function<void(ResourceFiles::Control&)> change) {
    auto c = *server.resources().control(identifier);
    change(c);
    server.resources().setControl(identifier, c);
  }
  // Posts the served bag, lets the 60 s pass and waits for `notifications` more posts.
  void reconcile(int notifications) {
    int target = postedCount.value() + notifications;
    postBag(servedBag());
    clock->advance(std::chrono::seconds(60));
    ASSERT_TRUE(postedCount.waitFor(target));
  }
  std::vector<std::string> postedNotifications() {
    std::lock_guard lock(mu);
    return posted;
  }
  std::filesystem::path fileOf(const std::string& identifier) {
    return manager->resourcesFolder() / identifier;
  }
  size_t requestsFor(const std::string& identifier) {
    return server.requestCount("/resources/" + identifier);
  }

  test::TempDir dir;
  RefServer server;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  Platform platform;
  std::shared_ptr<Assembly> assembly;
  std::shared_ptr<ReportingSessionManager> reports = std::make_shared<ReportingSessionManager>();
  std::shared_ptr<VorlenDownloadManager> manager;
  std::atomic<bool> lookupEnabled{true};
  std::vector<std::unique_ptr<NotificationCenter::Token>> tokens;
  std::mutex mu;
  std::vector<std::string> posted;
  test::WaitCounter postedCount;
};

TEST_F(DownloadManagerTest, BagResourcesArriveAfterTheDelayAndAreServedReadOnly) {
  const int64_t idle = Transaction::openCount();
  postBag(servedBag());
  EXPECT_TRUE(manager->hasStartedForTesting());
  EXPECT_EQ(Transaction::openCount(), idle + 3) << "a waiting download keeps the daemon alive";
  clock->advance(std::chrono::seconds(59));
  EXPECT_EQ(requestsFor(kAllowList), 0u) << "nothing is fetched before the 60 s delay";
  clock->advance(std::chrono::seconds(1));
  ASSERT_TRUE(postedCount.waitFor(3));
  EXPECT_TRUE(eventually([&] { return Transaction::openCount() == idle; }));

  for (const char* id : {kAllowList, kWeekly, kMonthly}) {
    EXPECT_EQ(test::readFile(fileOf(id)), server.resources().contentOf(id)) << id;
    EXPECT_EQ(test::fileMode(fileOf(id)), 0600u) << id;
  }
  EXPECT_EQ(test::fileMode(manager->resourcesFolder()), 0700u);
  // The request carried the identifier header and the API key; the record keeps the address without it.
  auto request = server.requests();
  auto allowList = std::find_if(request.begin(), request.end(),
                                [](const auto& r) { return r.path == "/resources/installed_app_whitelist"; });
  ASSERT_NE(allowList, request.end());
  EXPECT_EQ(allowList->header("X-Velmo-Download-Identifier"), kAllowList);
  EXPECT_EQ(allowList->header("If-None-Match"), "") << "nothing held yet, so no version is sent";
  ASSERT_TRUE(eventually([&] { return manager->resourceVersions().size() == 3; }));
  auto record = manager->resourceForKey(kAllowList);
  ASSERT_TRUE(record && record->url);
  EXPECT_EQ(*record->url, server.baseURL() + "/resources/installed_app_whitelist?version=1");
  EXPECT_FALSE(record->redirectUrl);
  auto weekly = manager->resourceForKey(kWeekly);
  ASSERT_TRUE(weekly && weekly->redirectUrl);
  EXPECT_EQ(*weekly->redirectUrl, server.baseURL() + "/hints/lookup_hints_weekly/1/all");
  EXPECT_EQ(manager->resourceVersions(),
            (std::map<std::string, std::string>{{kAllowList, "1"},
                                                {kMonthly, server.resources().tagOf(kMonthly)},
                                                {kWeekly, server.resources().tagOf(kWeekly)}}));
  // Each resource counts once for its completed transfer and once for its stored file.
  EXPECT_EQ(platform.counters->value(VorlenDownloadManager::kFetchedCounter), 6);
  EXPECT_TRUE(assembly->userDefaults->dictionaryForKey("download_resources")->contains(kWeekly));

  Value::Dict attributes;
  VORError error;
  UniqueFd fd = manager->fileHandleForResource(kAllowList, &attributes, &error);
  ASSERT_TRUE(fd);
  EXPECT_EQ(::fcntl(fd.get(), F_GETFL) & O_ACCMODE, O_RDONLY);
  std::string content = server.resources().contentOf(kAllowList);
  std::string read(content.size() + 8, '\0');
  read.resize(static_cast<size_t>(::read(fd.get(), read.data(), read.size())));
  EXPECT_EQ(read, content);
  EXPECT_EQ(attributes.at(kVORResourceAttributeSize), Value(uint64_t{content.size()}));
  EXPECT_EQ(attributes.at(kVORResourceAttributeVersion), Value("1"));
  EXPECT_EQ(reports->count.value(), 0);
}

TEST_F(DownloadManagerTest, ReconciliationFetchesOnlyWhatChangedIsMissingOrIsAHintsFile) {
  reconcile(3);
  ASSERT_TRUE(eventually([&] { return manager->resourceVersions().size() == 3; }));

  struct Case {
    const char* name;
    std::function<void(Value::Dict& bag)> change;  // made before the bag is posted again
    std::multiset<std::string> reasons;            // of the downloads that start
  };
  const std::multiset<std::string> hints = {"lookup", "lookup"};
  // The allow-list's next version at an address with two more items, in the bag's order or reversed.
  auto reorder = [&](bool reversed) {
    return [&, reversed](Value::Dict& bag) {
      set(kAllowList, [](auto& c) { c.version = "3"; });
      std::string url = *bag.at(kAllowList).getString();
      std::string base = url.substr(0, url.find('?') + 1);
      bag[kAllowList] = Value(base + (reversed ? "zz=1&version=3&aa=2&key=k" : "aa=2&key=k&version=3&zz=1"));
    };
  };
  const std::vector<Case> cases = {
      {"same bag: only the hints are fetched again", [](Value::Dict&) {}, hints},
      {"another API key changes nothing",
       [](Value::Dict& bag) {
         std::string url = *bag.at(kAllowList).getString();
         bag[kAllowList] = Value(url.substr(0, url.find("key=")) + "key=another");
       },
       hints},
      {"a new version is an update",
       [&](Value::Dict& bag) {
         set(kAllowList, [](auto& c) { c.version = "2"; });
         bag = servedBag();
       },
       {"update", "lookup", "lookup"}},
      {"a file removed from disk is missing",
       [&](Value::Dict&) { std::filesystem::remove(fileOf(kAllowList)); },
       {"missing", "lookup", "lookup"}},
      {"look-up switched off: no hints", [&](Value::Dict&) { lookupEnabled = false; }, {}},
      {"more query items are an update", reorder(false), {"update"}},
      {"the same items in another order change nothing", reorder(true), {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Value::Dict bag = servedBag();
    c.change(bag);
    const int64_t counted = platform.counters->value(VorlenDownloadManager::kFetchedCounter);
    ScopedLogCapture capture;
    postBag(bag);
    clock->advance(std::chrono::seconds(60));  // the downloads start within this call
    std::multiset<std::string> reasons;
    for (const auto& r : capture.sink().records()) {
      if (!r.message.starts_with("starting download of ")) continue;
      size_t at = r.message.find("reason: ") + 8;
      reasons.insert(r.message.substr(at, r.message.find(' ', at) - at));
    }
    EXPECT_EQ(reasons, c.reasons);
    // Hints answered "not modified" count once, stored files twice; wait for them before the next bag.
    const int64_t expected = counted + 2 * static_cast<int64_t>(c.reasons.size()) -
                             static_cast<int64_t>(c.reasons.count("lookup"));
    ASSERT_TRUE(eventually(
        [&] { return platform.counters->value(VorlenDownloadManager::kFetchedCounter) == expected; }));
  }
  EXPECT_EQ(test::readFile(fileOf(kAllowList)), server.resources().contentOf(kAllowList));
  EXPECT_EQ(manager->resourceVersions().at(kAllowList), "3");
}

TEST_F(DownloadManagerTest, NotModifiedKeepsTheFileAndAGoneFileIsAskedForInFull) {
  reconcile(3);
  ASSERT_TRUE(eventually([&] { return manager->resourceVersions().size() == 3; }));
  const uint64_t inode = test::fileInode(fileOf(kWeekly));
  const int counted = static_cast<int>(platform.counters->value(VorlenDownloadManager::kFetchedCounter));

  // The hints are fetched again with their signature as If-None-Match and answered 304.
  postBag(servedBag());
  clock->advance(std::chrono::seconds(60));
  ASSERT_TRUE(eventually(
      [&] { return platform.counters->value(VorlenDownloadManager::kFetchedCounter) == counted + 2; }));
  EXPECT_EQ(test::fileInode(fileOf(kWeekly)), inode);
  EXPECT_EQ(postedCount.value(), 3) << "a 304 announces nothing";
  std::string sent;
  for (const auto& r : server.requests())
    if (r.path.starts_with("/hints/lookup_hints_weekly/")) sent = r.header("If-None-Match");
  EXPECT_EQ(sent, server.resources().tagOf(kWeekly));

  // The file goes away after the decision but before the transfer: the 304 that comes back cannot keep
  // anything, so the address is forgotten and the next bag fetches the file in full.
  postBag(servedBag());
  std::filesystem::remove(fileOf(kWeekly));
  ScopedLogCapture capture;
  clock->advance(std::chrono::seconds(60));
  ASSERT_TRUE(eventually([&] {
    return capture.sink().contains(
        "download of lookup_hints_weekly got a 304 response but no file is stored");
  }));
  EXPECT_FALSE(manager->resourceForKey(kWeekly)->url);
  reconcile(1);
  EXPECT_EQ(test::readFile(fileOf(kWeekly)), server.resources().contentOf(kWeekly));
}

TEST_F(DownloadManagerTest, DroppedResourcesAreDeletedAndAnnounced) {
  reconcile(3);
  set(kMonthly, [](auto& c) { c.listed = false; });
  postBag(servedBag());
  ASSERT_TRUE(postedCount.waitFor(4));
  EXPECT_EQ(postedNotifications().back(), std::string(kVORFileDeletedNotification) + " " + kMonthly);
  EXPECT_FALSE(std::filesystem::exists(fileOf(kMonthly)));
  EXPECT_FALSE(manager->resourceForKey(kMonthly));
  EXPECT_FALSE(assembly->userDefaults->dictionaryForKey("download_resources")->contains(kMonthly));
  VORError error;
  EXPECT_FALSE(manager->fileHandleForResource(kMonthly, nullptr, &error));
  EXPECT_EQ(error.code, 404);
  EXPECT_EQ(error.domain, kVORErrorDomain);

  // A bag without the list drops everything.
  Value::Dict bag = servedBag();
  bag.erase("download_resources_list");
  postBag(bag);
  ASSERT_TRUE(postedCount.waitFor(6));
  EXPECT_TRUE(manager->allResources().empty());
  EXPECT_TRUE(std::filesystem::is_empty(manager->resourcesFolder()));
}

TEST_F(DownloadManagerTest, FailedTransfersAreReportedAndCancelledOnesAreNot) {
  struct Case {
    const char* name;
    std::function<void(ResourceFiles::Control&)> mode;
    std::string reasonPrefix;
  };
  const std::vector<Case> cases = {
      {"server error", [](auto& c) { c.mode = ResourceFiles::Mode::Status; }, "status code 500"},
      {"redirect loop", [](auto& c) { c.mode = ResourceFiles::Mode::Loop; }, "status code 302"},
      {"cut off half way", [](auto& c) { c.mode = ResourceFiles::Mode::Cut; },
       "download error VORURLErrorDomain"},
  };
  set(kWeekly, [](auto& c) { c.listed = false; });
  set(kMonthly, [](auto& c) { c.listed = false; });
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    set(kAllowList, [&](auto& control) {
      control = ResourceFiles::Control{};
      c.mode(control);
    });
    int before = reports->count.value();
    postBag(servedBag());
    clock->advance(std::chrono::seconds(60));
    ASSERT_TRUE(reports->count.waitFor(before + 1));
    EXPECT_TRUE(reports->reasons().back().starts_with(c.reasonPrefix)) << reports->reasons().back();
    EXPECT_FALSE(std::filesystem::exists(fileOf(kAllowList)));
    EXPECT_FALSE(manager->resourceForKey(kAllowList)->url) << "a failed transfer leaves the record as it was";
  }
  EXPECT_EQ(postedCount.value(), 0);

  // A transfer in flight when the next bag arrives is cancelled without a report; the new one succeeds.
  set(kAllowList, [](auto& c) {
    c = ResourceFiles::Control{};
    c.delayMs = 60000;
  });
  int reported = reports->count.value();
  size_t requested = requestsFor(kAllowList);
  postBag(servedBag());
  clock->advance(std::chrono::seconds(60));
  ASSERT_TRUE(eventually([&] { return requestsFor(kAllowList) == requested + 1; }));
  set(kAllowList, [](auto& c) { c.delayMs = 0; });
  reconcile(1);
  EXPECT_EQ(reports->count.value(), reported);
  EXPECT_EQ(test::readFile(fileOf(kAllowList)), server.resources().contentOf(kAllowList));
}

TEST_F(DownloadManagerTest, HostileIdentifiersNeverReachTheDisk) {
  struct Case {
    std::string identifier;
    bool valid;
  };
  const std::vector<Case> cases = {
      {"", false},
      {"/", false},
      {"a/b", false},
      {"..", false},
      {".", false},
      {".hidden", false},
      {"../bag.plist", false},
      {std::string("a\0b", 3), false},
      {std::string(256, 'x'), false},
      {std::string(255, 'x'), true},
      {"bag.plist", true},
      {"x..y", true},
  };
  Value::Dict bag;
  Value::Array list;
  for (const Case& c : cases) {
    ScopedLogCapture capture;
    EXPECT_EQ(VorlenDownloadManager::isValidResourceIdentifier(c.identifier), c.valid) << c.identifier;
    size_t lines = 0;
    for (const auto& r : capture.sink().records())
      lines += r.message.starts_with("refusing resource identifier");
    EXPECT_EQ(lines, c.valid ? 0u : 1u) << "one line per refused identifier";
    list.push_back(Value(c.identifier));
    bag[c.identifier] = Value(server.baseURL() + "/resources/installed_app_whitelist?version=1");
  }
  bag["download_resources_list"] = Value(list);
  postBag(bag);
  for (const Case& c : cases) EXPECT_EQ(manager->resourceForKey(c.identifier).has_value(), c.valid);

  // List entries that are not strings, and addresses that are not absolute, are refused with a line.
  {
    ScopedLogCapture capture;
    postBag(Value::Dict{{"download_resources_list", Value::array({Value(7), Value(kAllowList)})},
                        {kAllowList, Value("file:///etc/passwd")}});
    EXPECT_TRUE(
        capture.sink().contains("ignoring 1 entries of download_resources_list that are not strings"));
    EXPECT_TRUE(
        capture.sink().contains("resource installed_app_whitelist has no absolute address in the bag"));
    EXPECT_FALSE(manager->resourceForKey(kAllowList));
  }

  // A client asking for a path outside the folder, or for a planted link, gets "not found".
  test::writeFile(platform.paths.cachesDir / "secret", "not a resource");
  std::filesystem::create_directories(manager->resourcesFolder());
  std::filesystem::create_symlink(platform.paths.cachesDir / "secret", fileOf(kAllowList));
  for (const std::string& id : {std::string("../secret"), std::string(kAllowList), std::string("")}) {
    VORError error;
    EXPECT_FALSE(manager->fileHandleForResource(id, nullptr, &error)) << id;
    EXPECT_EQ(error.code, 404) << id;
  }
  // A download replaces the planted link instead of writing through it.
  reconcile(3);
  EXPECT_EQ(test::readFile(platform.paths.cachesDir / "secret"), "not a resource");
  EXPECT_FALSE(std::filesystem::is_symlink(fileOf(kAllowList)));
  EXPECT_EQ(test::readFile(fileOf(kAllowList)), server.resources().contentOf(kAllowList));
}

TEST_F(DownloadManagerTest, OversizedFilesAreAbandoned) {
  VorlenDownloadManager::Settings settings;
  settings.maxFileBytes = 4096;
  restartManager(settings);
  set(kAllowList, [](auto& c) { c.size = 4097; });
  ScopedLogCapture capture;
  reconcile(2);  // the two hints files
  ASSERT_TRUE(
      eventually([&] { return capture.sink().contains("error copying download installed_app_whitelist"); }));
  EXPECT_FALSE(std::filesystem::exists(fileOf(kAllowList)));

  // The download session itself stops a body past its limit instead of filling the disk.
  HttpSessionSettings limited = assembly->httpSessions->downloadSessionSettings();
  EXPECT_EQ(limited.maxDownloadBytes, 64u << 20);
  limited.maxDownloadBytes = 1000;
  struct Ends : HttpSessionDelegate {
    void didCompleteWithError(HttpSession&, const std::shared_ptr<HttpTask>&,
                              const std::optional<HttpError>& e) override {
      code = e ? e->code : 0;
      done.add();
    }
    std::atomic<long> code{0};
    test::WaitCounter done;
  };
  auto ends = std::make_shared<Ends>();
  auto delegated = HttpSession::create(limited, ends);
  delegated->downloadTask(HttpRequest{server.baseURL() + "/_echo?bytes=5000"})->resume();
  ASSERT_TRUE(ends->done.waitFor(1));
  EXPECT_EQ(ends->code.load(), HttpError::kDataLengthExceedsMaximum);
}

// Temporary files on another file system cannot be renamed into place; they are copied, then renamed.
TEST_F(DownloadManagerTest, DownloadsFromAnotherFileSystemAreCopiedIntoPlace) {
  struct stat shm {
  }, caches{};
  if (::stat("/dev/shm", &shm) != 0 || ::stat(platform.paths.cachesDir.c_str(), &caches) != 0 ||
      shm.st_dev == caches.st_dev)
    GTEST_SKIP() << "no second file system for temporary files";
  char pattern[] = "/dev/shm/vorlen-download-test-XXXXXX";
  ASSERT_NE(::mkdtemp(pattern), nullptr);
  std::filesystem::path elsewhere(pattern);
  restartManager({}, elsewhere);
  reconcile(3);
  for (const char* id : {kAllowList, kWeekly, kMonthly}) {
    EXPECT_EQ(test::readFile(fileOf(id)), server.resources().contentOf(id)) << id;
    EXPECT_EQ(test::fileMode(fileOf(id)), 0600u) << id;
  }
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(manager->resourcesFolder()))
    names.push_back(entry.path().filename().string());
  EXPECT_EQ(names.size(), 3u) << "no copy left behind";
  std::filesystem::remove_all(elsewhere);
}

TEST_F(DownloadManagerTest, RecordsSurviveARestartAndALocationChangeRefetchesTheHints) {
  reconcile(3);
  ASSERT_TRUE(eventually([&] { return manager->resourceVersions().size() == 3; }));
  auto versions = manager->resourceVersions();
  // A record without an address is not restored.
  Value::Dict stored = *assembly->userDefaults->dictionaryForKey("download_resources");
  stored["broken"] = Value(Value::Dict{{"url", Value("not an address")}});
  assembly->userDefaults->set("download_resources", Value(stored));

  restartManager();
  EXPECT_EQ(manager->resourceVersions(), versions);
  EXPECT_FALSE(manager->resourceForKey("broken"));

  manager->handleSignificantLocationChange();
  EXPECT_FALSE(manager->resourceForKey(kWeekly));
  EXPECT_TRUE(std::filesystem::exists(fileOf(kWeekly))) << "the file stays until it is replaced";
  ScopedLogCapture capture;
  reconcile(2);
  size_t updates = 0;
  for (const auto& r : capture.sink().records())
    if (r.message.find("reason: update") != std::string::npos) ++updates;
  EXPECT_EQ(updates, 2u);
}

TEST(DownloadManagerAddressTest, ComparisonFormDropsOnlyTheKey) {
  const std::vector<std::pair<std::string, std::optional<std::string>>> cases = {
      {"http://h/p?key=abc", "http://h/p"},
      {"http://h/p?a=1&key=abc&b=2", "http://h/p?a=1&b=2"},
      {"http://h/p?version=3&key=x&key=y", "http://h/p?version=3"},
      {"http://h/p", "http://h/p"},
      {"not an address", std::nullopt},
      {"/relative?key=1", std::nullopt},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(VorlenDownloadManager::urlForCompare(in), out) << in;
}

}  // namespace
}  // namespace vorlen
