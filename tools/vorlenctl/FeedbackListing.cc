#include "FeedbackListing.h"

#include <array>
#include <string_view>

#include <fmt/format.h>

namespace vorlen::ctl {

namespace {

constexpr size_t kMaxSummaryFields = 4;
constexpr size_t kMaxTextLength = 40;

// Shown in their own columns.
constexpr std::array<std::string_view, 4> kColumnKeys = {"type", "timestamp", "query_id", "client_query_id"};

std::string shortText(const Value& v) {
  if (const std::string* s = v.getString()) {
    std::string text = s->size() > kMaxTextLength ? s->substr(0, kMaxTextLength) + "..." : *s;
    return fmt::format("\"{}\"", text);
  }
  if (const auto* a = v.getArray()) return fmt::format("[{}]", a->size());
  if (const auto* d = v.getDict()) return fmt::format("{{{}}}", d->size());
  if (auto b = v.getBool()) return *b ? "true" : "false";
  if (auto i = v.getInt()) return std::to_string(*i);
  if (auto r = v.getDouble()) return fmt::format("{}", *r);
  return v.describe();
}

}  // namespace

std::string FeedbackListing::summary(const Value::Dict& event) {
  std::string out;
  size_t shown = 0;
  for (const auto& [key, value] : event) {
    bool column = false;
    for (std::string_view k : kColumnKeys) column = column || key == k;
    if (column) continue;
    if (shown == kMaxSummaryFields) {
      out += " ...";
      break;
    }
    if (!out.empty()) out += ' ';
    out += key + "=" + shortText(value);
    ++shown;
  }
  return out;
}

std::string FeedbackListing::line(const Value::Dict& event) {
  auto field = [&](const char* key) -> const Value* {
    auto it = event.find(key);
    return it == event.end() ? nullptr : &it->second;
  };
  double relativeSeconds = 0;
  if (const Value* t = field("timestamp"); t && t->getInt())
    relativeSeconds = static_cast<double>(*t->getInt()) / 1000.0;
  std::string type = "?";
  if (const Value* t = field("type"); t && t->getString()) type = *t->getString();
  std::string queryId = "-";
  if (const Value* q = field("query_id"); q && q->getInt()) queryId = std::to_string(*q->getInt());
  return fmt::format("+{:.3f}s  {:<30}  q={:<6}  {}", relativeSeconds, type, queryId, summary(event));
}

}  // namespace vorlen::ctl
