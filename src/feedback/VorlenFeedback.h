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
// Two JSON forms share one base: the event's own dictionary (FeedbackEventEncoder), then "query_id" and
// "client_query_id" (only when the event class requires a query id; "client_query_id" only when non-zero),
// then "type". dictionary() adds "timestamp" = relTimestamp (the upload form); description() adds
// "timestamp" = the event's machine time in milliseconds and serialises it (the log form).
//
// Archive form (session files): a record {"$class": "VorlenFeedback", "feedback": <event record>,
// "query_id": integer, "user_guid": 16-byte data, "user_agent": string, "_clientQueryId": unsigned}.
// Absent values are absent keys; relTimestamp is never stored.
//
// Callers of dictionary() include <nlohmann/json.hpp>.
//
// Threading: a plain value. The tables are built once, on first use; safe from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "base/Uuid.h"
#include "base/Value.h"
#include "model/QXFeedback.h"

namespace vorlen {

class SessionProcessingHelper;

struct VorlenFeedback {
  static constexpr const char* kClassName = "VorlenFeedback";

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
  // Held by the sender until the envelope's record is written to the session file (or the envelope is
  // dropped on the way): a client connection puts its backlog hold here, so a client can never report
  // events faster than they are stored. Never stored, never compared; the session takes it off before
  // keeping the envelope.
  std::shared_ptr<void> untilStored;

  // The event type index of the event's class (FeedbackEventType); kEventUnknown for QXFeedback itself
  // and for a subclass that has no type of its own.
  int type() const;
  // False for exactly the classes whose events stand outside any query (ends of network and local
  // searches, session end, missing items, connection invalidated, grading and look-up hint grading).
  bool requiresQueryId() const;
  // Rewrites the event's result and suggestion identifiers to the session-local ones of `helper` and
  // records which were described in full and which only referred to.
  void process(SessionProcessingHelper& helper);

  // The upload form, keys in their documented order.
  nlohmann::ordered_json dictionary() const;
  // The upload form as a property-list value, for replies to clients: entries that are JSON null are left
  // out (a property list has no null) and dictionary keys come out sorted.
  Value dictionaryValue() const;
  // The log form as JSON text; nothing when it cannot be serialised (counted as
  // "com.velmo.vorlend.feedbacknotsent"). It holds what the user typed: log it only inside Private().
  std::optional<std::string> description() const;

  Value toArchive() const;
  // The envelope, or nothing after one error line (FeedbackStorage category) when `archive` is not a valid
  // envelope record; the reason goes to *error.
  static std::optional<VorlenFeedback> fromArchive(const Value& archive, std::string* error = nullptr);

  // The 38 event type strings, by index.
  static const std::vector<std::string>& eventTypes();
  // The string of an event type index. An index outside the table is a programming error: it logs a
  // fault and yields "(unknown: <n>)".
  static std::string eventTypeToString(int type);
  // Orders by the event's machine time, earlier first; equal times compare equal (use a stable sort).
  static bool timeStampComparator(const VorlenFeedback& a, const VorlenFeedback& b);

 private:
  nlohmann::ordered_json baseDictionary() const;
};

}  // namespace vorlen
