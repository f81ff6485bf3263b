#include "platform/InstalledApplications.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <optional>
#include <system_error>

#include "base/FileUtil.h"
#include "base/Log.h"

namespace vorlen {

namespace {

namespace fs = std::filesystem;

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\r')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
  return s;
}

std::vector<std::string> splitColons(const char* text) {
  std::vector<std::string> parts;
  std::string_view rest(text);
  while (!rest.empty()) {
    size_t colon = rest.find(':');
    std::string_view part = rest.substr(0, colon);
    if (!part.empty()) parts.emplace_back(part);
    if (colon == std::string_view::npos) break;
    rest.remove_prefix(colon + 1);
  }
  return parts;
}

constexpr uint32_t kWatchMask =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF;

}  // namespace

std::vector<fs::path> XdgInstalledApplications::dataDirsFromEnvironment() {
  std::vector<fs::path> dirs;
  if (const char* home = std::getenv("XDG_DATA_HOME"); home && *home) {
    dirs.emplace_back(home);
  } else if (const char* user = std::getenv("HOME"); user && *user) {
    dirs.push_back(fs::path(user) / ".local/share");
  }
  const char* system = std::getenv("XDG_DATA_DIRS");
  for (const std::string& d : splitColons(system && *system ? system : "/usr/local/share:/usr/share"))
    dirs.emplace_back(d);
  return dirs;
}

XdgInstalledApplications::XdgInstalledApplications(std::vector<fs::path> dataDirs,
                                                   std::shared_ptr<NotificationCenter> center)
    : center_(std::move(center)) {
  for (const fs::path& d : dataDirs) appDirs_.push_back(d / "applications");
  inotify_.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!inotify_)
    VorlenDefaultLog().error("cannot watch installed applications: inotify_init1 failed (errno {})", errno);
  std::lock_guard lock(mu_);
  watchFoldersLocked();
}

bool XdgInstalledApplications::watchFoldersLocked() {
  if (!inotify_) return false;
  bool added = false;
  auto watch = [&](const fs::path& dir) {
    if (std::find(watched_.begin(), watched_.end(), dir) != watched_.end()) return;
    if (::inotify_add_watch(inotify_.get(), dir.c_str(), kWatchMask) < 0) return;
    watched_.push_back(dir);
    added = true;
  };
  for (const fs::path& dir : appDirs_) {
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) continue;
    watch(dir);
    for (fs::recursive_directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
      if (it->is_directory(ec)) watch(it->path());
    }
  }
  return added;
}

void XdgInstalledApplications::checkForChanges() {
  bool changed = false;
  {
    std::lock_guard lock(mu_);
    if (!inotify_) return;
    alignas(inotify_event) char buffer[8192];
    for (;;) {
      ssize_t n = ::read(inotify_.get(), buffer, sizeof buffer);
      if (n <= 0) break;
      changed = true;
    }
    // A folder that appeared (a first user-level install creates ~/.local/share/applications) is watched
    // from now on; its appearance is itself a change.
    if (watchFoldersLocked()) changed = true;
  }
  if (changed && center_) center_->post(kPlatformInstalledApplicationsDidChangeNotification, this);
}

std::optional<InstalledApplication> XdgInstalledApplications::parseDesktopEntry(
    const std::string& desktopFileId, std::string_view text) {
  bool inEntry = false, sawEntry = false, hidden = false;
  std::optional<std::string> appVersion, version;
  while (!text.empty()) {
    size_t eol = text.find('\n');
    std::string_view line = trim(text.substr(0, eol));
    text.remove_prefix(eol == std::string_view::npos ? text.size() : eol + 1);
    if (line.empty() || line.front() == '#') continue;
    if (line.front() == '[') {
      inEntry = line == "[Desktop Entry]";
      sawEntry = sawEntry || inEntry;
      continue;
    }
    if (!inEntry) continue;
    size_t eq = line.find('=');
    if (eq == std::string_view::npos) continue;
    std::string_view key = trim(line.substr(0, eq)), value = trim(line.substr(eq + 1));
    if (key == "X-AppVersion")
      appVersion = std::string(value);
    else if (key == "Version")
      version = std::string(value);
    else if (key == "Hidden")
      hidden = value == "true";
  }
  if (!sawEntry || hidden) return std::nullopt;
  return InstalledApplication{desktopFileId, appVersion.value_or(version.value_or(""))};
}

std::vector<InstalledApplication> XdgInstalledApplications::installedApplications() const {
  // Earlier folders win for the same desktop-file id, also when the winning entry is hidden.
  std::map<std::string, std::optional<InstalledApplication>> byId;
  for (const fs::path& dir : appDirs_) {
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) continue;
    for (fs::recursive_directory_iterator it(dir, fs::directory_options::skip_permission_denied, ec), end;
         !ec && it != end; it.increment(ec)) {
      const fs::path& path = it->path();
      if (path.extension() != ".desktop" || !it->is_regular_file(ec)) continue;
      std::string id = path.lexically_relative(dir).replace_extension().string();
      std::replace(id.begin(), id.end(), '/', '-');
      if (id.empty() || byId.count(id)) continue;
      auto bytes = readWholeFile(path, kMaxEntryBytes);
      if (!bytes) {
        byId.emplace(id, std::nullopt);
        continue;
      }
      byId.emplace(id, parseDesktopEntry(id, std::string_view(reinterpret_cast<const char*>(bytes->data()),
                                                              bytes->size())));
    }
  }
  std::vector<InstalledApplication> apps;
  apps.reserve(byId.size());
  for (auto& [id, app] : byId)
    if (app) apps.push_back(std::move(*app));
  return apps;
}

}  // namespace vorlen
