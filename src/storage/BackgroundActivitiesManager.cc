#include "storage/BackgroundActivitiesManager.h"

#include "base/Log.h"
#include "base/Transaction.h"
#include "feedback/ClientSession.h"
#include "platform/Assembly.h"
#include "storage/FileContainer.h"
#include "storage/FlusherIPC.h"
#include "storage/PersistentStorage.h"
#include "storage/VorlenFeedbackFlusher.h"
#include "storage/VorlenIPCActivity.h"
#include "storage/VorlenIPCCriteria.h"

namespace vorlen {

namespace {

const Logger& log() {
  return VorlenLogForCategory(VorlenLogCategoryFlusher);
}

// Sends a flusher's buffer, collecting the payloads only when someone listens, and forwards them.
void sendBuffer(FeedbackFlusher& flusher, const std::shared_ptr<FlusherIPC>& listener) {
  std::vector<MappedFile> payloads;
  flusher.flushToWireSync(listener ? &payloads : nullptr);
  if (listener && !payloads.empty()) listener->sendDataToSendingStreamListener(std::move(payloads));
}

}  // namespace

std::shared_ptr<BackgroundActivitiesManager> BackgroundActivitiesManager::create(
    const std::shared_ptr<Assembly>& assembly) {
  auto manager = std::shared_ptr<BackgroundActivitiesManager>(new BackgroundActivitiesManager(assembly));
  manager->_registerFlushActivity();
  return manager;
}

BackgroundActivitiesManager::BackgroundActivitiesManager(const std::shared_ptr<Assembly>& assembly)
    : assembly_(assembly),
      scheduler_(assembly ? assembly->platform.activityScheduler : nullptr),
      queueFlusher_(Queue::serial("com.velmo.vorlend.backgrondActivitiesManagerQueue", QueuePriority::Utility,
                                  assembly ? assembly->clock() : nullptr)),
      feedbackFlusher_(VorlenFeedbackFlusher::create(assembly, VorlenFeedbackFlusher::kFeedback)) {}

BackgroundActivitiesManager::~BackgroundActivitiesManager() {
  if (scheduler_) VorlenIPCActivity::unregister(*scheduler_, kFlushActivityIdentifier);
}

void BackgroundActivitiesManager::_registerFlushActivity() {
  if (!scheduler_) {
    log().error("no background activity scheduler: stored sessions are sent only on request");
    return;
  }
  Value::Dict criteria = VorlenIPCCriteria::createCriteria();
  VorlenIPCCriteria::setDelay(kFlushDelaySeconds, criteria);
  VorlenIPCCriteria::setRepeating(true, criteria);
  VorlenIPCCriteria::setInterval(kFlushIntervalSeconds, criteria);
  VorlenIPCCriteria::setGracePeriod(kFlushGracePeriodSeconds, criteria);
  VorlenIPCCriteria::setAllowBatteryUsage(true, criteria);
  std::weak_ptr<BackgroundActivitiesManager> weak = weak_from_this();
  VorlenIPCActivity::registerActivityWithIdentifier(
      *scheduler_, kFlushActivityIdentifier, std::move(criteria),
      [weak](const std::shared_ptr<BackgroundActivity>& activity) {
        if (auto self = weak.lock()) self->_flushActivityHandler(activity);
      });
  log().debug("started flush to wire in the background {} with interval {:f} seconds",
              kFlushActivityIdentifier, static_cast<double>(kFlushIntervalSeconds));
}

void BackgroundActivitiesManager::_flushActivityHandler(const std::shared_ptr<BackgroundActivity>& activity) {
  if (stopFlushing()) {
    log().notice("flushing has been stopped, will start again with dump command");
    _setState(activity, kActivityStateDone);
    return;
  }
  log().notice("scheduled flush feedbacks to wire {}", kFlushActivityIdentifier);
  _setState(activity, kActivityStateContinue);
  std::weak_ptr<BackgroundActivitiesManager> weak = weak_from_this();
  queueFlusher_->async([weak, activity] {
    auto self = weak.lock();
    if (!self) return;
    self->_flusherActivity();
    self->_setState(activity, kActivityStateDone);
  });
}

void BackgroundActivitiesManager::_setState(const std::shared_ptr<BackgroundActivity>& activity,
                                            int64_t state) {
  const int64_t current = VorlenIPCActivity::getStateForActivity(*scheduler_, activity);
  if (!VorlenIPCActivity::setState(*scheduler_, state, activity))
    log().fault("State transition from {} to {} invalid", current, state);
}

void BackgroundActivitiesManager::insertFlushActivity(std::function<void()> completion) {
  std::weak_ptr<BackgroundActivitiesManager> weak = weak_from_this();
  queueFlusher_->async([weak, completion = std::move(completion)] {
    if (auto self = weak.lock()) self->_flusherActivity();
    if (completion) completion();
  });
}

void BackgroundActivitiesManager::_flusherActivity() {
  queueFlusher_->assertCurrent();
  // The process must not be ended as idle while sessions are on their way out.
  Transaction transaction("_flusherActivity");
  auto assembly = assembly_.lock();
  if (!assembly) return;
  std::shared_ptr<FlusherIPC> listener = assembly->flusherIPCListener;
  if (std::shared_ptr<PersistentStorage> storage = assembly->persistentStorage) {
    for (const std::shared_ptr<FileContainer>& handle : storage->getAvailableSessionHandles()) {
      std::shared_ptr<ClientSession> session = _readFeedbackFromDisk(*assembly, handle);
      // Deleted before it is sent: a session is attempted at most once.
      storage->deleteSessionWithFileContainer(handle);
      if (!session) continue;
      feedbackFlusher_->flushSyncFromArray({session});
      sendBuffer(*feedbackFlusher_, listener);
    }
  }
  if (std::shared_ptr<FeedbackFlusher> crowdsourcing = assembly->crowdsourcingFeedbackFlusher)
    sendBuffer(*crowdsourcing, listener);
}

std::vector<std::shared_ptr<ClientSession>> BackgroundActivitiesManager::_readFeedbacksFromDisk() {
  std::vector<std::shared_ptr<ClientSession>> sessions;
  auto assembly = assembly_.lock();
  if (!assembly || !assembly->persistentStorage) return sessions;
  for (const auto& handle : assembly->persistentStorage->getAvailableSessionHandles())
    if (auto session = _readFeedbackFromDisk(*assembly, handle)) sessions.push_back(std::move(session));
  return sessions;
}

std::shared_ptr<ClientSession> BackgroundActivitiesManager::_readFeedbackFromDisk(
    const Assembly& assembly, const std::shared_ptr<FileContainer>& handle) {
  if (!handle) return nullptr;
  std::shared_ptr<ClientSession> session = handle->read(assembly);
  if (session) session->setStorageHandle(handle);
  return session;
}

}  // namespace vorlen
