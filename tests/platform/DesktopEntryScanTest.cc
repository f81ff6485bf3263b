// The registry scan reads each desktop entry only up to the end of its [Desktop Entry] group and never
// opens what is not a regular file: real files in a private folder.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <algorithm>

#include "platform/InstalledApplications.h"
#include "support/TempDir.h"

namespace vorlen {
namespace {

TEST(DesktopEntryScanTest, ReadsUpToTheGroupEndAndSkipsWhatIsNoEntry) {
  test::TempDir dir;
  const auto apps = dir / "data" / "applications";
  std::filesystem::create_directories(apps / "sub" / "deeper");
  const std::string pastCap(XdgInstalledApplications::kMaxEntryBytes, '#');
  // A group that ends early is read whatever follows it; the keys after it belong to another group.
  test::writeFile(apps / "org.example.Long.desktop",
                  "[Desktop Entry]\nVersion=1.0\n[Desktop Action x]\nX-AppVersion=9\n" + pastCap);
  // A group still open at the cap is no entry a launcher reads.
  test::writeFile(apps / "org.example.Huge.desktop", "[Desktop Entry]\nVersion=1.0\n" + pastCap + "\n");
  // The last line needs no newline; nested folders give dashed ids.
  test::writeFile(apps / "sub" / "deeper" / "org.example.Nested.desktop", "[Desktop Entry]\nX-AppVersion=3");
  // A link to an entry counts; a named pipe with the suffix is never opened (opening it would block).
  std::filesystem::create_symlink(apps / "sub" / "deeper" / "org.example.Nested.desktop",
                                  apps / "org.example.Linked.desktop");
  ASSERT_EQ(::mkfifo((apps / "org.example.Pipe.desktop").c_str(), 0600), 0);
  test::writeFile(apps / ".desktop", "[Desktop Entry]\nVersion=1\n");

  XdgInstalledApplications registry({dir / "data"}, nullptr);
  auto list = registry.installedApplications();
  std::sort(list.begin(), list.end(),
            [](const auto& a, const auto& b) { return a.bundleIdentifier < b.bundleIdentifier; });
  EXPECT_EQ(list, (std::vector<InstalledApplication>{{"org.example.Linked", "3"},
                                                     {"org.example.Long", "1.0"},
                                                     {"sub-deeper-org.example.Nested", "3"}}));
}

}  // namespace
}  // namespace vorlen
