// VorlenPersistentStorage: the folder of session files. It hands every new session a file of its own
// ("session.N", mode 0600, N from an atomic counter), keeps the list of finished files waiting for upload,
// takes over the files of earlier runs at start-up (deleting those older than "VORSessionMaxAge"), and
// deletes a file once it has been sent.
//
// Session files live directly in the caches folder. The start-up scan trusts nothing there: it never
// follows a symbolic link and lists only regular files of this user; anything else named "session.*" is
// skipped with one line. Files left by a crash, including the file of a session that was still open, are
// finished files at the next start.
//
// Settings: "VORSessionSizeLimit" (bytes, default 2097152) and "VORSessionMaxAge" (seconds, default
// 172800), read once at start.
//
// Threading: every method is safe from any thread. The list and all file work run on the serial queue
// "com.velmo.vorlend.persistentStorageQueue", which the containers share; getAvailableSessionHandles()
// waits on it. REQUIRES: getAvailableSessionHandles() is not called from that queue.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "base/Queue.h"
#include "platform/FileSystem.h"
#include "storage/FileContainer.h"
#include "storage/PersistentStorage.h"

namespace vorlen {

class Assembly;

class VorlenPersistentStorage final : public PersistentStorage,
                                      public std::enable_shared_from_this<VorlenPersistentStorage> {
 public:
  static constexpr const char* kFilePrefix = "session.";

  // Resolves the folder, reads the settings and scans the folder. `version` is the first record of every
  // file (the daemon's own user agent). Files go through the Platform's file layer.
  static std::shared_ptr<VorlenPersistentStorage> create(const Assembly& assembly, std::string version);

  // PersistentStorage.
  std::shared_ptr<FileContainerProtocol> createFileContainerForWriting() override;
  void closeSessionWithFileContainer(std::shared_ptr<FileContainerProtocol> container) override;

  // The finished files, oldest first.
  std::vector<std::shared_ptr<FileContainer>> getAvailableSessionHandles() override;
  // Forgets the file and deletes it (after it was read for sending).
  void deleteSessionWithFileContainer(std::shared_ptr<FileContainer> container) override;

  const std::filesystem::path& directory() const { return cachesUrl_; }
  const std::string& version() const { return version_; }
  uint64_t maxFileSize() const { return maxFileSize_; }
  const std::shared_ptr<Queue>& queue() const { return queue_; }
  uint32_t nextFileNumberForTesting() const { return handleId_.load(); }

 private:
  VorlenPersistentStorage(const Assembly& assembly, std::string version);
  FileContainer::Settings _settings() const;
  // A new empty file, open for appending, and its path; an invalid handle when none can be made.
  std::pair<UniqueFd, std::filesystem::path> _newFile();
  void _scanCacheDirectory();
  void _deleteSessionFile(const FileContainer& container);

  const std::shared_ptr<Clock> clock_;
  const std::shared_ptr<FileSystem> fileSystem_;
  const std::shared_ptr<Queue> queue_;
  const std::filesystem::path cachesUrl_;
  const std::string version_;
  uint64_t maxFileSize_ = 2097152;
  double maxFileAge_ = 172800;
  std::atomic<uint32_t> handleId_{0};
  std::vector<std::shared_ptr<FileContainer>> fileContainers_;  // queue only
};

}  // namespace vorlen
