// FeedbackEventEncoder: what the daemon makes of each class of feedback event for upload: its event type,
// whether it belongs to a query, its JSON dictionary, and the identifier rewriting done before encoding.
// One table holds every class; a class without an entry takes its superclass's, and a dictionary holds
// the superclass's keys before the class's own.
//
// The keys, value types and enumeration strings are the upload format documented in docs/FEEDBACK.md.
// Every key is written, with the field type's empty value when the event lacks the field ("" for text,
// 0, false, [] and {}), except where the document says a key is written only when known.
//
// Events arrive checked against their class's field table (RecordCoder), so a field holds its declared
// type or is absent; enumerated values outside their table are written "last_" / "(unknown: <n>)".
//
// Threading: stateless; the table is built once, on first use; safe from any thread.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "model/QXFeedback.h"

namespace vorlen {

class SessionProcessingHelper;

class FeedbackEventEncoder {
 public:
  // The event type index (FeedbackEventType) of the event's class.
  static int type(const QXFeedback& event);
  static bool requiresQueryId(const QXFeedback& event);
  // The class's JSON dictionary, without the envelope's keys.
  static nlohmann::ordered_json dictionary(const QXFeedback& event);
  // Rewrites identifiers of the results and suggestions the event carries and tells `helper` which it
  // describes in full (expanded) and which it only refers to (referenced).
  static void process(QXFeedback& event, SessionProcessingHelper& helper);
};

}  // namespace vorlen
