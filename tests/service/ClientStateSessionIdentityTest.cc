// Whose GUID and session manager a client state uses: the shared ones, or with "VORSharedSession" off, its
// own, so that every client's GUIDs rotate and its sessions end independently.
#include <gtest/gtest.h>

#include "base/Log.h"
#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "feedback/ClientSessionManager.h"
#include "network/GUIDController.h"
#include "network/VorlenUserGUIDController.h"
#include "platform/Assembly.h"
#include "service/ClientState.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"

namespace vorlen {
namespace {

class ClientStateSessionIdentityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    assembly->userDefaults = std::make_shared<Preferences>(platform.paths.configDir, "com.velmo.vorlend");
    assembly->notificationCenter = platform.notificationCenter;
    assembly->guidController = VorlenUserGUIDController::create(*assembly);
    assembly->clientSessionManager =
        ClientSessionManager::create(assembly, assembly->guidController, "vorlen");
    Log::setSink(sink);
  }
  void TearDown() override {
    Log::setSink(nullptr);
    // The manager holds the Assembly that holds it: let go of it so the test's objects are freed.
    assembly->clientSessionManager.reset();
  }

  test::TempDir dir;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  Platform platform = test::platformForTesting(dir.path() / "root", clock);
  std::shared_ptr<Assembly> assembly = std::make_shared<Assembly>(platform);
  std::shared_ptr<CapturingSink> sink = std::make_shared<CapturingSink>();
};

TEST_F(ClientStateSessionIdentityTest, SharedSessionsShareTheGuidAndTheManager) {
  assembly->sharedSession = true;
  auto browser = ClientState::create("com.example.browser", assembly);
  auto news = ClientState::create("com.example.news", assembly);
  EXPECT_EQ(browser->sessionManager(), assembly->clientSessionManager);
  EXPECT_EQ(news->guidController(), assembly->guidController);
  EXPECT_EQ(sink->count("Vorlen is using shared instance of guid controller"), 2u);
}

TEST_F(ClientStateSessionIdentityTest, IndividualSessionsGiveEveryClientItsOwnGuidAndManager) {
  assembly->sharedSession = false;
  auto browser = ClientState::create("com.example.browser", assembly);
  auto news = ClientState::create("com.example.news", assembly);
  auto browserManager = std::dynamic_pointer_cast<ClientSessionManager>(browser->sessionManager());
  auto newsManager = std::dynamic_pointer_cast<ClientSessionManager>(news->sessionManager());
  ASSERT_TRUE(browserManager && newsManager);
  EXPECT_NE(browserManager, assembly->clientSessionManager);
  EXPECT_NE(browserManager, newsManager);
  EXPECT_EQ(browserManager->identifier(), "com.example.browser");
  EXPECT_EQ(browserManager->guidController(), browser->guidController());
  // Made once: later calls return the same objects.
  EXPECT_EQ(browser->sessionManager(), browserManager);
  EXPECT_NE(browser->guidController()->currentUserGUID(), news->guidController()->currentUserGUID());
  EXPECT_NE(browser->guidController()->currentUserGUID(), assembly->guidController->currentUserGUID());
  EXPECT_TRUE(sink->contains("Vorlen is using individual instance of guid controller com.example.browser"));
  EXPECT_TRUE(sink->contains("Vorlen is using individual session for clients com.example.news"));
}

}  // namespace
}  // namespace vorlen
