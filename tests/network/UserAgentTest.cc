#include "network/UserAgent.h"

#include <gtest/gtest.h>

#include "platform/DeviceProperties.h"
#include "support/PlatformFakes.h"

namespace vorlen {
namespace {

TEST(UserAgentTest, ClientTextIsWrappedWithNameVersionAndDevice) {
  test::FakeDeviceProperties device;
  device.type = "Pocket7,2";
  device.name = "Vorlen OS";
  device.build = "23A55";
  EXPECT_EQ(createUserAgentString("Browser/600.1", device),
            "Vorlend/1.0 (Pocket7,2; Vorlen OS 23A55) Browser/600.1");
  // The daemon's own agent names itself at both ends.
  EXPECT_EQ(createUserAgentString("Vorlend/1.0", device),
            "Vorlend/1.0 (Pocket7,2; Vorlen OS 23A55) Vorlend/1.0");
}

TEST(UserAgentTest, EmptyOrAlreadyBuiltTextsAreNotWrapped) {
  test::FakeDeviceProperties device;
  EXPECT_EQ(createUserAgentString("", device), std::nullopt);
  std::string built = *createUserAgentString("news/1.0", device);
  EXPECT_EQ(createUserAgentString(built, device), built);
  EXPECT_EQ(createUserAgentString("x Vorlend/1.0 (y", device), "x Vorlend/1.0 (y");
  // Without the opening parenthesis it was not built here.
  EXPECT_EQ(createUserAgentString("Vorlend/1.0(", device),
            "Vorlend/1.0 (TestDevice1,1; TestOS 1A100) Vorlend/1.0(");
}

}  // namespace
}  // namespace vorlen
