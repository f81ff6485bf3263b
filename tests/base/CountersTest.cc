#include "base/Counters.h"

#include <gtest/gtest.h>

#include "base/ManualClock.h"
#include "support/TempDir.h"

namespace vorlen {
namespace {

TEST(CountersTest, SetAddClearAndKeyFormat) {
  Counters c({}, std::make_shared<ManualClock>());
  c.addValue(1, "com.velmo.vorlend.launch");
  c.addValue(2, "com.velmo.vorlend.launch");
  c.setValue(7, "x");
  EXPECT_EQ(c.value("com.velmo.vorlend.launch"), 3);
  EXPECT_EQ(c.value("x"), 7);
  c.clear("x");
  EXPECT_EQ(c.value("x"), 0);
  EXPECT_EQ(c.snapshot().size(), 1u);
  EXPECT_EQ(createTallydKey("voyant", "keystrokes"), "com.velmo.vorlend.voyant.keystrokes");
}

TEST(CountersTest, PersistsThrottledAndOnFlushWithPrivateMode) {
  test::TempDir dir;
  auto clock = std::make_shared<ManualClock>();
  auto file = dir / "counters.plist";
  {
    Counters c(file, clock);
    c.addValue(1, "a");  // within the throttle window of construction: not yet written
    EXPECT_FALSE(std::filesystem::exists(file));
    clock->advance(std::chrono::seconds(6));
    c.addValue(1, "a");  // window passed: written now
    EXPECT_EQ(Counters::readFile(file).at("a"), 2);
    c.addValue(5, "b");
    EXPECT_EQ(Counters::readFile(file).count("b"), 0u);
    EXPECT_TRUE(c.flush());
  }
  EXPECT_EQ(test::fileMode(file), 0600u);
  Counters reloaded(file, clock);
  EXPECT_EQ(reloaded.value("a"), 2);
  EXPECT_EQ(reloaded.value("b"), 5);
}

TEST(CountersTest, UnreadableFileStartsEmptyAndFacadeForwardsToInstalled) {
  test::TempDir dir;
  test::writeFile(dir / "counters.plist", "not a plist");
  auto c = std::make_shared<Counters>(dir / "counters.plist", std::make_shared<ManualClock>());
  EXPECT_TRUE(c->snapshot().empty());

  VorlenDiagnosticDataReporter::addValue(1, "k");  // nothing installed: ignored
  Counters::install(c);
  VorlenDiagnosticDataReporter::addValue(4, "k");
  VorlenDiagnosticDataReporter::setValue(9, "s");
  VorlenDiagnosticDataReporter::clearScalarKey("s");
  Counters::install(nullptr);
  EXPECT_EQ(c->value("k"), 4);
  EXPECT_EQ(c->value("s"), 0);
}

}  // namespace
}  // namespace vorlen
