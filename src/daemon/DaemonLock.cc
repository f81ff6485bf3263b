#include "daemon/DaemonLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>

#include <fmt/format.h>

#include "base/Log.h"

namespace vorlen {

namespace {

constexpr const char* kLockName = "vorlend.lock";
// A temporary file that has not changed for this long belongs to a write that will never finish.
constexpr auto kLeftoverAge = std::chrono::minutes(1);

// "<name>.tmp.<digits>": what writeFileAtomically leaves when it is interrupted.
bool isTemporaryName(const std::string& name) {
  size_t at = name.rfind(".tmp.");
  if (at == std::string::npos || at == 0 || at + 5 == name.size()) return false;
  for (size_t i = at + 5; i < name.size(); ++i)
    if (!std::isdigit(static_cast<unsigned char>(name[i]))) return false;
  return true;
}

}  // namespace

std::optional<DaemonLock> DaemonLock::acquire(const std::filesystem::path& runtimeDir, std::string* error) {
  std::filesystem::path path = runtimeDir / kLockName;
  UniqueFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd) {
    if (error) *error = fmt::format("cannot open the lock file {}: {}", path.string(), std::strerror(errno));
    return std::nullopt;
  }
  if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    int err = errno;
    if (err != EWOULDBLOCK) {
      if (error) *error = fmt::format("cannot lock {}: {}", path.string(), std::strerror(err));
      return std::nullopt;
    }
    char buf[32] = {};
    ssize_t n = ::pread(fd.get(), buf, sizeof(buf) - 1, 0);
    std::string owner = n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
    while (!owner.empty() && std::isspace(static_cast<unsigned char>(owner.back()))) owner.pop_back();
    if (error) {
      *error = fmt::format("another vorlend is already running for this user{} (it holds {})",
                           owner.empty() ? "" : " as pid " + owner, path.string());
    }
    return std::nullopt;
  }
  std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(fd.get(), 0) != 0 || ::pwrite(fd.get(), pid.data(), pid.size(), 0) < 0) {
    VorlenDefaultLog().error("cannot record the pid in {}: {}", path.string(), std::strerror(errno));
  }
  return DaemonLock(std::move(fd), std::move(path));
}

size_t DaemonLock::removeLeftovers(const std::vector<std::filesystem::path>& folders) {
  size_t removed = 0;
  const auto cutoff = std::filesystem::file_time_type::clock::now() - kLeftoverAge;
  auto sweep = [&](const std::filesystem::path& folder, auto& self, int levels) -> void {
    std::error_code ec;
    for (std::filesystem::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
      const std::filesystem::directory_entry& entry = *it;
      std::error_code typeError;
      if (entry.is_symlink(typeError)) continue;  // never follow a link out of our folders
      if (entry.is_directory(typeError)) {
        if (levels > 0) self(entry.path(), self, levels - 1);
        continue;
      }
      if (!entry.is_regular_file(typeError) || !isTemporaryName(entry.path().filename().string())) continue;
      std::error_code timeError;
      auto changed = entry.last_write_time(timeError);
      if (timeError || changed > cutoff) continue;
      if (std::filesystem::remove(entry.path(), typeError)) {
        ++removed;
        VorlenDefaultLog().info("removed leftover temporary file {}", entry.path().string());
      }
    }
  };
  for (const auto& folder : folders) sweep(folder, sweep, 1);
  return removed;
}

size_t DaemonLock::removeStaleSockets(const std::filesystem::path& runtimeDir,
                                      const std::filesystem::path& keep) {
  size_t removed = 0;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(runtimeDir, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code typeError;
    if (!it->is_socket(typeError) || it->path() == keep) continue;
    if (std::filesystem::remove(it->path(), typeError)) {
      ++removed;
      VorlenDefaultLog().info("removed stale socket {}", it->path().string());
    }
  }
  return removed;
}

}  // namespace vorlen
