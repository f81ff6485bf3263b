// PersistentStorage: the role of the owner of the session-file folder, as feedback sessions see it. A new
// session asks it for a writable file; a completed session hands its file back, after which the file is
// finished and waits for upload; the background drain lists the finished files and deletes each one it
// has read. The Assembly holds one; while its slot is empty, sessions keep their events in memory only.
//
// Threading: every method is safe from any thread.
#pragma once

#include <memory>
#include <vector>

#include "storage/FileContainerProtocol.h"

namespace vorlen {

class FileContainer;

class PersistentStorage {
 public:
  virtual ~PersistentStorage() = default;

  // A new, empty session file open for writing; null when none can be made (the session then lives in
  // memory only).
  virtual std::shared_ptr<FileContainerProtocol> createFileContainerForWriting() = 0;
  // The session that wrote `container` is complete: nothing more is written to it.
  virtual void closeSessionWithFileContainer(std::shared_ptr<FileContainerProtocol> container) = 0;
  // The finished files, oldest first. REQUIRES: not called from the storage's own queue.
  virtual std::vector<std::shared_ptr<FileContainer>> getAvailableSessionHandles() = 0;
  // Forgets the file and deletes it.
  virtual void deleteSessionWithFileContainer(std::shared_ptr<FileContainer> container) = 0;
};

}  // namespace vorlen
