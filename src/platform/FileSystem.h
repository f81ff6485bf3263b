// FileSystem: the file layer under session files. Each operation stands for the system call of the same
// name and reports failure the same way (-1, or an invalid descriptor, with errno set), so callers handle
// a full disk, an I/O error or a read-only folder exactly as the kernel reports them. The daemon uses the
// Linux realisation (linuxFileSystem()); tests substitute a fault-injecting one.
//
// Paths that reach these calls are built by the daemon from its own folders, never taken from outside.
//
// Threading: every method is safe from any thread.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/UniqueFd.h"

namespace vorlen {

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // open(2); O_CLOEXEC is always added.
  virtual UniqueFd open(const std::filesystem::path& path, int flags, mode_t mode = 0) = 0;
  // write(2): may write fewer bytes than asked.
  virtual ssize_t write(int fd, const void* bytes, size_t length) = 0;
  virtual int ftruncate(int fd, off_t length) = 0;
  virtual int fdatasync(int fd) = 0;
  virtual int fstat(int fd, struct stat* st) = 0;
  // lstat(2): never follows a symbolic link.
  virtual int lstat(const std::filesystem::path& path, struct stat* st) = 0;
  virtual int unlink(const std::filesystem::path& path) = 0;
  // mkdir(2) of one folder (no parents).
  virtual int mkdir(const std::filesystem::path& path, mode_t mode) = 0;
  // The names in a folder without "." and ".."; nothing (errno set) when it cannot be listed.
  virtual std::optional<std::vector<std::string>> list(const std::filesystem::path& dir) = 0;
};

// The process's Linux file layer.
std::shared_ptr<FileSystem> linuxFileSystem();

}  // namespace vorlen
