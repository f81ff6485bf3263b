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
    : _assembly(std::move(assembly)),
      _guidController(std::move(guidController)),
      _identifier(std::move(identifier)) {
  _sessionQueue = Queue::serial("com.velmo.vorlend.clientSessionManagerQueue", QueuePriority::Default,
                                _assembly->clock());
  if (_assembly->sharedSession) {
    sessionLog().info("Vorlen is using shared session for all clients {}", _identifier);
  } else {
    sessionLog().info("Vorlen is using individual session for clients {}", _identifier);
  }

  const auto& defaults = _assembly->userDefaults;
  const int64_t soft =
      defaults ? defaults->integerForKey("VORSessionSoftLimitOverride") : kDefaultSoftLimitSeconds;
  if (soft < 1) {
    sessionLog().error("Soft limit override value must be greater than 0 : {} defaulting to {}", soft,
                       kDefaultSoftLimitSeconds);
    _softLimitTime = kDefaultSoftLimitSeconds;
  } else if (soft >= kGuidLifetimeSeconds) {
    sessionLog().error("Soft limit override value must be less than guid expiration {} : {} defaulting to {}",
                       kGuidLifetimeSeconds, soft, kDefaultSoftLimitSeconds);
    _softLimitTime = kDefaultSoftLimitSeconds;
  } else {
    _softLimitTime = soft;
  }
  const int64_t idle = defaults ? defaults->integerForKey("VORSessionIdleTimeOverride") : kDefaultIdleSeconds;
  if (idle < 1) {
    sessionLog().error("Idle limit override value must be greater than 0 : {} defaulting to {}", idle,
                       kDefaultIdleSeconds);
    _idleTime = kDefaultIdleSeconds;
  } else {
    _idleTime = idle;
  }
  _maxTime = kGuidLifetimeSeconds - _softLimitTime;
  sessionLog().debug("Idle Time {} Soft Limit Time {} Max Time {}", _idleTime, _softLimitTime, _maxTime);
}

// ---- Public operations: dispatch onto the session queue.

void ClientSessionManager::addVorlenFeedback(VorlenFeedback feedback) {
  auto transaction = std::make_shared<Transaction>("addFeedback");
  std::weak_ptr<ClientSessionManager> weak = weak_from_this();
  _sessionQueue->async([weak, transaction, feedback = std::move(feedback)]() mutable {
    if (auto self = weak.lock()) self->_acceptFeedback(std::move(feedback));
  });
}

void ClientSessionManager::addVorlenFeedbacks(std::vector<VorlenFeedback> feedbacks) {
  if (feedbacks.empty()) return;
  auto transaction = std::make_shared<Transaction>("addFeedback");
  std::weak_ptr<ClientSessionManager> weak = weak_from_this();
  _sessionQueue->async([weak, transaction, feedbacks = std::move(feedbacks)]() mutable {
    auto self = weak.lock();
    if (!self) return;
    for (auto& f : feedbacks) self->_acceptFeedback(std::move(f));
  });
}

