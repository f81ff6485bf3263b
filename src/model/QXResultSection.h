// QXResultSection: a section of results as a client showed it, reported in ranking and section feedback.
//
// Record "QXResultSection": "identifier" string, "score" real, "bundleIdentifier" string, "results"
// array of QXSearchResult records.
//
// Threading: a plain value.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "model/QXSearchResult.h"
#include "model/TypedRecord.h"

namespace vorlen {

struct QXResultSection : TypedRecord<QXResultSection> {
  static constexpr const char* kClassName = "QXResultSection";
  static const RecordBinding<QXResultSection>& binding();

  std::string identifier;
  double score = 0.0;
  std::string bundleIdentifier;
  std::vector<QXSearchResult> results;

  bool operator==(const QXResultSection&) const = default;
};

}  // namespace vorlen
