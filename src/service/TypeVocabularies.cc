#include "service/TypeVocabularies.h"

#include <algorithm>
#include <cctype>

namespace vorlen {

namespace {
std::string lower(std::string_view s) {
  std::string out(s);
  std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
  return out;
}
}  // namespace

FeatureType featureTypeFromString(std::string_view s) {
  if (s == "domain" || s == "tld") return FeatureTypeDomain;
  // The only case-insensitive test of the vocabulary: "mediaType" is how servers spell it.
  if (lower(s) == "mediatype" || s == "mt") return FeatureTypeMediaType;
  if (s == "topic") return FeatureTypeTopic;
  return FeatureTypeUnknown;
}

std::string stringFromFeatureType(uint64_t type) {
  switch (type) {
    case FeatureTypeDomain: return "domain";
    case FeatureTypeMediaType: return "mediaType";
    case FeatureTypeTopic: return "topic";
    default: return "unkonwn";
  }
}

ClientType clientTypeFromString(std::string_view s) {
  if (s == "voyant") return ClientTypeVoyant;
  if (s == "norvanta") return ClientTypeNorvanta;
  return ClientTypeUnknown;
}

std::string stringFromClientType(uint64_t type) {
  switch (type) {
    case ClientTypeVoyant: return "voyant";
    case ClientTypeNorvanta: return "norvanta";
    default: return "unknown";
  }
}

FunctionType funcTypeFromString(std::string_view s) {
  if (s == "eng") return FunctionTypeEngagement;
  if (s == "engrate" || s == "eng/render") return FunctionTypeEngagementRate;
  return FunctionTypeUnknown;
}

std::string stringFromFunctionType(uint64_t type) {
  switch (type) {
    case FunctionTypeEngagement: return "eng";
    case FunctionTypeEngagementRate: return "eng/render";
    default: return "unknown";
  }
}

ResultPlacement resultPlacementFromString(std::string_view s) {
  if (s == "top") return ResultPlacementTop;
  if (s == "bottom") return ResultPlacementBottom;
  return ResultPlacementUnknown;
}

std::string stringFromResultPlacement(int64_t placement) {
  switch (placement) {
    case ResultPlacementTop: return "top";
    case ResultPlacementBottom: return "bottom";
    default: return "unkonw";
  }
}

std::string getClientFromUserAgent(const std::optional<std::string>& userAgent) {
  if (!userAgent) return "unknown";
  std::string agent = lower(*userAgent);
  if (agent.find("voyant") != std::string::npos) return "voyant";
  if (agent.find("norvanta") != std::string::npos) return "norvanta";
  return "unknown";
}

}  // namespace vorlen
