#include "platform/DataDetectorStore.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "base/FileUtil.h"
#include "base/Log.h"

namespace vorlen {

namespace {
const Logger& log() {
  return VorlenLogForCategory(VorlenLogCategoryLookUp);
}
}  // namespace

FileDataDetectorStore::FileDataDetectorStore(std::filesystem::path folder) : folder_(std::move(folder)) {}

std::filesystem::path FileDataDetectorStore::sourcePath(int kind) const {
  return folder_ / ("source." + std::to_string(kind));
}

bool FileDataDetectorStore::pushSource(int kind, int fd, const std::string& signature) {
  if (kind < 0 || kind > kMaxSourceKind) return false;
  std::lock_guard lock(mu_);
  const std::filesystem::path source = sourcePath(kind);
  std::filesystem::path signaturePath = source;
  signaturePath += ".signature";
  std::error_code ec;
  std::filesystem::remove(signaturePath, ec);
  if (ec) {
    log().error("data detectors: cannot remove {}: {}", signaturePath.string(), ec.message());
    return false;
  }
  if (fd < 0) {
    std::filesystem::remove(source, ec);
    return !ec;
  }
  std::vector<uint8_t> bytes;
  uint8_t buffer[65536];
  for (off_t offset = 0;;) {
    ssize_t n = ::pread(fd, buffer, sizeof buffer, offset);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      log().error("data detectors: cannot read the source of kind {}: {}", kind, std::strerror(errno));
      return false;
    }
    if (n == 0) break;
    if (bytes.size() + static_cast<size_t>(n) > kMaxSourceBytes) {
      log().error("data detectors: the source of kind {} is larger than {} bytes", kind, kMaxSourceBytes);
      return false;
    }
    bytes.insert(bytes.end(), buffer, buffer + n);
    offset += n;
  }
  std::string error;
  if (!ensureDirectory(folder_, 0700, &error) ||
      !writeFileAtomically(source, std::span<const uint8_t>(bytes), &error) ||
      !writeFileAtomically(signaturePath, signature, &error)) {
    log().error("data detectors: cannot store the source of kind {}: {}", kind, error);
    return false;
  }
  return true;
}

std::optional<std::string> FileDataDetectorStore::signatureForSourceKind(int kind) const {
  if (kind < 0 || kind > kMaxSourceKind) return std::nullopt;
  std::lock_guard lock(mu_);
  std::filesystem::path signaturePath = sourcePath(kind);
  signaturePath += ".signature";
  auto bytes = readWholeFile(signaturePath, 4096);
  if (!bytes) return std::nullopt;
  return std::string(bytes->begin(), bytes->end());
}

}  // namespace vorlen
