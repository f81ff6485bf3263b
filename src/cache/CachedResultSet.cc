#include "cache/CachedResultSet.h"

#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <limits>

#include <nlohmann/json.hpp>

#include "base/Utf8.h"
#include "network/HttpRequest.h"
#include "network/UrlComponents.h"

namespace vorlen {

namespace {

// Ages beyond a century are taken as a century, so that no server value can overflow the time arithmetic.
constexpr double kMaxAgeLimitSeconds = 100.0 * 365 * 24 * 3600;

std::optional<double> number(const nlohmann::json& object, const char* key) {
  if (!object.is_object()) return std::nullopt;
  auto it = object.find(key);
  if (it == object.end() || !it->is_number()) return std::nullopt;
  return it->get<double>();
}

std::optional<std::string> firstItem(const std::vector<QueryItem>& items, std::string_view name) {
  for (const QueryItem& item : items) {
    if (item.name == name) return item.value;
  }
  return std::nullopt;
}

}  // namespace

CachedResultSet::CachedResultSet(std::string_view input, const HttpRequest* request,
                                 const nlohmann::json& resultSet, Uuid uuid, std::vector<uint8_t> data,
                                 Time now)
    : input_(lowercased(input)), uuid_(uuid), data_(std::move(data)) {
  if (resultSet.is_object()) {
    auto q = resultSet.find("query");
    if (q != resultSet.end() && q->is_string()) query_ = lowercased(q->get_ref<const std::string&>());
  }
  if (std::optional<double> age = number(resultSet, "max_age"); age && *age != 0) {
    expireTime_ = now + seconds(std::clamp(*age, -kMaxAgeLimitSeconds, kMaxAgeLimitSeconds));
  }
  if (std::optional<double> score = number(resultSet, "completion_score")) {
    constexpr double kFloatMax = std::numeric_limits<float>::max();
    completionScore_ = static_cast<float>(std::clamp(*score, -kFloatMax, kFloatMax));
  }
  if (request) {
    if (std::optional<std::string> scale = request->header("X-Velmo-UI-Scale")) {
      // Read like a C number: leading digits count, anything unreadable is 0.
      double v = std::strtod(scale->c_str(), nullptr);
      uiScale_ = std::isfinite(v) ? v : 0;
    }
  }
  RequestItems items = requestItems(request);
  qtype_ = std::move(items.qtype);
  suggestQueries_ = std::move(items.suggestQueries);
  localCompletion_ = std::move(items.localCompletion);
  inputLength_ = utf16Length(input_);
  queryLength_ = query_ ? utf16Length(*query_) : 0;
}

std::string CachedResultSet::lowercased(std::string_view text) {
  if (isAscii(text)) {
    std::string out(text);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
  }
  icu::UnicodeString u =
      icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
  u.toLower(icu::Locale::getRoot());
  std::string out;
  u.toUTF8String(out);
  return out;
}

size_t CachedResultSet::utf16Length(std::string_view text) {
  if (isAscii(text)) return text.size();
  return utf8ToUtf16(text).size();
}

CachedResultSet::RequestItems CachedResultSet::requestItems(const HttpRequest* request) {
  RequestItems out;
  if (!request || request->url.empty()) return out;
  std::optional<UrlComponents> url = UrlComponents::parse(request->url);
  if (!url) return out;
  std::vector<QueryItem> items = url->queryItems();
  out.qtype = firstItem(items, "qtype");
  out.suggestQueries = firstItem(items, "suggest_queries");
  out.localCompletion = firstItem(items, "lc");
  return out;
}

}  // namespace vorlen
