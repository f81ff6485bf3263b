#include "storage/FileContainer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "base/Archive.h"
#include "base/Counters.h"
#include "base/Log.h"
#include "base/MappedFile.h"
#include "base/Transaction.h"
#include "base/Utf8.h"
#include "feedback/ClientSession.h"
#include "feedback/VorlenFeedback.h"
#include "storage/ArchivedDataIterator.h"

namespace vorlen {
namespace {

const Logger& log() {
  return VorlenLogForCategory(VorlenLogCategorySession);
}

constexpr uint64_t kMaxMappedLength = uint64_t{1} << 32;

}  // namespace

std::shared_ptr<FileContainer> FileContainer::forReading(std::filesystem::path fileUrl, Settings settings) {
  return std::shared_ptr<FileContainer>(
      new FileContainer(std::move(fileUrl), std::move(settings), UniqueFd()));
}

std::shared_ptr<FileContainer> FileContainer::forWriting(UniqueFd handle, std::filesystem::path fileUrl,
                                                         Settings settings) {
  return std::shared_ptr<FileContainer>(
      new FileContainer(std::move(fileUrl), std::move(settings), std::move(handle)));
}

FileContainer::FileContainer(std::filesystem::path fileUrl, Settings settings, UniqueFd handle)
    : fileUrl_(std::move(fileUrl)), settings_(std::move(settings)), fileHandle_(std::move(handle)) {
  if (fileHandle_) {
    struct stat st {};
    if (settings_.fileSystem->fstat(fileHandle_.get(), &st) == 0) size_ = static_cast<uint64_t>(st.st_size);
    open_ = true;
  }
}

bool FileContainer::isOpenForTesting() const {
  return open_.load();
}

void FileContainer::writeSessionHeader(const ClientSession& session) {
  std::vector<uint8_t> header = Archive::encodeBinary(session.toArchive());
  settings_.queue->async([self = shared_from_this(), header = std::move(header)] {
    const std::string& version = self->settings_.version;
    if (!self->_archiveData({reinterpret_cast<const uint8_t*>(version.data()), version.size()})) {
      log().error("Could not write version string");
      self->_closeFile();
    }
    if (!self->_archiveData(header)) {
      log().error("Could not write root object");
      self->_closeFile();
    }
  });
}

void FileContainer::writeFeedback(const VorlenFeedback& feedback, std::function<void()> done) {
  // Encoded on the caller's (the session's) queue: the storage queue, shared by every session, only writes.
  std::vector<uint8_t> record = Archive::encodeBinary(feedback.toArchive());
  settings_.queue->async([self = shared_from_this(), record = std::move(record), done = std::move(done)] {
    if (!self->fileHandle_) return;
    self->_archiveData(record);
    if (done) done();
  });
}

bool FileContainer::_archiveData(std::span<const uint8_t> payload) {
  if (!fileHandle_) return false;
  Transaction transaction("archiveObject");
  const uint64_t length = payload.size();
  const uint64_t offset = size_;
  if (settings_.maxFileSize <= offset + ArchivedDataIterator::kLengthSize + length) {
    VorlenDiagnosticDataReporter::addValue(1, "com.velmo.vorlend.filesizeexceeded");
    log().error("bytes written ({}) + feedback ({}) exceeds max session size ({})", offset,
                ArchivedDataIterator::kLengthSize + length, settings_.maxFileSize);
    _closeFile();
    return false;
  }
  // Length and payload leave in one write, so a crash never separates them; a failed or short write is cut
  // back to the previous end, so the file always ends on a whole record.
  std::vector<uint8_t> bytes;
  bytes.reserve(ArchivedDataIterator::kLengthSize + length);
  const auto* lengthBytes = reinterpret_cast<const uint8_t*>(&length);
  bytes.insert(bytes.end(), lengthBytes, lengthBytes + sizeof length);
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  size_t written = 0;
  while (written < bytes.size()) {
    ssize_t n =
        settings_.fileSystem->write(fileHandle_.get(), bytes.data() + written, bytes.size() - written);
    if (n <= 0) {
      const int err = n < 0 ? errno : ENOSPC;
      log().error("writing session record to {} failed: {}", fileUrl_.string(), std::strerror(err));
      if (settings_.fileSystem->ftruncate(fileHandle_.get(), static_cast<off_t>(offset)) != 0) {
        log().error("cutting {} back to {} bytes failed: {}", fileUrl_.string(), offset,
                    std::strerror(errno));
      }
      return false;
    }
    written += static_cast<size_t>(n);
  }
  size_ = offset + bytes.size();
  dirty_ = true;
  _scheduleSync();
  return true;
}

void FileContainer::_scheduleSync() {
  if (syncPending_) return;
  syncPending_ = true;
  settings_.queue->async([weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    self->syncPending_ = false;
    if (!self->fileHandle_ || !self->dirty_) return;
    self->dirty_ = false;
    if (self->settings_.fileSystem->fdatasync(self->fileHandle_.get()) != 0) {
      log().error("flushing {} to disk failed: {}", self->fileUrl_.string(), std::strerror(errno));
    }
  });
}

void FileContainer::close() {
  settings_.queue->async([self = shared_from_this()] { self->_closeFile(); });
}

void FileContainer::_closeFile() {
  if (!fileHandle_) return;
  log().debug("close file url {}", fileUrl_.string());
  if (dirty_ && settings_.fileSystem->fdatasync(fileHandle_.get()) != 0) {
    log().error("flushing {} to disk failed: {}", fileUrl_.string(), std::strerror(errno));
  }
  dirty_ = false;
  fileHandle_.reset();
  open_ = false;
}

std::shared_ptr<ClientSession> FileContainer::read(const Assembly& assembly) {
  std::shared_ptr<ClientSession> session;
  settings_.queue->sync([&] {
    log().debug("reading file url {}", fileUrl_.string());
    if (fileHandle_) {
      log().fault("file is already open closing it {}", fileUrl_.string());
      _closeFile();
    }
    if (fileUrl_.empty()) {
      log().error("No file url available");
      return;
    }
    struct stat st {};
    if (settings_.fileSystem->lstat(fileUrl_, &st) != 0) {
      log().error("Attribute fetch error {}", std::strerror(errno));
      return;
    }
    // Only a regular file of this user is read: never a link to somewhere else, a FIFO that would block,
    // a device, or a file another user planted.
    if (!S_ISREG(st.st_mode) || st.st_uid != ::geteuid()) {
      log().error("{} is not a regular file of this user", fileUrl_.string());
      return;
    }
    if (static_cast<uint64_t>(st.st_size) > settings_.maxFileSize) {
      VorlenDiagnosticDataReporter::addValue(1, "com.velmo.vorlend.filetoolarge");
      log().error("Session too big to process");
      return;
    }
    fileHandle_ = settings_.fileSystem->open(fileUrl_, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    if (!fileHandle_) {
      log().error("Could not open file for reading {}", std::strerror(errno));
      return;
    }
    session = _unarchiveObject(assembly);
    fileHandle_.reset();
  });
  return session;
}

std::shared_ptr<ClientSession> FileContainer::_unarchiveObject(const Assembly& assembly) {
  if (!fileHandle_) {
    log().error("file handle nil");
    return nullptr;
  }
  struct stat st {};
  if (settings_.fileSystem->fstat(fileHandle_.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    log().error("mmap: {}", std::strerror(errno ? errno : EINVAL));
    return nullptr;
  }
  const uint64_t length = static_cast<uint64_t>(st.st_size);
  if (length >= kMaxMappedLength || length > settings_.maxFileSize) {
    log().error("erroneous file data length");
    return nullptr;
  }
  std::optional<MappedFile> mapping = MappedFile::map(fileHandle_.get(), length);
  if (!mapping) {
    log().error("mmap: {}", std::strerror(errno));
    return nullptr;
  }
  log().debug("unarchive {}", fileUrl_.string());
  return unarchive(mapping->bytes(), settings_.version, assembly);
}

std::shared_ptr<ClientSession> FileContainer::unarchive(std::span<const uint8_t> image,
                                                        const std::string& version,
                                                        const Assembly& assembly) {
  if (image.empty()) {
    log().error("empty file");
    return nullptr;
  }
  ArchivedDataIterator it(image);
  auto versionRecord = it.readNextObject();
  if (!versionRecord) return nullptr;
  std::string_view stored(reinterpret_cast<const char*>(versionRecord->data()), versionRecord->size());
  if (!isValidUtf8(stored)) {
    log().error("version string not stored");
    return nullptr;
  }
  if (stored != version) {
    log().error("version not supported: {}", stored.substr(0, 256));
    return nullptr;
  }
  auto headerRecord = it.readNextObject();
  if (!headerRecord) return nullptr;
  std::string error;
  std::optional<Value> header = Archive::decodeBinary(*headerRecord, &error);
  std::shared_ptr<ClientSession> session = header ? ClientSession::fromArchive(*header, assembly) : nullptr;
  if (!session) {
    log().error("client session not stored");
    return nullptr;
  }
  std::vector<VorlenFeedback> events;
  while (it.hasMore()) {
    const uint64_t start = it.position();
    auto record = it.readNextObject();
    if (!record) break;
    std::optional<Value> archive = Archive::decodeBinary(*record, &error);
    if (archive && archive->className() != VorlenFeedback::kClassName) {
      log().error("vorlen feedback expected");
      break;
    }
    std::optional<VorlenFeedback> feedback =
        archive ? VorlenFeedback::fromArchive(*archive, &error) : std::nullopt;
    if (!feedback) {
      log().error("could not unarchive feedback range {} size {}", start, record->size());
      break;
    }
    events.push_back(std::move(*feedback));
  }
  session->addRestoredFeedbacks(std::move(events));
  return session;
}

}  // namespace vorlen
