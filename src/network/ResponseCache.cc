#include "network/ResponseCache.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>

#include "base/Log.h"

namespace vorlen {
namespace {

const Logger& log() {
  return VorlenLogForCategory(VorlenLogCategoryCaching);
}

// An entry may take at most this fraction of the budget.
constexpr size_t kMaxEntryShare = 20;

std::string lower(std::string_view s) {
  std::string out(s);
  std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
  return out;
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

std::vector<std::string_view> splitList(std::string_view s) {
  std::vector<std::string_view> out;
  while (!s.empty()) {
    size_t comma = s.find(',');
    std::string_view piece = trim(s.substr(0, comma));
    if (!piece.empty()) out.push_back(piece);
    if (comma == std::string_view::npos) break;
    s.remove_prefix(comma + 1);
  }
  return out;
}

// Non-negative decimal seconds; nullopt (and a log line) for anything else.
std::optional<int64_t> parseSeconds(std::string_view text, std::string_view what) {
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"') text = text.substr(1, text.size() - 2);
  int64_t v = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  // Larger than any lifetime we keep: treated as "very long".
  if (ec == std::errc::result_out_of_range && end == text.data() + text.size()) return int64_t(1) << 40;
  if (text.empty() || ec != std::errc() || end != text.data() + text.size() || v < 0) {
    log().info("ignoring malformed {} value '{}'", what, text);
    return std::nullopt;
  }
  return v;
}

struct Directives {
  bool noStore = false;
  bool noCache = false;
  std::optional<int64_t> maxAge;
};

Directives parseCacheControl(const std::optional<std::string>& header) {
  Directives d;
  if (!header) return d;
  for (std::string_view item : splitList(*header)) {
    size_t eq = item.find('=');
    std::string name = lower(trim(item.substr(0, eq)));
    if (name == "no-store") {
      d.noStore = true;
    } else if (name == "no-cache") {
      d.noCache = true;
    } else if (name == "max-age") {
      if (eq == std::string_view::npos) {
        log().info("ignoring malformed Cache-Control max-age without a value");
        continue;
      }
      d.maxAge = parseSeconds(trim(item.substr(eq + 1)), "Cache-Control max-age");
    }
  }
  return d;
}

bool requestBypasses(const HttpRequest& request) {
  Directives d = parseCacheControl(request.header("Cache-Control"));
  if (d.noStore || d.noCache) return true;
  auto pragma = request.header("Pragma");
  return pragma && lower(*pragma).find("no-cache") != std::string::npos;
}

}  // namespace

ResponseCache::ResponseCache(size_t budgetBytes, std::shared_ptr<Clock> clock)
    : budget_(budgetBytes), clock_(clock ? std::move(clock) : Clock::system()) {}

std::optional<ResponseCache::Hit> ResponseCache::lookup(const HttpRequest& request) {
  if (request.method != "GET" || request.cachePolicy != HttpCachePolicy::UseProtocolCachePolicy ||
      requestBypasses(request)) {
    return std::nullopt;
  }
  std::lock_guard lock(mu_);
  auto it = byUrl_.find(request.url);
  if (it == byUrl_.end()) return std::nullopt;
  Entry& e = *it->second;
  if (clock_->now() >= e.expires) {
    removeLocked(it);
    return std::nullopt;
  }
  for (const auto& [name, value] : e.varyValues) {
    if (request.header(name) != value) return std::nullopt;
  }
  lru_.splice(lru_.begin(), lru_, it->second);
  return Hit{e.data, e.response};
}

void ResponseCache::store(const HttpRequest& request, const HttpResponse& response,
                          const std::vector<uint8_t>& data) {
  if (request.method != "GET" || response.status != 200 || requestBypasses(request)) return;
  Directives d = parseCacheControl(response.header("Cache-Control"));
  if (d.noStore || d.noCache || !d.maxAge || *d.maxAge <= 0) return;
  int64_t age = 0;
  if (auto ageHeader = response.header("Age")) age = parseSeconds(trim(*ageHeader), "Age").value_or(0);
  if (age >= *d.maxAge) return;

  Entry e;
  if (auto vary = response.header("Vary")) {
    for (std::string_view name : splitList(*vary)) {
      if (name == "*") return;
      e.varyValues.emplace_back(std::string(name), request.header(name));
    }
  }
  e.url = request.url;
  e.data = data;
  e.response = response;
  e.expires = clock_->now() + std::chrono::seconds(std::min<int64_t>(*d.maxAge - age, int64_t(1) << 40));
  e.bytes = e.data.size() + e.url.size();
  for (const auto& [k, v] : e.response.headers) e.bytes += k.size() + v.size();
  if (e.bytes > budget_ / kMaxEntryShare) return;

  std::lock_guard lock(mu_);
  if (auto old = byUrl_.find(e.url); old != byUrl_.end()) removeLocked(old);
  size_ += e.bytes;
  lru_.push_front(std::move(e));
  byUrl_[lru_.front().url] = lru_.begin();
  evictToFit();
}

void ResponseCache::purge() {
  std::lock_guard lock(mu_);
  lru_.clear();
  byUrl_.clear();
  size_ = 0;
}

size_t ResponseCache::sizeBytes() const {
  std::lock_guard lock(mu_);
  return size_;
}

size_t ResponseCache::count() const {
  std::lock_guard lock(mu_);
  return lru_.size();
}

void ResponseCache::evictToFit() {
  while (size_ > budget_ && !lru_.empty()) removeLocked(byUrl_.find(lru_.back().url));
}

void ResponseCache::removeLocked(std::map<std::string, Lru::iterator>::iterator it) {
  size_ -= it->second->bytes;
  lru_.erase(it->second);
  byUrl_.erase(it);
}

}  // namespace vorlen
