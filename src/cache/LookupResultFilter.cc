#include "cache/LookupResultFilter.h"

#include <unicode/brkiter.h>
#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <algorithm>
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

struct LookupResultFilter::Icu {
  icu::Locale locale;
  std::unique_ptr<icu::BreakIterator> words;  // null when ICU has none for the locale
  bool asciiLowercaseIsExact = true;          // false for Turkish, Azerbaijani and Lithuanian
};

LookupResultFilter::LookupResultFilter(std::string locale) : icu_(std::make_unique<Icu>()) {
  icu_->locale = icu::Locale(locale.c_str());
  const std::string_view language = icu_->locale.getLanguage();
  icu_->asciiLowercaseIsExact = language != "tr" && language != "az" && language != "lt";
  UErrorCode status = U_ZERO_ERROR;
  icu_->words.reset(icu::BreakIterator::createWordInstance(icu_->locale, status));
  if (U_FAILURE(status)) icu_->words.reset();
}

LookupResultFilter::~LookupResultFilter() = default;
LookupResultFilter::LookupResultFilter(LookupResultFilter&&) noexcept = default;

std::string LookupResultFilter::lowercase(std::string_view s) const {
  // ASCII text lower-cases the same in every locale but those with their own rules for I.
  if (icu_->asciiLowercaseIsExact &&
      std::all_of(s.begin(), s.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
    std::string out(s);
    for (char& c : out)
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return out;
  }
  icu::UnicodeString u =
      icu::UnicodeString::fromUTF8(icu::StringPiece(s.data(), static_cast<int32_t>(s.size())));
  u.toLower(icu_->locale);
  std::string out;
  u.toUTF8String(out);
  return out;
}

std::set<std::string> LookupResultFilter::words(std::string_view s) const {
  std::set<std::string> out;
  icu::BreakIterator* it = icu_->words.get();
  if (!it) return out;
  const icu::Locale& locale = icu_->locale;
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
  return keep(Context{context, lowercase(context), std::nullopt}, result);
}

bool LookupResultFilter::keep(const Context& context, const nlohmann::json& result) const {
  if (!result.is_object()) return true;
  auto found = result.find("lookup_instructions");
  if (found == result.end() || !found->is_object()) return true;
  const nlohmann::json& instructions = *found;

  const std::string& lowerContext = context.lower;
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
    if (!context.words) context.words = words(context.text);
    const double index = jaccardIndex(words(text(instructions, "subject")), *context.words);
    if (index < minSubjectScore) {
      log().debug("dropping lookup result. jaccard index: {:f} min subject score: {:f}", index,
                  minSubjectScore);
      return false;
    }
  }
  return true;
}

std::optional<nlohmann::json> LookupResultFilter::filter(std::string_view context,
                                                         nlohmann::json response) const {
  if (response.is_discarded() || response.is_null()) {
    log().notice("no data to process for lookup response. request: {} response: {}", Private(context),
                 Private(std::string("(none)")));
    return std::nullopt;
  }
  if (!response.is_array()) {
    log().notice("lookup response is not an array. who knows what this is: {}", Private(response.dump()));
    return std::nullopt;
  }
  // Results are dropped in place, so kept ones are never copied.
  const Context prepared{context, lowercase(context), std::nullopt};
  for (nlohmann::json& entry : response) {
    auto results = entry.is_object() ? entry.find("results") : entry.end();
    if (!entry.is_object() || results == entry.end() || !results->is_array()) continue;
    auto& list = results->get_ref<nlohmann::json::array_t&>();
    list.erase(std::remove_if(list.begin(), list.end(),
                              [&](const nlohmann::json& result) { return !keep(prepared, result); }),
               list.end());
  }
  return response;
}

}  // namespace vorlen
