// FaultInjectingFileSystem: the Linux file layer with switchable faults, for the storage tests. Faults
// are armed by a test and apply to every later call of their kind until cleared:
//   - writeBudget: bytes that writes may still put on disk in total; once spent, a write stores what fits
//     and the next fails with ENOSPC (a disk filling up mid-record);
//   - writeErrno / syncErrno / createErrno: every write / fdatasync / creating open fails with that errno
//     (EIO, EROFS, ...).
//
// Threading: every method is safe from any thread.
#pragma once

#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <limits>

#include "platform/FileSystem.h"

namespace vorlen::test {

class FaultInjectingFileSystem final : public FileSystem {
 public:
  std::atomic<int64_t> writeBudget{std::numeric_limits<int64_t>::max()};
  std::atomic<int> writeErrno{0};
  std::atomic<int> syncErrno{0};
  std::atomic<int> createErrno{0};

  void clear() {
    writeBudget = std::numeric_limits<int64_t>::max();
    writeErrno = 0;
    syncErrno = 0;
    createErrno = 0;
  }

  UniqueFd open(const std::filesystem::path& path, int flags, mode_t mode) override {
    if ((flags & O_CREAT) && createErrno.load()) {
      errno = createErrno.load();
      return UniqueFd();
    }
    return real_->open(path, flags, mode);
  }
  ssize_t write(int fd, const void* bytes, size_t length) override {
    if (int e = writeErrno.load()) {
      errno = e;
      return -1;
    }
    const int64_t budget = writeBudget.load();
    if (budget <= 0) {
      errno = ENOSPC;
      return -1;
    }
    const size_t allowed = std::min<uint64_t>(length, static_cast<uint64_t>(budget));
    ssize_t n = real_->write(fd, bytes, allowed);
    if (n > 0) writeBudget -= n;
    return n;
  }
  int ftruncate(int fd, off_t length) override { return real_->ftruncate(fd, length); }
  int fdatasync(int fd) override {
    if (int e = syncErrno.load()) {
      errno = e;
      return -1;
    }
    return real_->fdatasync(fd);
  }
  int fstat(int fd, struct stat* st) override { return real_->fstat(fd, st); }
  int lstat(const std::filesystem::path& path, struct stat* st) override { return real_->lstat(path, st); }
  int unlink(const std::filesystem::path& path) override { return real_->unlink(path); }
  int mkdir(const std::filesystem::path& path, mode_t mode) override { return real_->mkdir(path, mode); }
  std::optional<std::vector<std::string>> list(const std::filesystem::path& dir) override {
    return real_->list(dir);
  }

 private:
  std::shared_ptr<FileSystem> real_ = linuxFileSystem();
};

}  // namespace vorlen::test
