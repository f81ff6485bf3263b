// QXSearchSuggestion: a query suggestion that a client showed or the user engaged, and the on-device
// completion the daemon attaches to a search request.
//
// Record "QXSearchSuggestion" with the fields below (all optional). `type` numbers the suggestion kind;
// the request factory derives the origin sent with a search from it (1, 5 with `topicIdentifier`, 6, 7,
// 8, 9). `duplicateSuggestions` are suggestions the client folded into this one; they travel with it and
// nest at most as deep as records may.
//
// Threading: a plain value.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "model/TypedRecord.h"

namespace vorlen {

struct QXSearchSuggestion : TypedRecord<QXSearchSuggestion> {
  static constexpr const char* kClassName = "QXSearchSuggestion";
  static const RecordBinding<QXSearchSuggestion>& binding();

  std::string identifier;
  std::string suggestion;  // the suggested text
  double score = 0.0;
  uint64_t type = 0;
  std::string topicIdentifier;
  std::string fbr;  // server feedback token, returned as is
  std::vector<QXSearchSuggestion> duplicateSuggestions;

  bool operator==(const QXSearchSuggestion&) const = default;
};

}  // namespace vorlen
