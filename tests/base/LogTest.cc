#include "base/Log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <regex>

#include "base/FileUtil.h"
#include "support/TempDir.h"

namespace vorlen {
namespace {

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

TEST(LogTest, StderrLinesStartWithTheTimeAndKeepAMessageOnOneLine) {
  test::TempDir dir;
  const auto path = dir / "stderr";
  int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  ASSERT_GE(file, 0);
  int saved = ::dup(STDERR_FILENO);
  ASSERT_GE(saved, 0);
  ::dup2(file, STDERR_FILENO);
  // The automatic sink outside journald is the stderr one.
  std::optional<std::string> journal;
  if (const char* v = std::getenv("JOURNAL_STREAM")) journal = v;
  ::unsetenv("JOURNAL_STREAM");
  auto previous = Log::setSink(nullptr);
  VorlenLogForCategory(VorlenLogCategoryBag).error("first\nsecond\r\x01third");
  Log::setSink(previous);
  if (journal) ::setenv("JOURNAL_STREAM", journal->c_str(), 1);
  ::dup2(saved, STDERR_FILENO);
  ::close(saved);
  ::close(file);

  auto bytes = readWholeFile(path);
  ASSERT_TRUE(bytes);
  std::string text(bytes->begin(), bytes->end());
  EXPECT_TRUE(std::regex_match(text, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z vorlend\[\d+\] )"
                                                R"(<error> Vorlen_Bag: first\\nsecond\\r\\x01third\n)")))
      << text;
}

}  // namespace
}  // namespace vorlen
