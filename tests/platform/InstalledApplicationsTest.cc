#include "platform/InstalledApplications.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "support/TempDir.h"

namespace vorlen {
namespace {

TEST(InstalledApplicationsTest, DesktopEntriesGiveIdAndVersion) {
  struct Case {
    const char* what;
    const char* text;
    std::optional<std::string> version;  // nothing: not an installed application
  } cases[] = {
      {"X-AppVersion wins", "[Desktop Entry]\nVersion=1.5\nX-AppVersion=115.3\nName=App\n", "115.3"},
      {"Version otherwise", "[Desktop Entry]\r\nVersion = 1.0\r\n", "1.0"},
      {"no version", "[Desktop Entry]\nName=App\n", ""},
      {"hidden entry", "[Desktop Entry]\nVersion=1.0\nHidden=true\n", std::nullopt},
      {"keys of other groups ignored", "[Desktop Action new]\nX-AppVersion=9\n[Desktop Entry]\nVersion=1.5\n",
       "1.5"},
      {"not a desktop entry", "Version=1.0\n", std::nullopt},
      {"comments and garbage", "# c\n[Desktop Entry]\nno equals sign\n=\nVersion=2\n", "2"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    auto app = XdgInstalledApplications::parseDesktopEntry("org.example.App", c.text);
    ASSERT_EQ(app.has_value(), c.version.has_value());
    if (app) {
      EXPECT_EQ(*app, (InstalledApplication{"org.example.App", *c.version}));
    }
  }
}

TEST(InstalledApplicationsTest, EarlierFoldersWinAndChangesAreAnnouncedThroughInotify) {
  test::TempDir dir;
  const auto user = dir / "user", system = dir / "system";
  std::filesystem::create_directories(system / "applications/kde");
  test::writeFile(system / "applications/org.example.Notes.desktop", "[Desktop Entry]\nVersion=1.0\n");
  test::writeFile(system / "applications/kde/org.kde.Edit.desktop", "[Desktop Entry]\nX-AppVersion=5\n");
  test::writeFile(system / "applications/org.example.Gone.desktop", "[Desktop Entry]\nVersion=1.0\n");
  test::writeFile(system / "applications/readme.txt", "not an entry");
  auto center = NotificationCenter::create();
  int changes = 0;
  auto token = center->addObserver(kPlatformInstalledApplicationsDidChangeNotification, nullptr,
                                   [&](const Notification&) { ++changes; });
  XdgInstalledApplications apps({user, system}, center);

  auto sorted = [&] {
    auto list = apps.installedApplications();
    std::sort(list.begin(), list.end(),
              [](const auto& a, const auto& b) { return a.bundleIdentifier < b.bundleIdentifier; });
    return list;
  };
  EXPECT_EQ(sorted(),
            (std::vector<InstalledApplication>{
                {"kde-org.kde.Edit", "5"}, {"org.example.Gone", "1.0"}, {"org.example.Notes", "1.0"}}));
  apps.checkForChanges();
  EXPECT_EQ(changes, 0);

  // The user's folder appears with an override that hides one app and a newer version of another.
  std::filesystem::create_directories(user / "applications");
  apps.checkForChanges();
  EXPECT_EQ(changes, 1) << "a new application folder is a change";
  test::writeFile(user / "applications/org.example.Gone.desktop", "[Desktop Entry]\nHidden=true\n");
  test::writeFile(user / "applications/org.example.Notes.desktop", "[Desktop Entry]\nX-AppVersion=2.0\n");
  apps.checkForChanges();
  EXPECT_EQ(changes, 2) << "one notification per check, however many events";
  EXPECT_EQ(sorted(),
            (std::vector<InstalledApplication>{{"kde-org.kde.Edit", "5"}, {"org.example.Notes", "2.0"}}));

  std::filesystem::remove(system / "applications/kde/org.kde.Edit.desktop");
  apps.checkForChanges();
  EXPECT_EQ(changes, 3) << "sub-folders are watched too";
  apps.checkForChanges();
  EXPECT_EQ(changes, 3);
}

}  // namespace
}  // namespace vorlen
