#include "platform/InstalledApplications.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <system_error>
#include <unordered_set>

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

namespace {

// Reads a desktop entry line by line, keeping the keys the registry needs. Once the [Desktop Entry] group
// has ended (the next group starts) no later line can change the answer, and done() tells the reader to
// stop: the rest of a file (translations, actions) is never read.
class DesktopEntryLines {
 public:
  void line(std::string_view raw) {
    std::string_view line = trim(raw);
    if (line.empty() || line.front() == '#') return;
    if (line.front() == '[') {
      if (inEntry_) done_ = true;
      inEntry_ = line == "[Desktop Entry]";
      sawEntry_ = sawEntry_ || inEntry_;
      return;
    }
    if (!inEntry_) return;
    size_t eq = line.find('=');
    if (eq == std::string_view::npos) return;
    std::string_view key = trim(line.substr(0, eq)), value = trim(line.substr(eq + 1));
    if (key == "X-AppVersion")
      appVersion_ = value;
    else if (key == "Version")
      version_ = value;
    else if (key == "Hidden")
      hidden_ = value == "true";
  }
  bool done() const { return done_; }
  std::optional<InstalledApplication> application(std::string id) const {
    if (!sawEntry_ || hidden_) return std::nullopt;
    return InstalledApplication{std::move(id), std::string(appVersion_.value_or(version_.value_or("")))};
  }

 private:
  bool inEntry_ = false, sawEntry_ = false, hidden_ = false, done_ = false;
  // Views into the text being read: valid until the next read, so application() is asked before it.
  std::optional<std::string_view> appVersion_, version_;
};

// Feeds the complete lines of `text` to `entry`, then (at the end of the file) the last partial one;
// returns how much of `text` was consumed.
size_t feedLines(std::string_view text, bool atEnd, DesktopEntryLines& entry) {
  size_t consumed = 0;
  while (!entry.done()) {
    size_t eol = text.find('\n', consumed);
    if (eol == std::string_view::npos) {
      if (!atEnd) return consumed;  // the partial line is fed once the next read completes it
      if (consumed < text.size()) entry.line(text.substr(consumed));
      return text.size();
    }
    entry.line(text.substr(consumed, eol - consumed));
    consumed = eol + 1;
  }
  return consumed;
}

// One scan of the registry: the ids seen so far (an earlier folder wins, also with an entry that is
// hidden or unreadable) and the applications found, with one read buffer for every entry.
struct Scan {
  std::unordered_set<std::string> seen;
  std::vector<InstalledApplication> apps;
  std::vector<char> buffer = std::vector<char>(XdgInstalledApplications::kMaxEntryBytes);
  std::string id;  // desktop-file id of the folder being read, with a trailing "-" below the top
};

// Folders nested deeper than this below `applications` are not read (no launcher looks there either).
constexpr int kMaxFolderDepth = 16;

// Reads the entry `name` of the folder `dirFd` (the file is a regular file or a link to one). Reads stop
// at the end of the [Desktop Entry] group; a regular file answers a short read only at its end, so a small
// entry costs one read. Nothing when the group does not end within kMaxEntryBytes or the file is
// unreadable.
std::optional<InstalledApplication> readEntry(int dirFd, const char* name, Scan& scan) {
  UniqueFd fd(::openat(dirFd, name, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!fd) return std::nullopt;
  DesktopEntryLines entry;
  size_t filled = 0, parsed = 0;
  for (;;) {
    const size_t room = scan.buffer.size() - filled;
    if (room == 0) return std::nullopt;  // the group has not ended within the cap
    ssize_t n = ::read(fd.get(), scan.buffer.data() + filled, room);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::nullopt;
    filled += static_cast<size_t>(n);
    const bool atEnd = n == 0 || static_cast<size_t>(n) < room;
    // Lines are fed as they complete; the buffer is never shifted, so the views the entry keeps stay put.
    parsed += feedLines(std::string_view(scan.buffer.data() + parsed, filled - parsed), atEnd, entry);
    if (entry.done() || atEnd) return entry.application(scan.id);
  }
}

bool isRegularFile(int dirFd, const struct dirent& e) {
  if (e.d_type == DT_REG) return true;
  if (e.d_type != DT_LNK && e.d_type != DT_UNKNOWN) return false;
  struct stat st {};
  return ::fstatat(dirFd, e.d_name, &st, 0) == 0 && S_ISREG(st.st_mode);
}

bool isDirectory(int dirFd, const struct dirent& e) {
  if (e.d_type == DT_DIR) return true;
  if (e.d_type != DT_UNKNOWN) return false;  // links to folders are not followed
  struct stat st {};
  return ::fstatat(dirFd, e.d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
}

// Adds the entries of the folder `dirFd` (owned and closed here) and of its sub-folders to `scan`.
void scanFolder(UniqueFd dirFd, int depth, Scan& scan) {
  DIR* dir = ::fdopendir(dirFd.get());
  if (!dir) return;
  const int fd = dirFd.release();  // closedir closes it
  const size_t prefix = scan.id.size();
  while (const struct dirent* e = ::readdir(dir)) {
    std::string_view name(e->d_name);
    if (name == "." || name == "..") continue;
    constexpr std::string_view kSuffix = ".desktop";
    if (name.size() > kSuffix.size() && name.ends_with(kSuffix) && isRegularFile(fd, *e)) {
      scan.id.append(name.substr(0, name.size() - kSuffix.size()));
      if (scan.seen.insert(scan.id).second) {
        if (auto app = readEntry(fd, e->d_name, scan)) scan.apps.push_back(std::move(*app));
      }
    } else if (depth < kMaxFolderDepth && isDirectory(fd, *e)) {
      scan.id.append(name).push_back('-');
      scanFolder(UniqueFd(::openat(fd, e->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC)), depth + 1, scan);
    }
    scan.id.resize(prefix);
  }
  ::closedir(dir);
}

}  // namespace

std::optional<InstalledApplication> XdgInstalledApplications::parseDesktopEntry(
    const std::string& desktopFileId, std::string_view text) {
  DesktopEntryLines entry;
  feedLines(text, /*atEnd=*/true, entry);
  return entry.application(desktopFileId);
}

std::vector<InstalledApplication> XdgInstalledApplications::installedApplications() const {
  Scan scan;
  for (const fs::path& dir : appDirs_) {
    scan.id.clear();
    scanFolder(UniqueFd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), 0, scan);
  }
  return std::move(scan.apps);
}

}  // namespace vorlen
