#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "platform/FileSystem.h"

namespace vorlen {
namespace {

// The system calls themselves; EINTR is retried so that callers see only real failures.
class LinuxFileSystem final : public FileSystem {
 public:
  UniqueFd open(const std::filesystem::path& path, int flags, mode_t mode) override {
    int fd;
    do {
      fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return UniqueFd(fd);
  }
  ssize_t write(int fd, const void* bytes, size_t length) override {
    ssize_t n;
    do {
      n = ::write(fd, bytes, length);
    } while (n < 0 && errno == EINTR);
    return n;
  }
  int ftruncate(int fd, off_t length) override { return ::ftruncate(fd, length); }
  int fdatasync(int fd) override { return ::fdatasync(fd); }
  int fstat(int fd, struct stat* st) override { return ::fstat(fd, st); }
  int lstat(const std::filesystem::path& path, struct stat* st) override { return ::lstat(path.c_str(), st); }
  int unlink(const std::filesystem::path& path) override { return ::unlink(path.c_str()); }
  int mkdir(const std::filesystem::path& path, mode_t mode) override { return ::mkdir(path.c_str(), mode); }
  std::optional<std::vector<std::string>> list(const std::filesystem::path& dir) override {
    DIR* d = ::opendir(dir.c_str());
    if (!d) return std::nullopt;
    std::vector<std::string> names;
    errno = 0;
    while (dirent* e = ::readdir(d)) {
      std::string_view name(e->d_name);
      if (name != "." && name != "..") names.emplace_back(name);
    }
    const int err = errno;
    ::closedir(d);
    if (err != 0) {
      errno = err;
      return std::nullopt;
    }
    return names;
  }
};

}  // namespace

std::shared_ptr<FileSystem> linuxFileSystem() {
  // Stateless and never destroyed: containers on late queue work may still reach it.
  static std::shared_ptr<FileSystem>* fs =
      new std::shared_ptr<FileSystem>(std::make_shared<LinuxFileSystem>());
  return *fs;
}

}  // namespace vorlen
