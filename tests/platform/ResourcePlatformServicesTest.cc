// The file-backed platform services behind subscriptions and look-up hints: the TV-provider subscription
// registry (subscriptions.json), the media store preferences and the data-detector store.
#include <gtest/gtest.h>

#include <fcntl.h>

#include "base/Preferences.h"
#include "base/UniqueFd.h"
#include "platform/DataDetectorStore.h"
#include "platform/MediaStore.h"
#include "platform/SubscriptionRegistry.h"
#include "support/TempDir.h"

namespace vorlen {
namespace {

TEST(SubscriptionRegistryTest, FetchAnswersAllowListedEntriesAndBadFilesAreErrors) {
  test::TempDir dir;
  auto center = NotificationCenter::create();
  int changes = 0;
  auto token = center->addObserver(kPlatformActiveSubscriptionsDidChangeNotification, nullptr,
                                   [&](const Notification&) { ++changes; });
  FileSubscriptionRegistry registry(dir / "subscriptions.json", center);
  SubscriptionFetchOptions options{{"org.example.tv"}, {"video.example"}};
  std::string error;
  auto none = registry.activeSubscriptions(options, &error);
  ASSERT_TRUE(none) << "a missing file holds no subscriptions";
  EXPECT_TRUE(none->empty());

  test::writeFile(dir / "subscriptions.json", R"({"subscriptions": [
      {"provider": "tv", "bundleIdentifier": "org.example.tv", "type": {"tier": "gold"}, "modified": 1767225000},
      {"provider": "web", "domain": "video.example", "modified": 1767225600.5},
      {"provider": "other", "bundleIdentifier": "org.other", "domain": "x.example", "modified": 1},
      {"provider": "no date", "bundleIdentifier": "org.example.tv"},
      {"provider": 7, "bundleIdentifier": "org.example.tv", "modified": 1},
      "not an entry"]})");
  registry.checkForChanges();
  EXPECT_EQ(changes, 1);
  registry.checkForChanges();
  EXPECT_EQ(changes, 1);
  auto found = registry.activeSubscriptions(options, &error);
  ASSERT_TRUE(found) << error;
  ASSERT_EQ(found->size(), 2u);
  EXPECT_EQ((*found)[0].providerIdentifier, "tv");
  EXPECT_EQ((*found)[0].subscriptionInfo, Value::dict({{"tier", Value("gold")}}));
  EXPECT_EQ((*found)[0].modificationDate, fromUnixSeconds(1767225000));
  EXPECT_EQ((*found)[1].providerIdentifier, "web");
  EXPECT_TRUE((*found)[1].subscriptionInfo.isNull());

  for (const std::string& bad : {std::string("[1]"), std::string("{\"subscriptions\": {}}"), std::string("{"),
                                 std::string(1 << 21, ' ')}) {
    test::writeFile(dir / "subscriptions.json", bad);
    error.clear();
    EXPECT_FALSE(registry.activeSubscriptions(options, &error));
    EXPECT_FALSE(error.empty());
  }
}

TEST(MediaStoreTest, PreferencesGiveStatusAndStorefrontAndChangesAreAnnounced) {
  test::TempDir dir;
  auto defaults = std::make_shared<Preferences>(dir.path(), "com.velmo.vorlend");
  auto center = NotificationCenter::create();
  std::vector<std::string> posted;
  auto t1 = center->addObserver(kPlatformMediaStoreSubscriptionStatusDidChangeNotification, nullptr,
                                [&](const Notification& n) { posted.push_back(n.name); });
  auto t2 = center->addObserver(kPlatformStorefrontDidChangeNotification, nullptr,
                                [&](const Notification& n) { posted.push_back(n.name); });
  PreferencesMediaStore store(defaults, center);
  EXPECT_EQ(store.subscriptionAccountStatus(), 0);
  EXPECT_FALSE(store.storefrontIdentifier());
  defaults->set(PreferencesMediaStore::kAccountStatusKey, Value(int64_t{3}));
  store.checkForChanges();
  defaults->set(PreferencesMediaStore::kStorefrontKey, Value("143441"));
  store.checkForChanges();
  store.checkForChanges();
  EXPECT_EQ(posted, (std::vector<std::string>{kPlatformMediaStoreSubscriptionStatusDidChangeNotification,
                                              kPlatformStorefrontDidChangeNotification}));
  EXPECT_EQ(store.subscriptionAccountStatus(), MediaStore::kSubscribedStatus);
  EXPECT_EQ(store.storefrontIdentifier(), "143441");
}

TEST(DataDetectorStoreTest, PushedSourcesAreCopiedWithTheirSignatureAndRemovedByAnEmptyPush) {
  test::TempDir dir;
  FileDataDetectorStore store(dir / "datadetectors");
  test::writeFile(dir / "hints", "weekly hints");
  UniqueFd fd(::open((dir / "hints").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(store.pushSource(2, fd.get(), "11-25-2026"));
  EXPECT_EQ(test::readFile(store.sourcePath(2)), "weekly hints");
  EXPECT_EQ(test::fileMode(store.sourcePath(2)), 0600u);
  EXPECT_EQ(store.signatureForSourceKind(2), "11-25-2026");
  EXPECT_FALSE(store.signatureForSourceKind(3));

  ASSERT_TRUE(store.pushSource(2, -1, ""));
  EXPECT_FALSE(std::filesystem::exists(store.sourcePath(2)));
  EXPECT_FALSE(store.signatureForSourceKind(2));

  EXPECT_FALSE(store.pushSource(-1, fd.get(), "x"));
  EXPECT_FALSE(store.pushSource(FileDataDetectorStore::kMaxSourceKind + 1, fd.get(), "x"));
  EXPECT_FALSE(store.pushSource(3, 12345, "x")) << "an unreadable descriptor";
  EXPECT_FALSE(store.signatureForSourceKind(3));
}

}  // namespace
}  // namespace vorlen
