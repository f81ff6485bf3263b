// FileContainerProtocol: the role of one writable session file, as a feedback session sees it. The file
// is a sequence of records: the session header first, then one record per event, in the order they were
// written. The storage component that owns session files implements it.
//
// Threading: a session calls these from its own serial queue, one call at a time, and that queue may be
// holding up the session manager's: writeFeedback() hands the write to the storage's own queue and
// returns. `done` may run on any thread, once, after the record has been written or has failed to be.
#pragma once

#include <functional>

namespace vorlen {

class ClientSession;
struct VorlenFeedback;

class FileContainerProtocol {
 public:
  virtual ~FileContainerProtocol() = default;

  // Writes the session's header record (ClientSession::toArchive()). Must be the first record.
  virtual void writeSessionHeader(const ClientSession& session) = 0;
  // Appends one event record (VorlenFeedback::toArchive()); `done` may be empty.
  virtual void writeFeedback(const VorlenFeedback& feedback, std::function<void()> done) = 0;
};

}  // namespace vorlen
