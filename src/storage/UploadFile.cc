#include "storage/UploadFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>

namespace vorlen {
namespace {

std::string uniqueSuffix() {
  static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  thread_local std::mt19937_64 engine{std::random_device{}()};
  std::uniform_int_distribution<size_t> pick(0, sizeof kAlphabet - 2);
  std::string out(UploadFile::kSuffixLength, 'X');
  for (char& c : out) c = kAlphabet[pick(engine)];
  return out;
}

}  // namespace

std::shared_ptr<UploadFile> UploadFile::create(const std::filesystem::path& directory) {
  // Each name is tried once with O_EXCL; a clash (another file of that name, even a link) tries another.
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::filesystem::path path = directory / (std::string(kNamePrefix) + uniqueSuffix());
    if (path.native().size() + 1 > kMaxPathBytes) {
      errno = ENAMETOOLONG;
      return nullptr;
    }
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
      if (errno == EEXIST) continue;
      return nullptr;
    }
    UniqueFd owned(fd);
    // The umask may only have removed bits; make the mode exactly 0600.
    if (::fchmod(fd, 0600) != 0) {
      int err = errno;
      ::unlink(path.c_str());
      errno = err;
      return nullptr;
    }
    return std::shared_ptr<UploadFile>(new UploadFile(std::move(owned), std::move(path)));
  }
  errno = EEXIST;
  return nullptr;
}

UploadFile::UploadFile(UniqueFd fd, std::filesystem::path path)
    : fd_(std::move(fd)), path_(std::move(path)) {}

UploadFile::~UploadFile() = default;

std::optional<std::filesystem::path> UploadFile::path() const {
  std::lock_guard lock(mu_);
  return path_;
}

bool UploadFile::pathExists() const {
  std::optional<std::filesystem::path> p = path();
  if (!p) return false;
  struct stat byPath {
  }, byFd{};
  return ::lstat(p->c_str(), &byPath) == 0 && ::fstat(fd(), &byFd) == 0 && byPath.st_dev == byFd.st_dev &&
         byPath.st_ino == byFd.st_ino;
}

off_t UploadFile::size() const {
  struct stat st {};
  return ::fstat(fd(), &st) == 0 ? st.st_size : -1;
}

void UploadFile::removePath() {
  std::optional<std::filesystem::path> p;
  {
    std::lock_guard lock(mu_);
    p.swap(path_);
  }
  if (p) ::unlink(p->c_str());
}

}  // namespace vorlen
