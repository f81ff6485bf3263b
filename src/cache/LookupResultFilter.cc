#include "cache/LookupResultFilter.h"

#include <unicode/brkiter.h>
#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <cmath>
#include <map>
#include <memory>

#include "base/Log.h"

namespace vorlen {

namespace {

const Logger& log() {
  return VorlenLogForCategory(VorlenLogCategoryLookUp);
}

double finiteNumber(const nlohmann::json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_number()) return 0;
  double value = it->get<double>();
  return std::isfinite(value) ? value : 0;
}

std::string text(const nlohmann::json& object, const char* key) {
  auto it = object.find(key);
  return it != object.end() && it->is_string() ? it->get<std::string>() : std::string();
}

}  // namespace

LookupResultFilter::LookupResultFilter(std::string locale) : locale_(std::move(locale)) {}

std::string LookupResultFilter::lowercase(std::string_view s) const {
  icu::UnicodeString u =
      icu::UnicodeString::fromUTF8(icu::StringPiece(s.data(), static_cast<int32_t>(s.size())));
  u.toLower(icu::Locale(locale_.c_str()));
  std::string out;
  u.toUTF8String(out);
  return out;
}

std::set<std::string> LookupResultFilter::words(std::string_view s) const {
  std::set<std::string> out;
  UErrorCode status = U_ZERO_ERROR;
  const icu::Locale locale(locale_.c_str());
  std::unique_ptr<icu::BreakIterator> it(icu::BreakIterator::createWordInstance(locale, status));
  if (U_FAILURE(status) || !it) return out;
  icu::UnicodeString u =
      icu::UnicodeString::fromUTF8(icu::StringPiece(s.data(), static_cast<int32_t>(s.size())));
  it->setText(u);
  int32_t start = it->first();
  for (int32_t end = it->next(); end != icu::BreakIterator::DONE; start = end, end = it->next()) {
    if (it->getRuleStatus() == UBRK_WORD_NONE) continue;  // spaces and punctuation
    icu::UnicodeString word(u, start, end - start);
    word.toLower(locale);
    std::string utf8;
    word.toUTF8String(utf8);
    out.insert(std::move(utf8));
  }
  return out;
}

double LookupResultFilter::jaccardIndex(const std::set<std::string>& a, const std::set<std::string>& b) {
  size_t common = 0;
  for (const std::string& w : a) common += b.count(w);
  const size_t all = a.size() + b.size() - common;
  return all == 0 ? 0.0 : static_cast<double>(common) / static_cast<double>(all);
}

bool LookupResultFilter::keep(std::string_view context, const nlohmann::json& result) const {
  if (!result.is_object()) return true;
  auto found = result.find("lookup_instructions");
  if (found == result.end() || !found->is_object()) return true;
  const nlohmann::json& instructions = *found;

  const std::string lowerContext = lowercase(context);
  std::map<std::string, double> weights;
  if (auto keywords = instructions.find("keywords"); keywords != instructions.end() && keywords->is_array()) {
    for (const nlohmann::json& k : *keywords) {
      if (!k.is_object()) continue;
      auto word = k.find("word");
      auto weight = k.find("weight");
      if (word == k.end() || !word->is_string() || weight == k.end() || !weight->is_number()) continue;
      double w = weight->get<double>();
      if (!std::isfinite(w)) continue;
      weights[word->get<std::string>()] = w;
    }
  }
  float score = 0;
  for (const auto& [word, weight] : weights) {
    if (lowerContext.find(lowercase(word)) != std::string::npos) score += static_cast<float>(weight);
  }
  const double minKeywordsScore = finiteNumber(instructions, "min_keywords_score");
  const bool completionExists =
      lowerContext.find(lowercase(text(instructions, "completion"))) != std::string::npos;
  if (score < minKeywordsScore || !completionExists) {
    log().debug("dropping lookup result. keyword score: {:f} min keyword score: {:f} completion exists: {:d}",
                static_cast<double>(score), minKeywordsScore, completionExists ? 1 : 0);
    return false;
  }
  const double minSubjectScore = finiteNumber(instructions, "min_subject_score");
  if (minSubjectScore > 0) {
    const double index = jaccardIndex(words(text(instructions, "subject")), words(context));
    if (index < minSubjectScore) {
      log().debug("dropping lookup result. jaccard index: {:f} min subject score: {:f}", index,
                  minSubjectScore);
      return false;
    }
  }
  return true;
}

std::optional<nlohmann::json> LookupResultFilter::filter(std::string_view context,
                                                         const nlohmann::json& response) const {
  if (response.is_discarded() || response.is_null()) {
    log().notice("no data to process for lookup response. request: {} response: {}", Private(context),
                 Private(std::string("(none)")));
    return std::nullopt;
  }
  if (!response.is_array()) {
    log().notice("lookup response is not an array. who knows what this is: {}", Private(response.dump()));
    return std::nullopt;
  }
  nlohmann::json out = nlohmann::json::array();
  for (const nlohmann::json& entry : response) {
    auto results = entry.is_object() ? entry.find("results") : entry.end();
    if (!entry.is_object() || results == entry.end() || !results->is_array()) {
      out.push_back(entry);
      continue;
    }
    nlohmann::json kept = nlohmann::json::array();
    for (const nlohmann::json& result : *results) {
      if (keep(context, result)) kept.push_back(result);
    }
    nlohmann::json copy = entry;
    copy["results"] = std::move(kept);
    out.push_back(std::move(copy));
  }
  return out;
}

}  // namespace vorlen
