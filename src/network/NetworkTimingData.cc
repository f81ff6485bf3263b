#include "network/NetworkTimingData.h"

#include "model/Constants.h"

namespace vorlen {

Value::Dict NetworkTimingData::fromMetrics(const std::optional<TaskMetrics>& m) {
  Value::Dict d;
  if (!m) return d;
  auto ms = [](Duration dur) { return Value(toSeconds(dur) * 1000.0); };
  d.emplace("fetchStart", Value(toUnixSeconds(m->fetchStart)));
  d.emplace("domainLookupEnd", ms(m->domainLookupEnd));
  d.emplace("connectEnd", ms(m->connectEnd));
  d.emplace("secureConnectionEnd", ms(m->secureConnectionEnd));
  d.emplace("requestStart", ms(m->requestStart));
  d.emplace("responseStart", ms(m->responseStart));
  d.emplace("responseEnd", ms(m->responseEnd));
  d.emplace("redirectCount", Value(static_cast<long long>(m->redirectCount)));
  d.emplace("requestBytesSent", Value(static_cast<long long>(m->requestBytesSent)));
  d.emplace("bodyBytesReceived", Value(static_cast<long long>(m->bodyBytesReceived)));
  d.emplace("reusedConnection", Value(m->reusedConnection));
  if (!m->protocolName.empty()) d.emplace("protocolName", Value(m->protocolName));
  return d;
}

VORError NetworkTimingData::errorFromTransport(const HttpError& e) {
  VORError out;
  out.domain = e.domain;
  out.code = e.code;
  out.userInfo.emplace(kVORErrorReasonKey, Value(e.message));
  return out;
}

}  // namespace vorlen
