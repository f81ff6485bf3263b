#include "storage/VorlenPersistentStorage.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>

#include "base/Counters.h"
#include "base/Log.h"
#include "platform/Assembly.h"

namespace vorlen {
namespace {

const Logger& log() {
  return VorlenLogForCategory(VorlenLogCategorySession);
}

// A name taken by a file of an earlier run (or planted) is skipped; a few tries are plenty, since the
// counter starts past every number the scan saw.
constexpr int kCreateAttempts = 16;

std::optional<int64_t> fileNumber(std::string_view name) {
  std::string_view digits = name.substr(std::strlen(VorlenPersistentStorage::kFilePrefix));
  int64_t n = 0;
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), n);
  if (ec != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
  return n;
}

}  // namespace

std::shared_ptr<VorlenPersistentStorage> VorlenPersistentStorage::create(const Assembly& assembly,
                                                                         std::string version) {
  auto storage =
      std::shared_ptr<VorlenPersistentStorage>(new VorlenPersistentStorage(assembly, std::move(version)));
  storage->queue_->sync([&] { storage->_scanCacheDirectory(); });
  return storage;
}

VorlenPersistentStorage::VorlenPersistentStorage(const Assembly& assembly, std::string version)
    : clock_(assembly.clock()),
      fileSystem_(assembly.platform.fileSystem ? assembly.platform.fileSystem : linuxFileSystem()),
      queue_(Queue::serial("com.velmo.vorlend.persistentStorageQueue", QueuePriority::Utility,
                           assembly.clock())),
      cachesUrl_(assembly.fileManager().cachesDir),
      version_(std::move(version)) {
  if (assembly.userDefaults) {
    const int64_t size = assembly.userDefaults->integerForKey("VORSessionSizeLimit");
    if (size > 0) maxFileSize_ = static_cast<uint64_t>(size);
    const double age = assembly.userDefaults->doubleForKey("VORSessionMaxAge");
    if (age > 0) maxFileAge_ = age;
  }
}

FileContainer::Settings VorlenPersistentStorage::_settings() const {
  return FileContainer::Settings{version_, queue_, maxFileSize_, fileSystem_};
}

std::pair<UniqueFd, std::filesystem::path> VorlenPersistentStorage::_newFile() {
  if (cachesUrl_.empty()) return {};
  // The folder normally exists; a failure here shows in the create below.
  fileSystem_->mkdir(cachesUrl_, 0700);
  for (int attempt = 0; attempt < kCreateAttempts; ++attempt) {
    const uint32_t n = handleId_.fetch_add(1);
    std::filesystem::path path = cachesUrl_ / (kFilePrefix + std::to_string(n));
    UniqueFd fd = fileSystem_->open(path, O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_NOFOLLOW, 0600);
    if (fd) return {std::move(fd), std::move(path)};
    if (errno != EEXIST) {
      log().error("Could not open file for writing {}", std::strerror(errno));
      return {};
    }
  }
  log().error("Could not open file for writing {}", std::strerror(EEXIST));
  return {};
}

std::shared_ptr<FileContainerProtocol> VorlenPersistentStorage::createFileContainerForWriting() {
  auto [fd, path] = _newFile();
  if (!fd) {
    log().error("Could not get a file url");
    return nullptr;
  }
  log().debug("new file url {}", path.string());
  return FileContainer::forWriting(std::move(fd), std::move(path), _settings());
}

void VorlenPersistentStorage::closeSessionWithFileContainer(
    std::shared_ptr<FileContainerProtocol> container) {
  auto file = std::dynamic_pointer_cast<FileContainer>(container);
  if (!file) return;
  queue_->async([self = shared_from_this(), file] {
    file->_closeFile();
    self->fileContainers_.push_back(file);
  });
}

std::vector<std::shared_ptr<FileContainer>> VorlenPersistentStorage::getAvailableSessionHandles() {
  std::vector<std::shared_ptr<FileContainer>> copy;
  queue_->sync([&] {
    for (const auto& c : fileContainers_) log().debug("available file url {}", c->fileUrl().string());
    copy = fileContainers_;
  });
  return copy;
}

void VorlenPersistentStorage::deleteSessionWithFileContainer(std::shared_ptr<FileContainer> container) {
  if (!container) return;
  queue_->async([self = shared_from_this(), container] {
    std::erase(self->fileContainers_, container);
    container->_closeFile();
    self->_deleteSessionFile(*container);
  });
}

void VorlenPersistentStorage::_deleteSessionFile(const FileContainer& container) {
  if (container.fileUrl().empty()) {
    log().fault("Handle {} does not have a File URL", static_cast<const void*>(&container));
    return;
  }
  log().debug("delete file url {}", container.fileUrl().string());
  if (fileSystem_->unlink(container.fileUrl()) != 0 && errno != ENOENT) {
    log().error("File {} delete failed", container.fileUrl().string());
  }
}

void VorlenPersistentStorage::_scanCacheDirectory() {
  if (cachesUrl_.empty()) {
    log().error("error scanning cache directory, could not get path");
    return;
  }
  std::optional<std::vector<std::string>> names = fileSystem_->list(cachesUrl_);
  if (!names) {
    log().error("error scanning cache directory {}", std::strerror(errno));
    return;
  }
  // Oldest first, as the numbers were handed out; names that are not numbers go last in name order.
  std::vector<std::pair<std::optional<int64_t>, std::string>> entries;
  for (std::string& name : *names) {
    if (name.starts_with(kFilePrefix)) entries.emplace_back(fileNumber(name), std::move(name));
  }
  std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
    if (a.first.has_value() != b.first.has_value()) return a.first.has_value();
    return a.first != b.first ? *a.first < *b.first : a.second < b.second;
  });

  const Time now = clock_->now();
  const uid_t me = ::geteuid();
  std::optional<int64_t> largest;
  for (const auto& [number, name] : entries) {
    const std::filesystem::path path = cachesUrl_ / name;
    struct stat st {};
    if (fileSystem_->lstat(path, &st) != 0) {
      log().error("Attribute fetch error {}", std::strerror(errno));
      continue;
    }
    if (!S_ISREG(st.st_mode) || st.st_uid != me) {
      log().error("skipping {}: not a regular file of this user", name);
      continue;
    }
    // A session file is written until its session ends, so its last write is when it became finished.
    const Time written = Time(std::chrono::seconds(st.st_mtim.tv_sec)) +
                         std::chrono::duration_cast<Duration>(std::chrono::nanoseconds(st.st_mtim.tv_nsec));
    if (std::chrono::duration<double>(now - written).count() > maxFileAge_) {
      VorlenDiagnosticDataReporter::addValue(1, "com.velmo.vorlend.filetooold");
      if (fileSystem_->unlink(path) != 0) log().error("file removing error {}", std::strerror(errno));
      continue;
    }
    fileContainers_.push_back(FileContainer::forReading(path, _settings()));
    if (number && (!largest || *number > *largest)) largest = number;
  }
  if (largest && *largest >= 0 && static_cast<uint64_t>(*largest) >= handleId_.load()) {
    uint32_t expected = handleId_.load();
    const uint64_t next = std::min<uint64_t>(static_cast<uint64_t>(*largest) + 1, UINT32_MAX);
    handleId_.compare_exchange_strong(expected, static_cast<uint32_t>(next));
  }
}

}  // namespace vorlen
