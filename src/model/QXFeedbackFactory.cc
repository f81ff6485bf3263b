#include "model/QXFeedbackFactory.h"

namespace vorlen {
namespace {

Value u(uint64_t n) {
  return Value(static_cast<unsigned long long>(n));
}
Value s(int64_t n) {
  return Value(static_cast<long long>(n));
}

template <class R>
Value recordArray(const std::vector<R>& items) {
  Value::Array a;
  for (const R& item : items) a.push_back(item.toRecord());
  return Value(std::move(a));
}

Value headerDict(const StringMap& headers) {
  return MemberCodec<StringMap>::encode(headers);
}

void setNetworkStart(QXFeedback& f, std::string input, std::string url, const StringMap& headers,
                     std::optional<uint64_t> triggerEvent, uint64_t endpoint) {
  f.set("input", std::move(input));
  f.set("url", std::move(url));
  f.set("headers", headerDict(headers));
  if (triggerEvent) f.set("triggerEvent", u(*triggerEvent));
  f.set("endpoint", u(endpoint));
}

void setNetworkEnd(QXFeedback& f, const QXFeedback& start, uint64_t responseSize, int64_t statusCode,
                   Value::Dict networkTimingData) {
  f.set("startSearch", start.toRecord());
  f.set("responseSize", u(responseSize));
  f.set("statusCode", s(statusCode));
  if (!networkTimingData.empty()) f.set("networkTimingData", std::move(networkTimingData));
}

}  // namespace

QXFeedback QXFeedbackFactory::skipSearch(uint64_t triggerEvent, std::string input) {
  QXFeedback f("VORSkipSearchFeedback");
  f.set("triggerEvent", u(triggerEvent));
  f.set("input", std::move(input));
  return f;
}

QXFeedback QXFeedbackFactory::startLocalSearch(std::string input, uint64_t triggerEvent, uint64_t indexType,
                                               uint64_t queryId) {
  QXFeedback f("QXStartLocalSearchFeedback");
  f.set("input", std::move(input));
  f.set("triggerEvent", u(triggerEvent));
  f.set("indexType", u(indexType));
  f.set("queryId", u(queryId));
  return f;
}

QXFeedback QXFeedbackFactory::endLocalSearch(const QXFeedback& start) {
  QXFeedback f("QXEndLocalSearchFeedback");
  f.set("startSearch", start.toRecord());
  return f;
}

QXFeedback QXFeedbackFactory::didGoToSearch(std::string input, uint64_t endpoint) {
  QXFeedback f("QXDidGoToSearchFeedback");
  f.set("input", std::move(input));
  f.set("endpoint", u(endpoint));
  return f;
}

QXFeedback QXFeedbackFactory::cacheHit(uint64_t triggerEvent, std::string input, const Uuid& uuid) {
  QXFeedback f("VORCacheHitFeedback");
  f.set("triggerEvent", u(triggerEvent));
  f.set("input", std::move(input));
  f.set("uuid", MemberCodec<Uuid>::encode(uuid));
  return f;
}

QXFeedback QXFeedbackFactory::startNetworkSearch(std::string input, std::string url, StringMap headers,
                                                 uint64_t triggerEvent, uint64_t endpoint) {
  QXFeedback f("QXStartNetworkSearchFeedback");
  setNetworkStart(f, std::move(input), std::move(url), headers, triggerEvent, endpoint);
  return f;
}

QXFeedback QXFeedbackFactory::lookupStartNetworkSearch(std::string input, std::string url, StringMap headers,
                                                       uint64_t lookupSelectionType, std::string domain,
                                                       uint64_t endpoint) {
  QXFeedback f("VORLookupStartNetworkSearchFeedback");
  setNetworkStart(f, std::move(input), std::move(url), headers, std::nullopt, endpoint);
  f.set("lookupSelectionType", u(lookupSelectionType));
  if (!domain.empty()) f.set("domain", std::move(domain));
  return f;
}

QXFeedback QXFeedbackFactory::endNetworkSearch(const QXFeedback& start, uint64_t responseSize,
                                               int64_t statusCode, Value::Dict networkTimingData) {
  QXFeedback f("QXEndNetworkSearchFeedback");
  setNetworkEnd(f, start, responseSize, statusCode, std::move(networkTimingData));
  return f;
}

QXFeedback QXFeedbackFactory::vorEndNetworkSearch(const QXFeedback& start, uint64_t responseSize,
                                                  int64_t statusCode, std::string vorlenStatus,
                                                  double vorlenDuration, std::string fbq,
                                                  std::string partialClientIp,
                                                  Value::Dict networkTimingData) {
  QXFeedback f("VOREndNetworkSearchFeedback");
  setNetworkEnd(f, start, responseSize, statusCode, std::move(networkTimingData));
  f.set("vorlenStatus", std::move(vorlenStatus));
  f.set("vorlenDuration", vorlenDuration);
  f.set("fbq", std::move(fbq));
  f.set("partialClientIp", std::move(partialClientIp));
  return f;
}

QXFeedback QXFeedbackFactory::error(const VORError& error, const std::optional<VORError>& underlyingError) {
  QXFeedback f("QXErrorFeedback");
  f.set("error", error.toRecord());
  if (underlyingError) f.set("underlyingError", underlyingError->toRecord());
  return f;
}

QXFeedback QXFeedbackFactory::sessionEnd(int64_t reason) {
  QXFeedback f("VorlenSessionEndFeedback");
  f.set("reason", s(reason));
  return f;
}

QXFeedback QXFeedbackFactory::sessionMissingResults(const std::vector<QXSearchResult>& results) {
  QXFeedback f("VorlenSessionMissingResults");
  f.set("results", recordArray(results));
  return f;
}

QXFeedback QXFeedbackFactory::sessionMissingSuggestions(const std::vector<QXSearchSuggestion>& suggestions) {
  QXFeedback f("VorlenSessionMissingSuggestions");
  f.set("suggestions", recordArray(suggestions));
  return f;
}

QXFeedback QXFeedbackFactory::connectionInvalidated() {
  return QXFeedback("VorlenConnectionInvalidated");
}

}  // namespace vorlen
