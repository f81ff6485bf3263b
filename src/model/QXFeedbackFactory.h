// QXFeedbackFactory: the feedback events the daemon makes itself, each stamped with the current machine
// time. The arguments follow the events' fields (QXFeedback.cc); numbers that name an enumerated value
// (trigger events, endpoint types, index types, end reasons) are passed as the caller's enumerations.
//
// Threading: stateless; safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Uuid.h"
#include "model/QXFeedback.h"
#include "model/QXSearchResult.h"
#include "model/QXSearchSuggestion.h"
#include "model/VORError.h"

namespace vorlen {

class QXFeedbackFactory {
 public:
  // VORSkipSearchFeedback: why a query did not go to the server (1 too short, 2 bag disabled,
  // 3 bag fetch failed).
  static QXFeedback skipSearch(uint64_t triggerEvent, std::string input);
  static QXFeedback startLocalSearch(std::string input, uint64_t triggerEvent, uint64_t indexType,
                                     uint64_t queryId);
  static QXFeedback endLocalSearch(const QXFeedback& start);
  static QXFeedback didGoToSearch(std::string input, uint64_t endpoint);
  static QXFeedback cacheHit(uint64_t triggerEvent, std::string input, const Uuid& uuid);
  static QXFeedback startNetworkSearch(std::string input, std::string url, StringMap headers,
                                       uint64_t triggerEvent, uint64_t endpoint);
  // VORLookupStartNetworkSearchFeedback: a network start that also names the look-up's selection type
  // and hint domain.
  static QXFeedback lookupStartNetworkSearch(std::string input, std::string url, StringMap headers,
                                             uint64_t lookupSelectionType, std::string domain,
                                             uint64_t endpoint);
  // QXEndNetworkSearchFeedback for a start event of the QXStartNetworkSearchFeedback family.
  static QXFeedback endNetworkSearch(const QXFeedback& start, uint64_t responseSize, int64_t statusCode,
                                     Value::Dict networkTimingData);
  // VOREndNetworkSearchFeedback: the end event with the server's own timing record.
  static QXFeedback vorEndNetworkSearch(const QXFeedback& start, uint64_t responseSize, int64_t statusCode,
                                        std::string vorlenStatus, double vorlenDuration, std::string fbq,
                                        std::string partialClientIp, Value::Dict networkTimingData);
  static QXFeedback error(const VORError& error,
                          const std::optional<VORError>& underlyingError = std::nullopt);
  // VorlenSessionEndFeedback with an index into the session end reasons.
  static QXFeedback sessionEnd(int64_t reason);
  static QXFeedback sessionMissingResults(const std::vector<QXSearchResult>& results);
  static QXFeedback sessionMissingSuggestions(const std::vector<QXSearchSuggestion>& suggestions);
  static QXFeedback connectionInvalidated();
};

}  // namespace vorlen
