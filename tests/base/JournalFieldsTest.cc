// What the journald sink sends: the fields journalctl filters on, for every level.
#include <gtest/gtest.h>

#include <cerrno>

#include "base/Log.h"

namespace vorlen {
namespace {

TEST(JournalFieldsTest, CarryTheProgramNameTheLevelAndTheWholeMessage) {
  const struct {
    LogLevel level;
    const char* priority;
  } cases[] = {{LogLevel::Debug, "PRIORITY=7"},
               {LogLevel::Info, "PRIORITY=6"},
               {LogLevel::Default, "PRIORITY=5"},
               {LogLevel::Error, "PRIORITY=3"},
               {LogLevel::Fault, "PRIORITY=2"}};
  for (const auto& c : cases) {
    std::vector<std::string> fields = journalFields(LogRecord{c.level, "", "two\nlines"});
    EXPECT_EQ(fields,
              (std::vector<std::string>{"MESSAGE=two\nlines", c.priority,
                                        std::string("SYSLOG_IDENTIFIER=") + program_invocation_short_name,
                                        "VORLEN_SUBSYSTEM=com.velmo.vorlend", "VORLEN_CATEGORY=default"}));
  }
  EXPECT_EQ(journalFields(LogRecord{LogLevel::Info, "Vorlen_Feedback", "x"}).back(),
            "VORLEN_CATEGORY=Vorlen_Feedback");
  EXPECT_STREQ(program_invocation_short_name, "base_tests");
}

}  // namespace
}  // namespace vorlen
