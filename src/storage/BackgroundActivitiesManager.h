// BackgroundActivitiesManager: the Assembly's background flusher. It owns the repeating activity
// "com.velmo.vorlend.flusher.background" (first due 300 s after start, then every 600 s, grace period
// 300 s, allowed on battery), the feedback flusher (destination 1) that it drives, and the drain that
// sends every stored session.
//
// The drain reads each finished session file, deletes it whether or not the read succeeded, and only then
// hands the session to the flusher: a stored session is attempted at most once, and an upload that fails
// loses it (nothing is retried). It ends by sending the crowdsourcing flusher's buffer. When a flusher
// endpoint is in the Assembly, the compressed payloads of every send are forwarded to it.
//
// stopFlushing: while true, a scheduled period ends at once without touching storage; drains inserted
// through insertFlushActivity() run regardless.
//
// Threading: every public method is safe from any thread. All drains, scheduled or inserted, run one at a
// time on the serial queue "com.velmo.vorlend.backgrondActivitiesManagerQueue"; the scheduler's handler
// only decides and queues. stopFlushing is an atomic flag.
// REQUIRES: _readFeedbacksFromDisk() is not called from the persistent storage's queue.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "base/Queue.h"
#include "platform/BackgroundActivityScheduler.h"
#include "storage/BackgroundFlusher.h"

namespace vorlen {

class Assembly;
class ClientSession;
class FileContainer;
class VorlenFeedbackFlusher;

class BackgroundActivitiesManager final : public BackgroundFlusher,
                                          public std::enable_shared_from_this<BackgroundActivitiesManager> {
 public:
  static constexpr const char* kFlushActivityIdentifier = "com.velmo.vorlend.flusher.background";
  static constexpr int64_t kFlushDelaySeconds = 300;
  static constexpr int64_t kFlushIntervalSeconds = 600;
  static constexpr int64_t kFlushGracePeriodSeconds = 300;

  // Creates the queue and the flusher and registers the flush activity with the Assembly's scheduler.
  // Reads persistentStorage, crowdsourcingFeedbackFlusher and flusherIPCListener at each drain (each may
  // be empty). Holds the Assembly weakly: a drain after it is gone does nothing.
  static std::shared_ptr<BackgroundActivitiesManager> create(const std::shared_ptr<Assembly>& assembly);
  ~BackgroundActivitiesManager() override;  // unregisters the flush activity

  // BackgroundFlusher.
  void insertFlushActivity(std::function<void()> completion) override;
  bool stopFlushing() const override { return stopFlushing_.load(); }
  void setStopFlushing(bool stop) override { stopFlushing_.store(stop); }

  // Every stored session that can be read, without deleting anything.
  std::vector<std::shared_ptr<ClientSession>> _readFeedbacksFromDisk();
  // The session of one stored file with its storageHandle set, or null.
  static std::shared_ptr<ClientSession> _readFeedbackFromDisk(const Assembly& assembly,
                                                              const std::shared_ptr<FileContainer>& handle);

  const std::shared_ptr<VorlenFeedbackFlusher>& feedbackFlusher() const { return feedbackFlusher_; }
  const std::shared_ptr<Queue>& queue() const { return queueFlusher_; }

 private:
  explicit BackgroundActivitiesManager(const std::shared_ptr<Assembly>& assembly);
  void _registerFlushActivity();
  // The scheduler granted a period. On the scheduler's queue.
  void _flushActivityHandler(const std::shared_ptr<BackgroundActivity>& activity);
  // Sets the state; a refused transition is logged as a fault and otherwise ignored.
  void _setState(const std::shared_ptr<BackgroundActivity>& activity, int64_t state);
  // The drain. REQUIRES: on queueFlusher_.
  void _flusherActivity();

  const std::weak_ptr<Assembly> assembly_;
  const std::shared_ptr<BackgroundActivityScheduler> scheduler_;
  const std::shared_ptr<Queue> queueFlusher_;
  std::shared_ptr<VorlenFeedbackFlusher> feedbackFlusher_;
  std::atomic<bool> stopFlushing_{false};
};

}  // namespace vorlen
