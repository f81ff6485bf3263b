// ManagedClientSession: the open feedback session as the session manager holds it: either one
// ClientSession (sessions per client) or one ClientSessionShared (one session of every client, kept per
// agent). Beyond adding and completing, the manager enumerates the per-agent sessions to end them, and
// reads the events for the clients that ask for them.
//
// Threading: every method is safe from any thread; the session orders the calls it receives, and readers
// and enumeration see every add made before them.
#pragma once

#include <functional>
#include <optional>
#include <vector>

#include <nlohmann/json.hpp>

#include "base/Uuid.h"
#include "base/Value.h"
#include "feedback/ClientSessionProtocol.h"
#include "feedback/VorlenFeedback.h"

namespace vorlen {

class ClientSession;
class SessionProcessingHelper;

class ManagedClientSession : public ClientSessionProtocol {
 public:
  // The user GUID the session was opened with; nothing when its first envelope had none.
  virtual std::optional<Uuid> userGuid() const = 0;
  // Calls `block` once per per-agent session (one for a ClientSession), with `last` set on the final call.
  virtual void enumerateSessions(const std::function<void(ClientSession& session, bool last)>& block) = 0;

  // The events in time order.
  virtual std::vector<VorlenFeedback> getSessionFeedbacks() = 0;
  // The upload dictionaries of the events in time order, with times relative to the first (an array).
  virtual nlohmann::ordered_json feedbacksWithRelativeTimestamp() = 0;
  // The same as property-list values, for replies to clients (JSON null entries left out).
  virtual Value::Array feedbackValuesWithRelativeTimestamp() = 0;
  // The same after each event was processed with `helper` (identifiers replaced by session-local ones),
  // led by the missing suggestions and missing results that `helper` collected.
  virtual nlohmann::ordered_json privacyFilteredFeedbacksWithRelativeTimestamp(
      SessionProcessingHelper& helper) = 0;
};

}  // namespace vorlen
