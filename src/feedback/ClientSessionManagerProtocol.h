// ClientSessionManagerProtocol: the role of the feedback session manager, as the client-facing service
// sees it. Every feedback envelope of a client enters through addVorlenFeedback(); the manager decides
// which session it belongs to and when sessions end.
//
// Threading: every method is safe from any thread and returns without waiting for the session work,
// except currentSessionFeedbacks(), which reads the open session synchronously.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "base/Value.h"
#include "feedback/VorlenFeedback.h"

namespace vorlen {

class ClientSessionManagerProtocol {
 public:
  virtual ~ClientSessionManagerProtocol() = default;

  // Accepts one envelope.
  virtual void addVorlenFeedback(VorlenFeedback feedback) = 0;
  // Accepts several, in order, as one piece of work.
  virtual void addVorlenFeedbacks(std::vector<VorlenFeedback> feedbacks) {
    for (auto& f : feedbacks) addVorlenFeedback(std::move(f));
  }

  // A client connection of `agent` went away. With one session shared by every client a
  // connection-invalidated event is added and `callback` gets false (nothing was flushed); otherwise the
  // session is flushed and `callback` gets true once it is. `callback` may be empty.
  virtual void flushSessionInvalidationWithAgent(const std::string& agent,
                                                 std::function<void(bool flushed)> callback) = 0;

  // Ends the open session as an external request; `callback` (may be empty) runs once it is written, or
  // at once when none is open. A manager that keeps no sessions has nothing to end and calls back at once.
  virtual void flushSession(std::function<void()> callback) {
    if (callback) callback();
  }

  // The events of the open session in their dictionary form with relative timestamps; empty when no
  // session is open.
  virtual Value::Array currentSessionFeedbacksWithRelativeTimestamp() = 0;
};

}  // namespace vorlen
