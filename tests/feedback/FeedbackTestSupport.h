// Events of every class, filled as a client would fill them, for the encoding tests: each is built from a
// record that passed the same field-table check as the records clients send.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/Value.h"
#include "model/QXFeedback.h"
#include "model/QXResultSection.h"
#include "model/QXSearchResult.h"
#include "model/QXSearchSuggestion.h"

namespace vorlen::test {

// A checked event of `className` with `fields` and machine time `timestamp`; a failed check fails the test.
inline QXFeedback event(const std::string& className, Value::Dict fields = {}, uint64_t timestamp = 1000000) {
  fields.insert_or_assign("$class", Value(className));
  fields.insert_or_assign("timestamp", Value(static_cast<unsigned long long>(timestamp)));
  std::string error;
  std::optional<QXFeedback> f = QXFeedback::fromRecord(Value(std::move(fields)), &error);
  EXPECT_TRUE(f) << className << ": " << error;
  return f.value_or(QXFeedback(className, timestamp));
}

inline QXSearchResult result(std::string identifier, std::string sectionBundle = "com.velmo.vorlen.web") {
  QXSearchResult r;
  r.identifier = std::move(identifier);
  r.type = 1;
  r.title = "Weather";
  r.topHit = 1;
  r.score = 0.75;
  r.publiclyIndexable = true;
  r.sectionBundleIdentifier = std::move(sectionBundle);
  r.bundleIdentifier = "com.velmo.browser";
  r.fbr = "fbr-r";
  r.localFeatures = {{"rank", Value(2)}};
  return r;
}

inline QXResultSection section(std::string identifier, std::vector<QXSearchResult> results) {
  QXResultSection s;
  s.identifier = std::move(identifier);
  s.score = 0.5;
  s.bundleIdentifier = "com.velmo.vorlen.web";
  s.results = std::move(results);
  return s;
}

inline QXSearchSuggestion suggestion(std::string identifier, std::string text) {
  QXSearchSuggestion s;
  s.identifier = std::move(identifier);
  s.suggestion = std::move(text);
  s.score = 0.9;
  s.type = 1;
  s.fbr = "fbr-s";
  return s;
}

template <class R>
Value records(const std::vector<R>& items) {
  Value::Array a;
  for (const R& r : items) a.push_back(r.toRecord());
  return Value(std::move(a));
}

}  // namespace vorlen::test
