// FeedbackRecordEncoder: the JSON of the objects that feedback events carry (results, sections,
// suggestions, errors, network timing data, peer addresses) and the identifier rewriting of results and
// suggestions before upload.
//
// Identifiers: a result or suggestion with a non-empty identifier gets the session-local replacement of
// SessionProcessingHelper, except a result of the applications section (section bundle identifier
// "com.velmo.application"), whose identifier names an installed application rather than anything the
// user did, and is kept. An item without an identifier is neither rewritten nor tracked, and its JSON has
// no "id".
//
// Threading: stateless; safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

#include "base/Value.h"
#include "model/QXResultSection.h"
#include "model/QXSearchResult.h"
#include "model/QXSearchSuggestion.h"
#include "model/VORError.h"

namespace vorlen {

class SessionProcessingHelper;

class FeedbackRecordEncoder {
 public:
  static constexpr const char* kApplicationSectionBundle = "com.velmo.application";

  static nlohmann::ordered_json result(const QXSearchResult& result);
  static nlohmann::ordered_json section(const QXResultSection& section);
  static nlohmann::ordered_json suggestion(const QXSearchSuggestion& suggestion);
  // {"domain", "code", "reason"}; "reason" is the error's "reason" text, or "" when it has none.
  static nlohmann::ordered_json encodeErrorForJSON(const VORError& error);
  // The labelled timing object of "network_timing_data" (docs/FEEDBACK.md); entries of an unknown name or
  // of the wrong value type are left out.
  static nlohmann::ordered_json formatNetworkTimingData(const Value::Dict& timingData);
  // "[address]:port" for an IPv6 address, "address:port" otherwise.
  static std::string peerAddress(std::string_view address, uint64_t port);

  // Rewrites the identifier of the item and tells the helper that the item was described in full
  // (`expanded`) or only referred to.
  static void processResult(QXSearchResult& result, SessionProcessingHelper& helper, bool expanded);
  static void processSuggestion(QXSearchSuggestion& suggestion, SessionProcessingHelper& helper,
                                bool expanded);
  // The section's results, all described in full.
  static void processSection(QXResultSection& section, SessionProcessingHelper& helper);
};

}  // namespace vorlen
