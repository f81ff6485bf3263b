// FeedbackFlusher: the role of the last stage of the feedback pipeline, as the background activities and
// the flusher endpoint see it: a buffer of finished sessions, each sent as one compressed JSON session
// record to one destination (the crowdsourcing or the feedback endpoint of the bag).
//
// Threading: every method is safe from any thread. The buffer lives on the flusher's own serial queue; the
// buffer operations queue onto it in call order and return, flushToWireSync() waits for it.
// REQUIRES: flushToWireSync() is not called from the flusher's queue.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "base/MappedFile.h"

namespace vorlen {

class ClientSession;

class FeedbackFlusher {
 public:
  virtual ~FeedbackFlusher() = default;

  // Queues one session into the buffer, then calls `callback` (may be empty).
  virtual void flush(std::shared_ptr<ClientSession> session, std::function<void()> callback) = 0;
  // Queues sessions into the buffer, appended in order.
  virtual void flushSyncFromArray(std::vector<std::shared_ptr<ClientSession>> sessions) = 0;
  // Empties the buffer.
  virtual void dropFeedbacks() = 0;
  // Sends the whole buffer; `callback` (may be empty) receives the compressed payloads.
  virtual void flushToWireAsync(std::function<void(std::vector<MappedFile>)> callback) = 0;
  // Sends the whole buffer and waits; the compressed payloads are appended to `payloads` when given.
  virtual void flushToWireSync(std::vector<MappedFile>* payloads) = 0;
};

}  // namespace vorlen
