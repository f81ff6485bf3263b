// DaemonFixture: the daemon's whole object graph on a manual clock below a private folder, its bag URL on
// an in-process reference service, with clients connected over the real service socket. The service
// starts in SetUp; a test (or a derived SetUp) starts the daemon with startDaemon().
//
// REQUIRES: used from the test's thread only.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "base/Counters.h"
#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "client/VorlenClient.h"
#include "daemon/Daemon.h"
#include "model/VORSessionConfiguration.h"
#include "storage/BackgroundActivitiesManager.h"
#include "storage/UploadManager.h"
#include "support/Eventually.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen::test {

class DaemonFixture : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server.start()); }
  void TearDown() override {
    if (assembly && assembly->uploadManager)
      assembly->uploadManager->waitForUploadsToEnd(std::chrono::seconds(30));
    server.stop();
    Counters::install(nullptr);
  }

  // `sharedSession` sets the "VORSharedSession" preference; without it the daemon's default holds.
  void startDaemon(std::optional<bool> sharedSession = std::nullopt) {
    platform = platformForTesting(dir.path(), clock);
    Preferences defaults(platform.paths.configDir, "com.velmo.vorlend");
    defaults.set("VORBagURL", Value(server.baseURL() + "/bag"));
    if (sharedSession) defaults.set("VORSharedSession", Value(*sharedSession));
    daemon.emplace(platform);
    assembly = daemon->start();
    ASSERT_TRUE(assembly);
  }

  // A configured client that has seen the daemon's bag.
  std::shared_ptr<VorlenClient> connectClient(const std::string& identifier, const std::string& agent) {
    VorlenClientOptions options;
    options.socketPath = platform.paths.serviceSocket;
    auto client = VorlenClient::create(options);
    VORSessionConfiguration configuration;
    configuration.identifier = identifier;
    configuration.userAgent = agent;
    EXPECT_TRUE(client->configure(configuration).ok());
    EXPECT_TRUE(eventually([&] {
      auto bag = client->bag();
      return bag.ok() && bag.value->bag.has_value();
    }));
    return client;
  }

  // Moves the clock to `s` seconds after the start and waits for the flushes it started.
  void advanceTo(double s) {
    clock->set(start + seconds(s));
    std::dynamic_pointer_cast<BackgroundActivitiesManager>(assembly->backgroundFlusher)->queue()->sync([] {});
  }

  TempDir dir;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  const Time start = clock->now();
  RefServer server;
  Platform platform;
  std::optional<Daemon> daemon;
  std::shared_ptr<Assembly> assembly;
};

}  // namespace vorlen::test
