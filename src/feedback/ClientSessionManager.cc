#include "feedback/ClientSessionManager.h"

#include <mutex>

#include "base/Log.h"
#include "base/Transaction.h"
#include "feedback/ClientSession.h"
#include "feedback/ClientSessionShared.h"
#include "feedback/VorlenEventsSuggestingSessionEnd.h"
#include "feedback/VorlenSessionEndFeedback.h"
#include "model/Constants.h"
#include "model/QXFeedbackFactory.h"
#include "network/BagController.h"
#include "network/GUIDController.h"
#include "network/UserAgent.h"
#include "platform/Assembly.h"
#include "storage/BackgroundFlusher.h"
#include "storage/FlusherIPC.h"

namespace vorlen {

namespace {

const Logger& sessionLog() {
  return VorlenLogForCategory(VorlenLogCategorySession);
}

// Flush reasons (indexes of the session end reasons).
constexpr int64_t kReasonExternalRequest = VorlenSessionEndFeedback::kExternalRequest;
constexpr int64_t kReasonSessionIdle = VorlenSessionEndFeedback::kSessionIdle;
constexpr int64_t kReasonMaxSessionTime = VorlenSessionEndFeedback::kMaxSessionTimePassed;
constexpr int64_t kReasonGuidChanged = VorlenSessionEndFeedback::kGuidChanged;
constexpr int64_t kReasonCriticalMemory = VorlenSessionEndFeedback::kCriticalMemory;
constexpr int64_t kReasonEngagementReceived = VorlenSessionEndFeedback::kEngagementReceived;

constexpr const char* kSoftLimitNotification = "VORSessionSoftLimitNotification";
constexpr const char* kMaxLimitNotification = "VORSessionMaxLimitNotification";

}  // namespace

std::shared_ptr<ClientSessionManager> ClientSessionManager::create(
    std::shared_ptr<Assembly> assembly, std::shared_ptr<GUIDController> guidController,
    std::string identifier) {
  return std::shared_ptr<ClientSessionManager>(
      new ClientSessionManager(std::move(assembly), std::move(guidController), std::move(identifier)));
}

ClientSessionManager::ClientSessionManager(std::shared_ptr<Assembly> assembly,
                                           std::shared_ptr<GUIDController> guidController,
                                           std::string identifier)
    : assembly_(std::move(assembly)),
      guidController_(std::move(guidController)),
      identifier_(std::move(identifier)) {
  sessionQueue_ = Queue::serial("com.velmo.vorlend.clientSessionManagerQueue", QueuePriority::Default,
                                assembly_->clock());
  if (assembly_->sharedSession) {
    sessionLog().info("Vorlen is using shared session for all clients {}", identifier_);
  } else {
    sessionLog().info("Vorlen is using individual session for clients {}", identifier_);
  }

  const auto& defaults = assembly_->userDefaults;
  const int64_t soft =
      defaults ? defaults->integerForKey("VORSessionSoftLimitOverride") : kDefaultSoftLimitSeconds;
  if (soft < 1) {
    sessionLog().error("Soft limit override value must be greater than 0 : {} defaulting to {}", soft,
                       kDefaultSoftLimitSeconds);
    softLimitTime_ = kDefaultSoftLimitSeconds;
  } else if (soft >= kGuidLifetimeSeconds) {
    sessionLog().error("Soft limit override value must be less than guid expiration {} : {} defaulting to {}",
                       kGuidLifetimeSeconds, soft, kDefaultSoftLimitSeconds);
    softLimitTime_ = kDefaultSoftLimitSeconds;
  } else {
    softLimitTime_ = soft;
  }
  const int64_t idle = defaults ? defaults->integerForKey("VORSessionIdleTimeOverride") : kDefaultIdleSeconds;
  if (idle < 1) {
    sessionLog().error("Idle limit override value must be greater than 0 : {} defaulting to {}", idle,
                       kDefaultIdleSeconds);
    idleTime_ = kDefaultIdleSeconds;
  } else {
    idleTime_ = idle;
  }
  maxTime_ = kGuidLifetimeSeconds - softLimitTime_;
  sessionLog().debug("Idle Time {} Soft Limit Time {} Max Time {}", idleTime_, softLimitTime_, maxTime_);
}

// ---- Public operations: dispatch onto the session queue.

void ClientSessionManager::addVorlenFeedback(VorlenFeedback feedback) {
  auto transaction = std::make_shared<Transaction>("addFeedback");
  std::weak_ptr<ClientSessionManager> weak = weak_from_this();
  sessionQueue_->async([weak, transaction, feedback = std::move(feedback)]() mutable {
    if (auto self = weak.lock()) self->_acceptFeedback(std::move(feedback));
  });
}

void ClientSessionManager::addVorlenFeedbacks(std::vector<VorlenFeedback> feedbacks) {
  if (feedbacks.empty()) return;
  auto transaction = std::make_shared<Transaction>("addFeedback");
  std::weak_ptr<ClientSessionManager> weak = weak_from_this();
  // A search hands its events over after its cached answer has gone out (or ahead of a network request
  // that takes far longer), so an idle session queue takes them on the caller's thread: no worker is
  // woken per keystroke.
  sessionQueue_->asyncOrRunHere([weak, transaction, feedbacks = std::move(feedbacks)]() mutable {
    auto self = weak.lock();
    if (!self) return;
    for (auto& f : feedbacks) self->_acceptFeedback(std::move(f));
  });
}

void ClientSessionManager::flushSession(std::function<void()> callback) {
  std::weak_ptr<ClientSessionManager> weak = weak_from_this();
  sessionQueue_->async([weak, callback = std::move(callback)]() mutable {
    auto self = weak.lock();
    if (!self) {
      if (callback) callback();
      return;
    }
    self->_updateState(kEventExternalFlush, std::nullopt, std::move(callback));
  });
}

void ClientSessionManager::flushSessionInvalidationWithAgent(const std::string& agent,
                                                             std::function<void(bool flushed)> callback) {
  if (assembly_->sharedSession) {
    // One session serves every client: the others' events stay in it; the session only records that this
    // client went away.
    addVorlenFeedback(VorlenFeedback(QXFeedbackFactory::connectionInvalidated(), 0, std::nullopt, agent));
    if (callback) callback(false);
    return;
  }
  flushSession([callback = std::move(callback)] {
    if (callback) callback(true);
  });
}

Value::Array ClientSessionManager::currentSessionFeedbacksWithRelativeTimestamp() {
  auto open = session();
  return open ? open->feedbackValuesWithRelativeTimestamp() : Value::Array{};
}

std::shared_ptr<ManagedClientSession> ClientSessionManager::session() const {
  std::shared_ptr<ManagedClientSession> open;
  sessionQueue_->sync([&] { open = session_; });
  return open;
}

uint64_t ClientSessionManager::currentState() const {
  uint64_t state = 0;
  sessionQueue_->sync([&] { state = currentState_; });
  return state;
}

std::optional<Time> ClientSessionManager::expirationTime() const {
  std::optional<Time> expiration;
  sessionQueue_->sync([&] { expiration = expirationTime_; });
  return expiration;
}

// ---- The state machine (session queue).

void ClientSessionManager::_acceptFeedback(VorlenFeedback feedback) {
  sessionQueue_->assertCurrent();
  // 1. Every envelope, before any filtering, belongs to the flusher endpoint's listeners: a copy goes
  //    out asynchronously, and only while a tool listens.
  if (const auto& flusherIPC = assembly_->flusherIPCListener)
    flusherIPC->sendDataToReceivingStreamListener(feedback);
  // 2. The bag may switch feedback off for this agent: the envelope ends here and does not count as
  //    activity (the idle deadline is not renewed).
  if (!_feedbackEnabledForAgent(feedback.userAgent)) return;
  // 3. Whatever the sender put there, the envelope carries the GUID current now.
  feedback.userGuid =
      guidController_ ? std::optional<Uuid>(guidController_->currentUserGUID()) : std::nullopt;

  if (currentState_ != kStateClosed && session_ && sessionUserGuid_ != feedback.userGuid) {
    _updateState(kEventGuidChanged, std::move(feedback), {});
  } else if (currentState_ != kStateOpen && currentState_ != kStateClosed &&
             eventSuggestsSessionEnd(feedback.type())) {
    _updateState(kEventSentinelEngagement, std::move(feedback), {});
  } else if (currentState_ != kStateOpen && currentState_ != kStateClosed && expirationTime_ &&
             *expirationTime_ <= assembly_->clock()->now()) {
    _updateState(kEventIdleAfterSoftLimit, std::move(feedback), {});
  } else {
    _updateState(kEventAddFeedback, std::move(feedback), {});
  }
  _renewExpiration();
}

bool ClientSessionManager::_feedbackEnabledForAgent(const std::string& agent) {
  auto controller = assembly_->bagController;
  std::optional<VORBag> bag = controller ? controller->cachedBagState() : std::nullopt;
  if (!bag) return true;
  // Copies of one installed bag share its dictionary: identity tells a newly installed bag apart, and the
  // per-agent answers of the old one are forgotten.
  if (!bagSource_ || &bagSource_->rawBag() != &bag->rawBag()) {
    feedbackEnabledByAgent_.clear();
    bagSource_ = bag;
  }
  auto known = feedbackEnabledByAgent_.find(agent);
  if (known != feedbackEnabledByAgent_.end()) return known->second;
  const bool enabled = VORBag(bag->rawBag(), agent).feedbackEnabled();
  feedbackEnabledByAgent_.emplace(agent, enabled);
  return enabled;
}

void ClientSessionManager::_renewExpiration() {
  expirationTime_ = assembly_->clock()->now() + seconds(static_cast<double>(idleTime_));
}

void ClientSessionManager::_updateState(uint64_t event, std::optional<VorlenFeedback> feedback,
                                        std::function<void()> callback) {
  sessionQueue_->assertCurrent();
  switch (event) {
    case kEventAddFeedback:
      if (currentState_ == kStateOpen || currentState_ == kStateSoftLimited) {
        session_->addFeedback(std::move(*feedback));
      } else if (currentState_ == kStateClosed) {
        _setNewSession(std::move(*feedback));
        currentState_ = kStateOpen;
      } else {
        sessionLog().debug("Avoided adding feedback in state {}", currentState_);
      }
      break;
    case kEventSoftLimitReached:
      if (currentState_ == kStateOpen) currentState_ = kStateSoftLimited;
      break;
    case kEventMaxTimerExpired:
      if (currentState_ == kStateSoftLimited) {
        _flushSessionWithReason(kReasonMaxSessionTime, {});
        sessionLog().notice("session flushed because max timer expired {}", identifier_);
        currentState_ = kStateClosed;
      }
      break;
    case kEventExternalFlush:
      _flushSessionWithReason(kReasonExternalRequest, std::move(callback));
      currentState_ = kStateClosed;
      break;
    case kEventScheduleUpload:
    case kEventScheduleUploadAlso:
      _insertFlushActivity();
      break;
    case kEventCriticalMemory:
      _flushSessionWithReason(kReasonCriticalMemory, {});
      sessionLog().notice("session flushed because of critical memory");
      _insertFlushActivity();
      currentState_ = kStateClosed;
      break;
    case kEventIdleAfterSoftLimit:
      if (currentState_ == kStateSoftLimited) {
        _flushSessionWithReason(kReasonSessionIdle, {});
        sessionLog().notice("session flushed because soft limit reached and idle time was beyond {} {}",
                            idleTime_, identifier_);
        // The late envelope opens the next session under a fresh GUID; the controller's queue is FIFO, so
        // the read after reset() returns the new one.
        if (guidController_) {
          guidController_->reset();
          feedback->userGuid = guidController_->currentUserGUID();
        }
        _setNewSession(std::move(*feedback));
        currentState_ = kStateOpen;
      }
      break;
    case kEventGuidChanged:
      if (currentState_ == kStateOpen || currentState_ == kStateSoftLimited) {
        _flushSessionWithReason(kReasonGuidChanged, {});
        sessionLog().notice("session flushed because guid changed {}", identifier_);
        _setNewSession(std::move(*feedback));
        currentState_ = kStateOpen;
      }
      break;
    case kEventSentinelEngagement:
      if (currentState_ == kStateSoftLimited) {
        session_->addFeedback(std::move(*feedback));
        _flushSessionWithReason(kReasonEngagementReceived, {});
        sessionLog().notice("session flushed because soft limit reached and sentinel feedback received");
        if (guidController_) guidController_->reset();
        currentState_ = kStateClosed;
      }
      break;
    default:
      sessionLog().debug("External event received {}", event);
      break;
  }
}

void ClientSessionManager::_flushSessionWithReason(int64_t reason, std::function<void()> callback) {
  sessionQueue_->assertCurrent();
  if (!session_) {
    if (callback) callback();
    return;
  }
  flushReason_ = reason;
  bool calledBack = false;
  session_->enumerateSessions([&](ClientSession& session, bool last) {
    // Reason 0 ("no previous session") never ends a session with an event.
    if (reason != 0) {
      session.addFeedback(
          VorlenFeedback(QXFeedbackFactory::sessionEnd(reason), 0, session.userGuid(), session.agent()));
    }
    session.sessionComplete();
    if (last && callback) {
      callback();
      calledBack = true;
    }
  });
  if (!calledBack && callback) callback();
  session_ = nullptr;
}

void ClientSessionManager::_setNewSession(VorlenFeedback feedback) {
  sessionQueue_->assertCurrent();
  const uint64_t counter = ++sessionCounter;
  if (assembly_->sharedSession) {
    session_ = ClientSessionShared::create(*assembly_, std::move(feedback), flushReason_);
  } else {
    session_ = ClientSession::create(*assembly_, std::move(feedback), flushReason_);
  }
  // The session's GUID never changes: kept here, it is compared with every envelope without a hop onto
  // the session's queue.
  sessionUserGuid_ = session_->userGuid();
  sessionLog().debug("new session id {} {}", counter, identifier_);

  std::weak_ptr<ClientSessionManager> weak = weak_from_this();
  sessionQueue_->after(seconds(kSoftLimitTimerSeconds), [weak, counter] {
    auto self = weak.lock();
    if (!self) return;
    sessionLog().notice("soft limit reached expected {} current {} {}", counter, self->sessionCounter,
                        self->identifier_);
    if (counter == self->sessionCounter) self->_onUserGuidSoftLimitReached();
  });
}

void ClientSessionManager::_onUserGuidSoftLimitReached() {
  sessionQueue_->assertCurrent();
  if (!session_) return;
  _updateState(kEventSoftLimitReached, std::nullopt, {});
  sessionLog().notice("soft limit reached, maxtimer session id {} {}", sessionCounter, identifier_);

  std::weak_ptr<ClientSessionManager> weak = weak_from_this();
  sessionQueue_->async([weak] {
    if (auto self = weak.lock()) self->_post(kSoftLimitNotification);
  });
  const uint64_t armed = sessionCounter;
  sessionQueue_->after(seconds(static_cast<double>(maxTime_)), [weak, armed] {
    auto self = weak.lock();
    if (!self) return;
    sessionLog().notice("max timer expired expected {} current {}", armed, self->sessionCounter);
    if (armed == self->sessionCounter) {
      if (!self->session_) return;
      self->_updateState(kEventMaxTimerExpired, std::nullopt, {});
    }
    self->_post(kMaxLimitNotification);
  });
}

void ClientSessionManager::_insertFlushActivity() {
  // One more drain of the stored sessions, outside the scheduled ones; without a background flusher the
  // finished sessions wait in storage.
  if (const std::shared_ptr<BackgroundFlusher>& flusher = assembly_->backgroundFlusher)
    flusher->insertFlushActivity({});
}

void ClientSessionManager::_post(const char* name) {
  if (assembly_->notificationCenter) assembly_->notificationCenter->post(name);
}

// ---- Class operations.

std::optional<std::string> ClientSessionManager::vorlendUserAgent(const Assembly& assembly) {
  static std::mutex mu;
  static std::optional<std::string> built;
  std::lock_guard lock(mu);
  if (!built && assembly.platform.device)
    built = createUserAgentString(kVORVorlendNameVersion, *assembly.platform.device);
  return built;
}

void ClientSessionManager::reportErrorAsVorlendFeedback(const VORError& error, const Assembly& assembly) {
  auto manager = assembly.clientSessionManager;
  if (!manager) return;
  std::optional<Uuid> guid;
  if (assembly.guidController) guid = assembly.guidController->currentUserGUID();
  manager->addVorlenFeedback(
      VorlenFeedback(QXFeedbackFactory::error(error), 0, guid, vorlendUserAgent(assembly).value_or("")));
}

}  // namespace vorlen
