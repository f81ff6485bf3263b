// FileContainer: one session file. While its session is open it appends length-prefixed records (the
// version string, the session header, then one envelope per event) and refuses to grow the file to the
// maximum size or past it; a finished file is read back into a ClientSession with its events.
//
// Durability. Each record goes to the file in one write call of length and payload together, and a write
// that fails half-way is cut back to the previous end, so after any crash the file holds whole records
// followed at most by one torn record, which the reader ignores. Written records are flushed to the disk
// (fdatasync) once the queue has no more appends waiting: a burst costs one flush, and a power cut loses
// at most the records written since the last flush.
//
// Reading trusts nothing in the file: a file that is not a regular file of this user, is larger than the
// maximum, carries another version string or a header that is not a session yields nothing; a bad event
// record ends the event list there. The file is read through one read-only mapping, records are sliced out
// of it without copies.
//
// Threading: all file work runs on the persistent storage's serial queue. writeSessionHeader(),
// writeFeedback() and close() enqueue in call order and return at once; read() waits on the queue.
// REQUIRES: read() is not called from that queue.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "base/Queue.h"
#include "base/UniqueFd.h"
#include "platform/FileSystem.h"
#include "storage/FileContainerProtocol.h"

namespace vorlen {

class Assembly;
class ClientSession;

class FileContainer final : public FileContainerProtocol, public std::enable_shared_from_this<FileContainer> {
 public:
  struct Settings {
    std::string version;  // the first record of every file: the daemon's own user agent
    std::shared_ptr<Queue> queue;
    uint64_t maxFileSize = 2097152;
    std::shared_ptr<FileSystem> fileSystem;
  };

  // A container for an existing file, without a handle (a finished file).
  static std::shared_ptr<FileContainer> forReading(std::filesystem::path fileUrl, Settings settings);
  // A container that keeps `handle`, a new empty file open for appending.
  static std::shared_ptr<FileContainer> forWriting(UniqueFd handle, std::filesystem::path fileUrl,
                                                   Settings settings);

  // FileContainerProtocol: records 1 (version) and 2 (header), then one record per event. `done` runs
  // after the append, whether it succeeded or not, and is dropped when the file is already closed.
  void writeSessionHeader(const ClientSession& session) override;
  void writeFeedback(const VorlenFeedback& feedback, std::function<void()> done) override;

  // The session with every event read before the first bad record, or null (with its log line).
  std::shared_ptr<ClientSession> read(const Assembly& assembly);
  // Restores a session from a file image (the part of read() after the file checks).
  static std::shared_ptr<ClientSession> unarchive(std::span<const uint8_t> image, const std::string& version,
                                                  const Assembly& assembly);

  // Closes the handle once the appends queued before have run.
  void close();
  // Closes the handle now. REQUIRES: on the queue.
  void _closeFile();

  const std::filesystem::path& fileUrl() const { return fileUrl_; }
  bool isOpenForTesting() const;

 private:
  FileContainer(std::filesystem::path fileUrl, Settings settings, UniqueFd handle);
  // Appends one record; false (with its log line) when it was refused or failed. REQUIRES: on the queue.
  bool _archiveData(std::span<const uint8_t> payload);
  // Flushes written records to the disk once the appends queued so far have run. REQUIRES: on the queue.
  void _scheduleSync();
  std::shared_ptr<ClientSession> _unarchiveObject(const Assembly& assembly);

  const std::filesystem::path fileUrl_;
  const Settings settings_;
  // Queue only:
  UniqueFd fileHandle_;
  uint64_t size_ = 0;  // bytes of whole records in the file
  bool syncPending_ = false;
  bool dirty_ = false;
  std::atomic<bool> open_{false};
};

}  // namespace vorlen
