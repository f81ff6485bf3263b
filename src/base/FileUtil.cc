#include "base/FileUtil.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>

#include "base/UniqueFd.h"

namespace vorlen {

namespace {
std::string errnoText(int e) {
  return std::strerror(e);
}
}  // namespace

bool writeFileAtomically(const std::filesystem::path& path, std::span<const uint8_t> bytes,
                         std::string* error) {
  static thread_local std::mt19937_64 rng{std::random_device{}()};
  std::filesystem::path tmp = path;
  tmp += ".tmp." + std::to_string(rng() & 0xffffffff);
  UniqueFd fd(::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!fd) {
    if (error) *error = "open " + tmp.string() + ": " + errnoText(errno);
    return false;
  }
  ::fchmod(fd.get(), 0600);  // the umask could only have narrowed it; keep it exact
  const uint8_t* p = bytes.data();
  size_t left = bytes.size();
  while (left > 0) {
    ssize_t n = ::write(fd.get(), p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (error) *error = "write " + tmp.string() + ": " + errnoText(errno);
      fd.reset();
      ::unlink(tmp.c_str());
      return false;
    }
    p += n;
    left -= static_cast<size_t>(n);
  }
  // close() is checked here, not left to the owner: a failed close can mean the data did not reach the disk.
  if (::fsync(fd.get()) != 0 || ::close(fd.release()) != 0) {
    if (error) *error = "sync " + tmp.string() + ": " + errnoText(errno);
    ::unlink(tmp.c_str());
    return false;
  }
  if (::rename(tmp.c_str(), path.c_str()) != 0) {
    if (error) *error = "rename to " + path.string() + ": " + errnoText(errno);
    ::unlink(tmp.c_str());
    return false;
  }
  // The file is in place; a folder that cannot be synced only leaves the rename less durable.
  return syncDirectory(path.has_parent_path() ? path.parent_path() : std::filesystem::path("."), error);
}

bool syncDirectory(const std::filesystem::path& dir, std::string* error) {
  UniqueFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) {
    if (error) *error = "open folder " + dir.string() + ": " + errnoText(errno);
    return false;
  }
  if (::fsync(fd.get()) != 0) {
    if (error) *error = "sync folder " + dir.string() + ": " + errnoText(errno);
    return false;
  }
  return true;
}

bool writeFileAtomically(const std::filesystem::path& path, std::string_view text, std::string* error) {
  return writeFileAtomically(path, std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()),
                             error);
}

std::optional<std::vector<uint8_t>> readWholeFile(const std::filesystem::path& path, size_t maxBytes,
                                                  std::string* error) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) {
    if (error) *error = errnoText(errno);
    return std::nullopt;
  }
  std::vector<uint8_t> out;
  uint8_t buf[65536];
  for (;;) {
    ssize_t n = ::read(fd.get(), buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      if (error) *error = errnoText(errno);
      return std::nullopt;
    }
    if (n == 0) break;
    if (out.size() + static_cast<size_t>(n) > maxBytes) {
      if (error) *error = "file larger than " + std::to_string(maxBytes) + " bytes";
      return std::nullopt;
    }
    out.insert(out.end(), buf, buf + n);
  }
  return out;
}

bool ensureDirectory(const std::filesystem::path& dir, unsigned mode, std::string* error) {
  std::error_code ec;
  if (!std::filesystem::exists(dir, ec)) {
    std::filesystem::path partial;
    for (auto& part : dir) {
      partial /= part;
      if (::mkdir(partial.c_str(), mode) != 0 && errno != EEXIST) {
        if (error) *error = "mkdir " + partial.string() + ": " + errnoText(errno);
        return false;
      }
    }
  }
  struct stat st {};
  if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    if (error) *error = dir.string() + " is not a directory";
    return false;
  }
  if ((st.st_mode & 07777) != mode && ::chmod(dir.c_str(), mode) != 0) {
    if (error) *error = "chmod " + dir.string() + ": " + errnoText(errno);
    return false;
  }
  return true;
}

}  // namespace vorlen
