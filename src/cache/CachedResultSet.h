// CachedResultSet: one search response held by the query cache, with what a later lookup needs to decide
// whether it may answer for that later request.
//
// Built from the typed text, the HTTP request that was sent, the parsed response dictionary, the request's
// identifier and the raw body. The dictionary is read at construction and not kept: only "query",
// "max_age" and "completion_score" matter. A hit serves `data` unchanged.
//
//   input            the typed text, lower-cased
//   query            the response's "query" string, lower-cased; the cache key. None when the response has
//                    no "query" string (such a record is never cached)
//   expireTime       now + "max_age" seconds; none when "max_age" is absent, not a number, or 0 (never
//                    expires). A negative age gives a time already past
//   uuid             the identifier of the request that produced the response
//   uiScale          the request's "X-Velmo-UI-Scale" header read as a number; 0 when absent or unreadable
//   completionScore  the response's "completion_score" number; 0 when absent
//   qtype, suggest_queries, localCompletion
//                    the first "qtype" / "suggest_queries" / "lc" query item of the request URL; none when
//                    the item, the URL or the request is missing (an item without "=" also gives none)
//   cost             bytes of `data`
//
// Lower-casing is Unicode's locale-independent mapping, so typed text and keys agree however they were
// typed. Lengths that the cache compares are UTF-16 code units (what the client counts in).
//
// Threading: immutable after construction; share it freely between threads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "base/Clock.h"
#include "base/Uuid.h"

namespace vorlen {

struct HttpRequest;

class CachedResultSet {
 public:
  // initWithInput:request:resultSet:uuid:data: — `now` is the current time of the Assembly's clock.
  // `request` may be null. A `resultSet` that is not an object is read as an empty one.
  CachedResultSet(std::string_view input, const HttpRequest* request, const nlohmann::json& resultSet,
                  Uuid uuid, std::vector<uint8_t> data, Time now);

  const std::string& input() const { return input_; }
  const std::optional<std::string>& query() const { return query_; }
  const std::optional<Time>& expireTime() const { return expireTime_; }
  const Uuid& uuid() const { return uuid_; }
  double uiScale() const { return uiScale_; }
  float completionScore() const { return completionScore_; }
  // The raw response body. An empty body counts as no data.
  const std::vector<uint8_t>& data() const { return data_; }
  const std::optional<std::string>& qtype() const { return qtype_; }
  const std::optional<std::string>& suggest_queries() const { return suggestQueries_; }
  const std::optional<std::string>& localCompletion() const { return localCompletion_; }
  uint64_t cost() const { return data_.size(); }

  // UTF-16 lengths of input() and query() (0 when there is no query).
  size_t inputLength() const { return inputLength_; }
  size_t queryLength() const { return queryLength_; }

  // Unicode lower-casing without locale rules; invalid UTF-8 sequences become U+FFFD.
  static std::string lowercased(std::string_view text);
  // UTF-16 code units of `text`; each invalid UTF-8 sequence counts as one (U+FFFD).
  static size_t utf16Length(std::string_view text);

  // The "qtype", "suggest_queries" and "lc" items of a request URL: what makes two requests the same kind.
  struct RequestItems {
    std::optional<std::string> qtype;
    std::optional<std::string> suggestQueries;
    std::optional<std::string> localCompletion;
  };
  // Each the value of the first item of that name; none when the request is null, its URL does not parse,
  // or the item is missing or has no value.
  static RequestItems requestItems(const HttpRequest* request);

 private:
  std::string input_;
  std::optional<std::string> query_;
  std::optional<Time> expireTime_;
  Uuid uuid_;
  double uiScale_ = 0;
  float completionScore_ = 0;
  std::vector<uint8_t> data_;
  std::optional<std::string> qtype_;
  std::optional<std::string> suggestQueries_;
  std::optional<std::string> localCompletion_;
  size_t inputLength_ = 0;
  size_t queryLength_ = 0;
};

}  // namespace vorlen
