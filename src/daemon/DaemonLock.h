// DaemonLock: makes sure one vorlend runs per user. The lock is an exclusive flock() on
// <runtime>/vorlend.lock, taken before anything under the caches or config folders is opened and held
// until the process ends (the kernel drops it when the process dies, however it dies, so a crash never
// leaves a stale lock). The file holds the owner's pid, for the message the next daemon prints.
//
// Once the lock is held, leftovers of an earlier run are safe to remove: removeLeftovers() deletes
// temporary files of interrupted atomic writes ("<name>.tmp.<number>") that have not changed for a
// minute, in the given folders and one level below them; removeStaleSockets() deletes the endpoint
// sockets an earlier daemon left in the runtime folder (no other daemon can be using them).
//
// Threading: used on the main thread during start-up.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "base/UniqueFd.h"

namespace vorlen {

class DaemonLock {
 public:
  // The held lock, or nullopt with a one-line reason in *error (another daemon holds it, or the file
  // cannot be opened).
  static std::optional<DaemonLock> acquire(const std::filesystem::path& runtimeDir, std::string* error);

  // Removes stale temporary files; returns how many went.
  static size_t removeLeftovers(const std::vector<std::filesystem::path>& folders);
  // Removes every socket file directly in `runtimeDir` except `keep` (the service socket, which the
  // service manager may have made for us); returns how many went.
  static size_t removeStaleSockets(const std::filesystem::path& runtimeDir,
                                   const std::filesystem::path& keep);

  const std::filesystem::path& path() const { return path_; }

 private:
  DaemonLock(UniqueFd fd, std::filesystem::path path) : fd_(std::move(fd)), path_(std::move(path)) {}

  UniqueFd fd_;
  std::filesystem::path path_;
};

}  // namespace vorlen
