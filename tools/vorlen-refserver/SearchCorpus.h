// SearchCorpus: the reference service's answers to search-type requests, made from a small shipped list
// of popular queries with popularity scores. Pure functions of the request; no I/O, no state.
//
// A search answer names the completed query it is for ("query": the most popular corpus entry that
// begins with the typed text, else the text itself), how long it may be cached ("max_age", seconds), the
// server's confidence in that completion ("completion_score", 0..1), a "status" ("OK"), results and
// suggestions (the most popular entries extending the text, best first, at most 8).
//
// The user's own completions that a search carries ("lc": the device's local completions, joined with
// ":") come first: one that extends the typed text becomes the completed query, and each such one leads
// the suggestions, marked "local", ahead of the popular entries.
//
// Threading: immutable; safe from any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace vorlen {

class SearchCorpus {
 public:
  struct Entry {
    std::string query;
    double score;  // 0..1
  };

  // The shipped list, most popular first.
  static const std::vector<Entry>& entries();

  // Entries beginning with `prefix` (compared after lower-casing ASCII letters), most popular first.
  static std::vector<Entry> completions(std::string_view prefix, size_t limit = 8);

  // Answer bodies. `base` is the service's base URL, used in result links.
  static nlohmann::ordered_json search(std::string_view typed, int maxAge, const std::string& base,
                                       const std::vector<std::string>& localCompletions = {});
  // The completions of an "lc" item; empty parts are dropped.
  static std::vector<std::string> splitLocalCompletions(std::string_view lc);
  static nlohmann::ordered_json zeroKeyword(int maxAge, const std::string& base);
  static nlohmann::ordered_json moreResults(std::string_view query, const std::string& base);
  static nlohmann::ordered_json card(std::string_view query, const std::string& base);
  // A look-up answer: an array of one section {"query", "status", "results"}. Its second result carries
  // look-up instructions asking that the query context contain the query ("completion"), so a daemon that
  // filters by instructions keeps it only for a look-up made in such a context.
  static nlohmann::ordered_json lookup(std::string_view query, const std::string& base);
  // Flights answer a query of the form CARRIER-NUMBER ("VL-123"); anything else gets an empty list.
  static nlohmann::ordered_json flights(std::string_view query);

  static std::string lower(std::string_view text);
};

}  // namespace vorlen
