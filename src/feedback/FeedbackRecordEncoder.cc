#include "feedback/FeedbackRecordEncoder.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "base/JsonValue.h"
#include "feedback/FeedbackEnumerations.h"
#include "feedback/SessionProcessingHelper.h"

namespace vorlen {
namespace {

using Json = nlohmann::ordered_json;
using E = FeedbackEnumerations;

// The timing data's entries as the upload names them, in upload order.
enum class TimingKind { Number, Bool, String };
struct TimingLabel {
  const char* from;
  const char* label;
  TimingKind kind;
};
constexpr TimingLabel kTimingLabels[] = {
    {"fetchStart", "Start", TimingKind::Number},
    {"domainLookupEnd", "DomainLookupEnd", TimingKind::Number},
    {"connectEnd", "ConnectEnd", TimingKind::Number},
    {"secureConnectionEnd", "SecureConnectionEnd", TimingKind::Number},
    {"requestStart", "RequestStart", TimingKind::Number},
    {"responseStart", "ResponseStart", TimingKind::Number},
    {"responseEnd", "End", TimingKind::Number},
    {"redirectCount", "RedirectCount", TimingKind::Number},
    {"requestBytesSent", "RequestBytesSent", TimingKind::Number},
    {"bodyBytesReceived", "BodyBytesReceived", TimingKind::Number},
    {"reusedConnection", "ReusedConnection", TimingKind::Bool},
    {"protocolName", "Protocol", TimingKind::String},
    {"quintara", "Quintara", TimingKind::Bool},
};

Json number(const Value& v) {
  switch (v.type()) {
    case Value::Type::Int:
      return *v.getInt();
    case Value::Type::UInt:
      return *v.getUInt();
    default:
      return *v.getDouble();
  }
}

bool hasIdentifier(const std::optional<std::string>& id) {
  return id && !id->empty();
}

}  // namespace

Json FeedbackRecordEncoder::result(const QXSearchResult& r) {
  Json d = Json::object();
  if (hasIdentifier(r.identifier)) d["id"] = *r.identifier;
  d["score"] = r.score;
  d["result_type"] = E::toString(E::resultType(), r.type);
  d["publicly_indexable"] = r.publiclyIndexable;
  d["top_hit"] = E::toString(E::topHit(), r.topHit);
  d["section_bundle_id"] = r.sectionBundleIdentifier;
  d["bundle_id"] = r.bundleIdentifier;
  d["fbr"] = r.fbr;
  d["local_features"] = JsonValue::toJson(Value(r.localFeatures));
  d["corrected_query"] = r.correctedQuery;
  d["static_correction"] = r.staticCorrection;
  return d;
}

Json FeedbackRecordEncoder::section(const QXResultSection& s) {
  Json d = Json::object();
  d["id"] = s.identifier;
  d["score"] = s.score;
  d["bundle_id"] = s.bundleIdentifier;
  Json results = Json::array();
  for (const QXSearchResult& r : s.results) results.push_back(result(r));
  d["results"] = std::move(results);
  return d;
}

Json FeedbackRecordEncoder::suggestion(const QXSearchSuggestion& s) {
  Json d = Json::object();
  if (!s.identifier.empty()) d["id"] = s.identifier;
  d["suggestion"] = s.suggestion;
  d["score"] = s.score;
  d["suggestion_type"] = E::toString(E::suggestionType(), s.type);
  d["fbr"] = s.fbr;
  return d;
}

Json FeedbackRecordEncoder::encodeErrorForJSON(const VORError& error) {
  Json d = Json::object();
  d["domain"] = error.domain;
  d["code"] = error.code;
  d["reason"] = error.reason().value_or("");
  return d;
}

Json FeedbackRecordEncoder::formatNetworkTimingData(const Value::Dict& timing) {
  Json d = Json::object();
  for (const TimingLabel& t : kTimingLabels) {
    auto it = timing.find(t.from);
    if (it == timing.end()) continue;
    const Value& v = it->second;
    switch (t.kind) {
      case TimingKind::Number:
        if (v.isNumber()) d[t.label] = number(v);
        break;
      case TimingKind::Bool:
        if (v.isBool()) d[t.label] = *v.getBool();
        break;
      case TimingKind::String:
        if (v.isString()) d[t.label] = *v.getString();
        break;
    }
  }
  return d;
}

std::string FeedbackRecordEncoder::peerAddress(std::string_view address, uint64_t port) {
  if (address.find(':') != std::string_view::npos) return fmt::format("[{}]:{}", address, port);
  return fmt::format("{}:{}", address, port);
}

void FeedbackRecordEncoder::processResult(QXSearchResult& r, SessionProcessingHelper& helper, bool expanded) {
  if (!hasIdentifier(r.identifier)) return;
  const std::string received = *r.identifier;
  if (r.sectionBundleIdentifier != kApplicationSectionBundle) {
    r.identifier = helper.replacementForIdentifier(received);
  }
  if (expanded) {
    helper.identifierExpanded(received);
  } else {
    helper.identifierReferenced(received, r);
  }
}

void FeedbackRecordEncoder::processSuggestion(QXSearchSuggestion& s, SessionProcessingHelper& helper,
                                              bool expanded) {
  if (s.identifier.empty()) return;
  const std::string received = s.identifier;
  s.identifier = helper.replacementForIdentifier(received);
  if (expanded) {
    helper.identifierExpanded(received);
  } else {
    helper.identifierReferenced(received, s);
  }
}

void FeedbackRecordEncoder::processSection(QXResultSection& s, SessionProcessingHelper& helper) {
  for (QXSearchResult& r : s.results) processResult(r, helper, /*expanded=*/true);
}

}  // namespace vorlen
