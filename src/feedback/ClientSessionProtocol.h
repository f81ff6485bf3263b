// ClientSessionProtocol: one feedback session as the components that open one of their own see it (the
// bag fetch describes each fetch as a session). Events are added in order; sessionComplete() ends the
// session and hands it to storage. Nothing may be added after sessionComplete().
//
// Threading: every method is safe from any thread; the session orders the calls it receives.
#pragma once

#include "feedback/VorlenFeedback.h"

namespace vorlen {

class ClientSessionProtocol {
 public:
  virtual ~ClientSessionProtocol() = default;
  virtual void addFeedback(VorlenFeedback feedback) = 0;
  virtual void sessionComplete() = 0;
};

// The Assembly's `makeClientSession` makes a session whose first event is the given envelope; while that
// slot is empty, components that would open a session drop their events.

}  // namespace vorlen
