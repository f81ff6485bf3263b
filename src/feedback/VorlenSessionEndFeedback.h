// VorlenSessionEndFeedback: why a feedback session ended. The reason is an index into eventTypes(); the
// same index is the session manager's flush reason and a session's "previous_session_end_reason". The
// event itself is a QXFeedback of class "VorlenSessionEndFeedback" with the field "reason"
// (QXFeedbackFactory::sessionEnd makes one).
//
// Threading: the table is built once, on first use; safe from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vorlen {

class VorlenSessionEndFeedback {
 public:
  enum Reason : int64_t {
    kNoPreviousSession = 0,
    kExternalRequest = 1,
    kSessionIdle = 2,
    kMaxSessionTimePassed = 3,
    kGuidChanged = 4,
    kCriticalMemory = 5,
    kEngagementReceived = 6,
  };

  // "no previous session", "external request", "session idle", "max session time passed",
  // "guid changed", "critical memory", "engagement received".
  static const std::vector<std::string>& eventTypes();
  // The reason's text; an index outside the table is written like any enumeration out of its table:
  // "last_" just past the end, "(unknown: <n>)" otherwise.
  static std::string triggerEventEnumToString(int64_t reason);
};

}  // namespace vorlen
