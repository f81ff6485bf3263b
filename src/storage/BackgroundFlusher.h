// BackgroundFlusher: the role of the owner of the stored-session drain, as the session manager and the
// flusher endpoint see it. Scheduled drains run in background work periods; callers may insert one more.
//
// Threading: every method is safe from any thread.
#pragma once

#include <functional>

namespace vorlen {

class BackgroundFlusher {
 public:
  virtual ~BackgroundFlusher() = default;

  // Queues one drain of every stored session, whatever stopFlushing() says; `completion` (may be empty)
  // runs after it.
  virtual void insertFlushActivity(std::function<void()> completion) = 0;
  // While true, scheduled work periods end at once without touching storage.
  virtual bool stopFlushing() const = 0;
  virtual void setStopFlushing(bool stop) = 0;
};

}  // namespace vorlen
