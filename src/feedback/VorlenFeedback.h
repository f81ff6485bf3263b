// VorlenFeedback: the envelope of one feedback event. It pairs the event (a QXFeedback of any class of the
// family) with the query it belongs to and the identity of its sender. Everything that reaches a feedback
// session, whether a client reported it or the daemon made it, travels in one of these.
//
//   queryId        server-side query identifier; 0 when none
//   clientQueryId  the client's own query counter; 0 when none
//   relTimestamp   milliseconds since the session's base time; set only when a session is turned into its
//                  upload form, never stored
//   userGuid       the rotating user GUID current when the event was accepted; the session manager
//                  overwrites it on arrival, so callers may leave it empty
//   userAgent      the sending client's user agent: the identity sessions are grouped by
//
// Threading: a plain value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/Uuid.h"
#include "model/QXFeedback.h"

namespace vorlen {

struct VorlenFeedback {
  VorlenFeedback(QXFeedback feedback, int64_t queryId, std::optional<Uuid> userGuid, std::string userAgent,
                 uint64_t clientQueryId = 0)
      : feedback(std::move(feedback)),
        queryId(queryId),
        clientQueryId(clientQueryId),
        userGuid(userGuid),
        userAgent(std::move(userAgent)) {}

  QXFeedback feedback;
  int64_t queryId = 0;
  uint64_t clientQueryId = 0;
  uint64_t relTimestamp = 0;
  std::optional<Uuid> userGuid;
  std::string userAgent;
};

}  // namespace vorlen
