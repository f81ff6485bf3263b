// ClientSessionManager: decides when a feedback session begins and ends. Every envelope of its clients
// enters through addVorlenFeedback(): it is stamped with the current user GUID, dropped when the bag
// disables feedback for its agent, and fed to a three-state machine:
//
//   0 open          a session exists and is younger than the soft limit
//   1 soft-limited  600 s after it opened; it ends at the next idle gap (lazily: when an envelope arrives
//                   more than the idle time after the previous one, that envelope opens the next
//                   session), at the next result or card engagement, or when the max timer fires
//                   (900 s minus the soft limit after the soft limit)
//   2 closed        no session; the next envelope opens one
//
// 900 s is the user GUID's lifetime: a session never outlives the GUID it started with. Ending a session
// ("flushing") adds a "session_end" event with the reason to every per-agent session, completes them and
// forgets them; the reason is passed to the next session as its previous end reason. After an idle end and
// after an engagement end the GUID is rotated. Timers carry the session counter they were armed with, so a
// timer of an older session does nothing. "VORSessionSoftLimitNotification" and
// "VORSessionMaxLimitNotification" are posted as the timers fire.
//
// Settings (preferences, read once at construction): "VORSessionSoftLimitOverride" (1..899 s, else 600)
// shapes only the max time; "VORSessionIdleTimeOverride" (>= 1 s, else 180) is the idle gap.
//
// Threading: every state change runs on the serial queue "com.velmo.vorlend.clientSessionManagerQueue";
// the public operations only dispatch onto it, except the readers, which wait on it.
// REQUIRES: the readers are not called from the manager's queue.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "base/Clock.h"
#include "base/Queue.h"
#include "feedback/ClientSessionManagerProtocol.h"
#include "feedback/ManagedClientSession.h"
#include "model/VORBag.h"
#include "model/VORError.h"

namespace vorlen {

class Assembly;
class GUIDController;

class ClientSessionManager final : public ClientSessionManagerProtocol,
                                   public std::enable_shared_from_this<ClientSessionManager> {
 public:
  enum State : uint64_t { kStateOpen = 0, kStateSoftLimited = 1, kStateClosed = 2 };
  enum Event : uint64_t {
    kEventAddFeedback = 0,
    kEventSoftLimitReached = 1,
    kEventMaxTimerExpired = 2,
    kEventExternalFlush = 3,
    kEventReserved = 4,
    kEventScheduleUpload = 5,
    kEventCriticalMemory = 6,
    kEventScheduleUploadAlso = 7,
    kEventIdleAfterSoftLimit = 8,
    kEventGuidChanged = 9,
    kEventSentinelEngagement = 10,
  };

  static constexpr int64_t kGuidLifetimeSeconds = 900;
  static constexpr int64_t kDefaultSoftLimitSeconds = 600;
  static constexpr int64_t kDefaultIdleSeconds = 180;
  // The soft-limit timer always waits this long; the validated soft limit only shapes the max time.
  static constexpr int64_t kSoftLimitTimerSeconds = 600;

  static std::shared_ptr<ClientSessionManager> create(std::shared_ptr<Assembly> assembly,
                                                      std::shared_ptr<GUIDController> guidController,
                                                      std::string identifier);

  // ClientSessionManagerProtocol.
  void addVorlenFeedback(VorlenFeedback feedback) override;
  void addVorlenFeedbacks(std::vector<VorlenFeedback> feedbacks) override;
  void flushSessionInvalidationWithAgent(const std::string& agent,
                                         std::function<void(bool flushed)> callback) override;
  Value::Array currentSessionFeedbacksWithRelativeTimestamp() override;

  // Ends the open session ("external request"); `callback` (may be empty) runs once the last session has
  // been completed, or at once when none is open.
  void flushSession(std::function<void()> callback) override;

  // The open session; null when closed.
  std::shared_ptr<ManagedClientSession> session() const;
  uint64_t currentState() const;
  std::optional<Time> expirationTime() const;
  const std::string& identifier() const { return identifier_; }
  const std::shared_ptr<GUIDController>& guidController() const { return guidController_; }
  const std::shared_ptr<Queue>& sessionQueue() const { return sessionQueue_; }
  int64_t softLimitTime() const { return softLimitTime_; }
  int64_t idleTime() const { return idleTime_; }
  int64_t maxTime() const { return maxTime_; }

  // The daemon's own user agent ("Vorlend/1.0 (<device>) Vorlend/1.0"), built once per process; nothing
  // without device properties.
  static std::optional<std::string> vorlendUserAgent(const Assembly& assembly);
  // Adds `error` as an "error" event of the daemon's own agent, with the current user GUID, through the
  // Assembly's session manager.
  static void reportErrorAsVorlendFeedback(const VORError& error, const Assembly& assembly);

 private:
  ClientSessionManager(std::shared_ptr<Assembly> assembly, std::shared_ptr<GUIDController> guidController,
                       std::string identifier);

  void _acceptFeedback(VorlenFeedback feedback);
  bool _feedbackEnabledForAgent(const std::string& agent);
  void _renewExpiration();
  void _updateState(uint64_t event, std::optional<VorlenFeedback> feedback, std::function<void()> callback);
  void _flushSessionWithReason(int64_t reason, std::function<void()> callback);
  void _setNewSession(VorlenFeedback feedback);
  void _onUserGuidSoftLimitReached();
  void _insertFlushActivity();
  void _post(const char* name);

  const std::shared_ptr<Assembly> assembly_;
  const std::shared_ptr<GUIDController> guidController_;
  const std::string identifier_;
  std::shared_ptr<Queue> sessionQueue_;
  int64_t softLimitTime_ = kDefaultSoftLimitSeconds;
  int64_t idleTime_ = kDefaultIdleSeconds;
  int64_t maxTime_ = kGuidLifetimeSeconds - kDefaultSoftLimitSeconds;

  // sessionQueue_ only.
  std::shared_ptr<ManagedClientSession> session_;
  std::optional<Uuid> sessionUserGuid_;  // the open session's userGuid()
  uint64_t sessionCounter = 0;
  uint64_t currentState_ = kStateClosed;
  std::optional<Time> expirationTime_;
  int64_t flushReason_ = 0;
  // Whether the bag enables feedback, per agent, for the installed bag `bagSource_` (a new bag clears it).
  std::optional<VORBag> bagSource_;
  std::map<std::string, bool, std::less<>> feedbackEnabledByAgent_;
};

}  // namespace vorlen
