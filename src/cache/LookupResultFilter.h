// LookupResultFilter: keeps or drops look-up results by the instructions the server attached to each.
//
// A look-up answer is an array of sections, each an object whose "results" array holds the results. A
// result may carry "lookup_instructions" {"min_keywords_score": number, "completion": string, "keywords":
// [{"word": string, "weight": number}], "min_subject_score": number, "subject": string}. With `context` the
// request's query-context text, a result is dropped when
//   - the keyword score (the sum of the weights of the keywords that `context` contains) is below
//     "min_keywords_score", or `context` does not contain "completion" (both compared case-insensitively
//     after lower-casing in the user's locale); or
//   - "min_subject_score" > 0 and the Jaccard index of the word sets of "subject" and `context` (ICU word
//     boundaries, each word lower-cased in the locale; 0 when both are empty) is below it.
// A result without instructions, or whose instructions are not an object, is kept. A field that is
// missing, of another type, or not a finite number counts as absent: a score of 0, an empty completion
// (always contained), no keywords; a keyword entry without a string word or a finite weight is skipped. A
// later keyword with the same word replaces the earlier one.
//
// Threading: one filter object is used by one thread at a time (it keeps its ICU word iterator); make one
// per answer or per thread.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace vorlen {

class LookupResultFilter {
 public:
  // `locale` is an ICU locale identifier ("en_US", "tr_TR").
  explicit LookupResultFilter(std::string locale);
  ~LookupResultFilter();
  LookupResultFilter(LookupResultFilter&&) noexcept;

  // The answer with the dropped results removed; nothing (after a log line) when `response` holds no data
  // or is not an array. Sections that are not objects with a "results" array are left as they are.
  std::optional<nlohmann::json> filter(std::string_view context, nlohmann::json response) const;

  // Whether one result passes its instructions.
  bool keep(std::string_view context, const nlohmann::json& result) const;

  // `text` lower-cased in the locale.
  std::string lowercase(std::string_view text) const;
  // The set of `text`'s words, each lower-cased in the locale.
  std::set<std::string> words(std::string_view text) const;
  // |a ∩ b| / |a ∪ b|; 0 when both are empty.
  static double jaccardIndex(const std::set<std::string>& a, const std::set<std::string>& b);

 private:
  // The query context, lower-cased once, and its word set, made when a result first needs it.
  struct Context {
    std::string_view text;
    std::string lower;
    mutable std::optional<std::set<std::string>> words;
  };
  bool keep(const Context& context, const nlohmann::json& result) const;

  struct Icu;
  std::unique_ptr<Icu> icu_;
};

}  // namespace vorlen
