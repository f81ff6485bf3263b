#include "base/Log.h"

#include <gtest/gtest.h>

#include "base/Preferences.h"
#include "support/TempDir.h"

namespace vorlen {
namespace {

TEST(LogTest, CategoriesAreTheSubsystemsTwentyOne) {
  EXPECT_STREQ(VorlenLogForCategory(0).category(), "Vorlen");
  EXPECT_STREQ(VorlenLogForCategory(VorlenLogCategoryConnection).category(), "Vorlen_Connection");
  EXPECT_STREQ(VorlenLogForCategory(17).category(), "Vorlen_Feedback_Errors");
  EXPECT_STREQ(VorlenLogForCategory(20).category(), "Vorlen_UploadManager");
  // Same handle every time: the table is built once.
  EXPECT_EQ(&VorlenLogForCategory(5), &VorlenLogForCategory(5));
}

TEST(LogDeathTest, CategoryOutOfRangeAborts) {
  EXPECT_DEATH(VorlenLogForCategory(21), "category < VorlenLoggingCategoryCount");
}

TEST(LogTest, CaptureRecordsLevelCategoryAndFormattedText) {
  ScopedLogCapture capture;
  VorlenLogForCategory(VorlenLogCategoryBag).error("Error fetching bag status code: {}", 503);
  VorlenDefaultLog().debug("{}", "SIGTERM");
  EXPECT_TRUE(capture.sink().contains(LogLevel::Error, "Vorlen_Bag", "Error fetching bag status code: 503"));
  EXPECT_TRUE(capture.sink().contains(LogLevel::Debug, "", "SIGTERM"));
  EXPECT_FALSE(capture.sink().contains(LogLevel::Info, "", "SIGTERM"));
}

TEST(LogTest, ThresholdDropsLowerLevelsWithoutFormatting) {
  ScopedLogCapture capture;
  Log::setThreshold(LogLevel::Error);
  VorlenDefaultLog().info("{}", "dropped");
  VorlenDefaultLog().debug("dropped");
  VorlenDefaultLog().fault("kept");
  EXPECT_EQ(capture.sink().records().size(), 1u);
  EXPECT_TRUE(capture.sink().contains(LogLevel::Fault, "", "kept"));
}

TEST(LogTest, PrivateArgumentsAreHiddenUnlessPrivateLoggingIsOn) {
  ScopedLogCapture capture;
  const bool before = Log::privateDataEnabled();
  std::string typed = "new york";
  Log::setPrivateDataEnabled(false);
  VorlenDefaultLog().info("query {} id {}", Private(typed), 7);
  Log::setPrivateDataEnabled(true);
  VorlenDefaultLog().info("query {} id {}", Private(typed), 7);
  Log::setPrivateDataEnabled(before);
  EXPECT_TRUE(capture.sink().contains("query <private> id 7"));
  EXPECT_TRUE(capture.sink().contains("query new york id 7"));
}

TEST(LogTest, TracingSetupLogsTheFlag) {
  test::TempDir dir;
  Preferences prefs(dir.path(), "com.velmo.vorlend");
  ScopedLogCapture capture;
  VORTracingSetup(prefs);
  EXPECT_TRUE(capture.sink().contains(LogLevel::Debug, "", "VORTraceEnabled flag set to 0"));
}

}  // namespace
}  // namespace vorlen
