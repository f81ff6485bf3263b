// QXSearchResult: one result a client showed, as reported in feedback events.
//
// Record "QXSearchResult" with the fields below (all optional). `queryId` is the client's query id of
// the search that produced the result. `type` numbers the result kind (1 = the service's own result;
// 9 to 14 and 17 are the kinds whose title the daemon learns as completions). `topHit` is 0 (no),
// 1 (should be) or 2 (must be a top hit). `userInput` and `completedQuery` stay optional because an
// absent text and an empty one are told apart.
//
// Threading: a plain value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "model/TypedRecord.h"

namespace vorlen {

struct QXSearchResult : TypedRecord<QXSearchResult> {
  static constexpr const char* kClassName = "QXSearchResult";
  static const RecordBinding<QXSearchResult>& binding();

  std::optional<std::string> identifier;
  uint64_t queryId = 0;
  uint64_t type = 0;
  std::string title;
  std::optional<std::string> completedQuery;
  std::optional<std::string> userInput;
  uint64_t topHit = 0;
  double score = 0.0;
  bool publiclyIndexable = false;
  std::string sectionBundleIdentifier;
  std::string bundleIdentifier;
  std::string fbr;
  Value::Dict localFeatures;
  std::string correctedQuery;
  bool staticCorrection = false;

  bool isTopHit() const { return topHit != 0; }

  bool operator==(const QXSearchResult&) const = default;
};

}  // namespace vorlen
