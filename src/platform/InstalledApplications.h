// InstalledApplications: the installed-applications registry, as far as the app allow-list signature needs
// it: the bundle identifier and bundle version of every installed application, and a notification when
// applications are installed or removed.
//
// XdgInstalledApplications realises it from XDG desktop entries: every `applications/**/*.desktop` below
// $XDG_DATA_HOME (default ~/.local/share) and each folder of $XDG_DATA_DIRS (default
// /usr/local/share:/usr/share), earlier folders winning for the same id. The bundle identifier is the
// desktop-file id without its ".desktop" suffix (the path below `applications/` with "/" turned into "-",
// so `applications/org.example.Notes.desktop` is "org.example.Notes"); the version is the entry's
// `X-AppVersion`, else its `Version`. An entry with `Hidden=true` counts as removed; an entry without a
// [Desktop Entry] group, or whose group does not end within its first 64 KiB, is skipped. An entry is read
// only up to the end of its [Desktop Entry] group, and folders are read by descriptor, so a scan of
// thousands of entries costs little more than one open and one read each.
// The applications-changed notification is kPlatformInstalledApplicationsDidChangeNotification on the
// notification centre (sender: the registry). inotify watches every folder named above (created ones
// included once they exist at a check); checkForChanges() reads the pending events without blocking and
// posts once when there were any. The platform's change monitor calls it every few seconds.
//
// Threading: every method is safe from any thread.
#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/NotificationCenter.h"
#include "base/UniqueFd.h"

namespace vorlen {

// Posted (no user information) when applications were installed or removed.
inline constexpr const char* kPlatformInstalledApplicationsDidChangeNotification =
    "VORPlatformInstalledApplicationsDidChange";

struct InstalledApplication {
  std::string bundleIdentifier;
  std::string bundleVersion;  // empty when the registry knows none
  bool operator==(const InstalledApplication&) const = default;
};

class InstalledApplications {
 public:
  virtual ~InstalledApplications() = default;
  // Every installed application, in no particular order.
  virtual std::vector<InstalledApplication> installedApplications() const = 0;
};

class XdgInstalledApplications final : public InstalledApplications {
 public:
  // An entry whose [Desktop Entry] group runs past this is not one a launcher would read either.
  static constexpr size_t kMaxEntryBytes = 64 * 1024;

  // The data folders (each holding an `applications` folder), most important first.
  static std::vector<std::filesystem::path> dataDirsFromEnvironment();

  // `center` may be null (no notification then).
  XdgInstalledApplications(std::vector<std::filesystem::path> dataDirs,
                           std::shared_ptr<NotificationCenter> center);

  std::vector<InstalledApplication> installedApplications() const override;

  // Reads pending inotify events (never blocks) and posts the change notification once when there were
  // any; also starts watching application folders that did not exist before.
  void checkForChanges();

  // One desktop entry's id and version; nothing when the entry is hidden or not a desktop entry.
  static std::optional<InstalledApplication> parseDesktopEntry(const std::string& desktopFileId,
                                                               std::string_view text);

 private:
  // Adds watches for the folders below every data folder's `applications` (under mu_); true when a new
  // folder became watched.
  bool watchFoldersLocked();

  std::vector<std::filesystem::path> appDirs_;
  std::shared_ptr<NotificationCenter> center_;
  std::mutex mu_;
  UniqueFd inotify_;
  std::vector<std::filesystem::path> watched_;
};

}  // namespace vorlen
