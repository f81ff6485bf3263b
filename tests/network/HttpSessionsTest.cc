#include "network/HttpSessions.h"

#include <gtest/gtest.h>

#include "base/Preferences.h"
#include "network/HttpTestSupport.h"
#include "support/TempDir.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen {
namespace {

class HttpSessionsTest : public ::testing::Test {
 protected:
  test::TempDir temp;
  std::shared_ptr<Preferences> defaults = std::make_shared<Preferences>(temp.path(), "com.velmo.vorlend");
};

TEST_F(HttpSessionsTest, NoParallaxIsReadWhenTheQuerySessionIsMade) {
  defaults->set("VORNoParallax", true);
  HttpSessions sessions(defaults, nullptr, temp.path());
  auto url = sessions.urlSession();
  EXPECT_FALSE(url->settings().tcpFastOpen);
  EXPECT_FALSE(url->settings().tlsSessionReuse);
  EXPECT_EQ(url->settings().responseCacheBytes, 4194304u);  // the rest stays

  defaults->set("VORNoParallax", false);
  EXPECT_FALSE(sessions.urlSession()->settings().tcpFastOpen);  // made once
}

TEST_F(HttpSessionsTest, TheDelegateOfTheFirstCallReceivesTheEvents) {
  RefServer server;
  ASSERT_TRUE(server.start());
  HttpSessions sessions(defaults, nullptr, temp.path());
  auto first = std::make_shared<test::RecordingDelegate>();
  auto later = std::make_shared<test::RecordingDelegate>();
  sessions.downloadURLSession(first);
  HttpRequest r;
  r.url = server.baseURL() + "/_echo?bytes=10";
  sessions.downloadURLSession(later)->downloadTask(r)->resume();
  ASSERT_TRUE(first->waitForCompletions(1));
  EXPECT_EQ(first->downloads().size(), 1u);
  EXPECT_TRUE(later->events().empty());
}

}  // namespace
}  // namespace vorlen