void ClientSessionManager::flushSession(std::function<void()> callback) {
  std::weak_ptr<ClientSessionManager> weak = weak_from_this();
  _sessionQueue->async([weak, callback = std::move(callback)]() mutable {
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
  if (_assembly->sharedSession) {
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
  _sessionQueue->sync([&] { open = _session; });
  return open;
}

uint64_t ClientSessionManager::currentState() const {
  uint64_t state = 0;
  _sessionQueue->sync([&] { state = _currentState; });
  return state;
}

std::optional<Time> ClientSessionManager::expirationTime() const {
  std::optional<Time> expiration;
  _sessionQueue->sync([&] { expiration = _expirationTime; });
  return expiration;
}

// ---- The state machine (session queue).

void ClientSessionManager::_acceptFeedback(VorlenFeedback feedback) {
  _sessionQueue->assertCurrent();
  // 1. Every envelope, before any filtering, belongs to the flusher endpoint's listeners: a copy goes
  //    out asynchronously, and only while a tool listens.
  if (const auto& flusherIPC = _assembly->flusherIPCListener)
    flusherIPC->sendDataToReceivingStreamListener(feedback);
  // 2. The bag may switch feedback off for this agent: the envelope ends here and does not count as
  //    activity (the idle deadline is not renewed).
  if (!_feedbackEnabledForAgent(feedback.userAgent)) return;
  // 3. Whatever the sender put there, the envelope carries the GUID current now.
  feedback.userGuid =
      _guidController ? std::optional<Uuid>(_guidController->currentUserGUID()) : std::nullopt;

  if (_currentState != kStateClosed && _session && _sessionUserGuid != feedback.userGuid) {
    _updateState(kEventGuidChanged, std::move(feedback), {});
  } else if (_currentState != kStateOpen && _currentState != kStateClosed &&
             eventSuggestsSessionEnd(feedback.type())) {
    _updateState(kEventSentinelEngagement, std::move(feedback), {});
  } else if (_currentState != kStateOpen && _currentState != kStateClosed && _expirationTime &&
             *_expirationTime <= _assembly->clock()->now()) {
    _updateState(kEventIdleAfterSoftLimit, std::move(feedback), {});
  } else {
    _updateState(kEventAddFeedback, std::move(feedback), {});
  }
  _renewExpiration();
}

bool ClientSessionManager::_feedbackEnabledForAgent(const std::string& agent) {
  auto controller = _assembly->bagController;
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
  _expirationTime = _assembly->clock()->now() + seconds(static_cast<double>(_idleTime));
}

void ClientSessionManager::_updateState(uint64_t event, std::optional<VorlenFeedback> feedback,
                                        std::function<void()> callback) {
  _sessionQueue->assertCurrent();
  switch (event) {
    case kEventAddFeedback:
      if (_currentState == kStateOpen || _currentState == kStateSoftLimited) {
        _session->addFeedback(std::move(*feedback));
      } else if (_currentState == kStateClosed) {
        _setNewSession(std::move(*feedback));
        _currentState = kStateOpen;
      } else {
        sessionLog().debug("Avoided adding feedback in state {}", _currentState);
      }
      break;
    case kEventSoftLimitReached:
      if (_currentState == kStateOpen) _currentState = kStateSoftLimited;
      break;
    case kEventMaxTimerExpired:
      if (_currentState == kStateSoftLimited) {
        _flushSessionWithReason(kReasonMaxSessionTime, {});
        sessionLog().notice("session flushed because max timer expired {}", _identifier);
        _currentState = kStateClosed;
      }
      break;
    case kEventExternalFlush:
      _flushSessionWithReason(kReasonExternalRequest, std::move(callback));
      _currentState = kStateClosed;
      break;
    case kEventScheduleUpload:
    case kEventScheduleUploadAlso:
      _insertFlushActivity();
      break;
    case kEventCriticalMemory:
      _flushSessionWithReason(kReasonCriticalMemory, {});
      sessionLog().notice("session flushed because of critical memory");
      _insertFlushActivity();
      _currentState = kStateClosed;
      break;
    case kEventIdleAfterSoftLimit:
      if (_currentState == kStateSoftLimited) {
        _flushSessionWithReason(kReasonSessionIdle, {});
        sessionLog().notice("session flushed because soft limit reached and idle time was beyond {} {}",
                            _idleTime, _identifier);
        // The late envelope opens the next session under a fresh GUID; the controller's queue is FIFO, so
        // the read after reset() returns the new one.
        if (_guidController) {
          _guidController->reset();
          feedback->userGuid = _guidController->currentUserGUID();
        }
        _setNewSession(std::move(*feedback));
        _currentState = kStateOpen;
      }
      break;
    case kEventGuidChanged:
      if (_currentState == kStateOpen || _currentState == kStateSoftLimited) {
        _flushSessionWithReason(kReasonGuidChanged, {});
        sessionLog().notice("session flushed because guid changed {}", _identifier);
        _setNewSession(std::move(*feedback));
        _currentState = kStateOpen;
      }
      break;
    case kEventSentinelEngagement:
      if (_currentState == kStateSoftLimited) {
        _session->addFeedback(std::move(*feedback));
        _flushSessionWithReason(kReasonEngagementReceived, {});
        sessionLog().notice("session flushed because soft limit reached and sentinel feedback received");
        if (_guidController) _guidController->reset();
        _currentState = kStateClosed;
      }
      break;
    default:
      sessionLog().debug("External event received {}", event);
      break;
  }
}

void ClientSessionManager::_flushSessionWithReason(int64_t reason, std::function<void()> callback) {
  _sessionQueue->assertCurrent();
  if (!_session) {
    if (callback) callback();
    return;
  }
  _flushReason = reason;
  bool calledBack = false;
  _session->enumerateSessions([&](ClientSession& session, bool last) {
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
  _session = nullptr;
}

void ClientSessionManager::_setNewSession(VorlenFeedback feedback) {
  _sessionQueue->assertCurrent();
  const uint64_t counter = ++sessionCounter;
  if (_assembly->sharedSession) {
    _session = ClientSessionShared::create(*_assembly, std::move(feedback), _flushReason);
  } else {
    _session = ClientSession::create(*_assembly, std::move(feedback), _flushReason);
  }
  // The session's GUID never changes: kept here, it is compared with every envelope without a hop onto
  // the session's queue.
  _sessionUserGuid = _session->userGuid();
  sessionLog().debug("new session id {} {}", counter, _identifier);

  std::weak_ptr<ClientSessionManager> weak = weak_from_this();
  _sessionQueue->after(seconds(kSoftLimitTimerSeconds), [weak, counter] {
    auto self = weak.lock();
    if (!self) return;
    sessionLog().notice("soft limit reached expected {} current {} {}", counter, self->sessionCounter,
                        self->_identifier);
    if (counter == self->sessionCounter) self->_onUserGuidSoftLimitReached();
  });
}

void ClientSessionManager::_onUserGuidSoftLimitReached() {
  _sessionQueue->assertCurrent();
  if (!_session) return;
  _updateState(kEventSoftLimitReached, std::nullopt, {});
  sessionLog().notice("soft limit reached, maxtimer session id {} {}", sessionCounter, _identifier);

  std::weak_ptr<ClientSessionManager> weak = weak_from_this();
  _sessionQueue->async([weak] {
    if (auto self = weak.lock()) self->_post(kSoftLimitNotification);
  });
  const uint64_t armed = sessionCounter;
  _sessionQueue->after(seconds(static_cast<double>(_maxTime)), [weak, armed] {
    auto self = weak.lock();
    if (!self) return;
    sessionLog().notice("max timer expired expected {} current {}", armed, self->sessionCounter);
    if (armed == self->sessionCounter) {
      if (!self->_session) return;
      self->_updateState(kEventMaxTimerExpired, std::nullopt, {});
    }
    self->_post(kMaxLimitNotification);
  });
}

void ClientSessionManager::_insertFlushActivity() {
  // One more drain of the stored sessions, outside the scheduled ones; without a background flusher the
  // finished sessions wait in storage.
  if (const std::shared_ptr<BackgroundFlusher>& flusher = _assembly->backgroundFlusher)
    flusher->insertFlushActivity({});
}

void ClientSessionManager::_post(const char* name) {
  if (_assembly->notificationCenter) _assembly->notificationCenter->post(name);
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
