// The service's small vocabularies as they appear in server data: feature types, client types, function
// types and result placements, with string conversions both ways, and the classifier of user-agent texts.
//
// The conversions are deliberately not inverse to each other, and the texts "unkonwn" and "unkonw" are the
// vocabulary's own spellings: servers and stored data use them, so they must not be corrected.
//
// Threading: pure functions.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vorlen {

enum FeatureType : uint64_t { FeatureTypeDomain = 0, FeatureTypeMediaType = 1, FeatureTypeTopic = 2, FeatureTypeUnknown = 3 };
enum ClientType : uint64_t { ClientTypeVoyant = 0, ClientTypeNorvanta = 1, ClientTypeUnknown = 2 };
enum FunctionType : uint64_t { FunctionTypeEngagement = 0, FunctionTypeEngagementRate = 1, FunctionTypeUnknown = 2 };
enum ResultPlacement : int64_t { ResultPlacementUnknown = 0, ResultPlacementTop = 1, ResultPlacementBottom = 2 };

FeatureType featureTypeFromString(std::string_view s);
std::string stringFromFeatureType(uint64_t type);
ClientType clientTypeFromString(std::string_view s);
std::string stringFromClientType(uint64_t type);
FunctionType funcTypeFromString(std::string_view s);
std::string stringFromFunctionType(uint64_t type);
ResultPlacement resultPlacementFromString(std::string_view s);
std::string stringFromResultPlacement(int64_t placement);

// "voyant" when the lower-cased agent contains "voyant", else "norvanta" when it contains "norvanta",
// else "unknown" (also for an absent agent). The browser test comes first on purpose.
std::string getClientFromUserAgent(const std::optional<std::string>& userAgent);

}  // namespace vorlen
