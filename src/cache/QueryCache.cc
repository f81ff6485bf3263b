#include "cache/QueryCache.h"

#include <limits>

#include "base/Log.h"
#include "model/Constants.h"
#include "model/VORRequest.h"
#include "network/HttpRequest.h"
#include "platform/Assembly.h"
#include "platform/MemoryPressureSource.h"
#include "platform/PlatformNotifications.h"

namespace vorlen {

namespace {

const Logger& log() {
  return VorlenLogForCategory(VorlenLogCategoryCaching);
}

// How an absent value reads in the lookup log line.
std::string_view orNull(const std::optional<std::string>& value) {
  return value ? std::string_view(*value) : "(null)";
}

}  // namespace

const std::vector<std::string>& QueryCache::clearingNotificationNames() {
  static const std::vector<std::string> names = {
      kVORUserGUIDChangeNotification,
      kVORSessionSoftLimitNotification,
      kVORSessionMaxLimitNotification,
      kPlatformCountryCodeDidChangeNotification,
      kPlatformTimeZoneDidChangeNotification,
      kPlatformCurrentLocaleDidChangeNotification,
      kPlatformEffectiveSettingsDidChangeNotification,
      kPlatformAccountStoreDidChangeNotification,
      kPlatformAccountCredentialsDidChangeNotification,
  };
  return names;
}

std::shared_ptr<QueryCache> QueryCache::create(const Assembly& assembly) {
  std::shared_ptr<QueryCache> cache(new QueryCache(assembly.notificationCenter, assembly.clock()));
  cache->_observeClearingNotifications();
  return cache;
}

QueryCache::QueryCache(std::shared_ptr<NotificationCenter> center, std::shared_ptr<Clock> clock)
    : notificationCenter_(std::move(center)),
      clock_(clock ? std::move(clock) : Clock::system()),
      queue_(Queue::serial("com.velmo.vorlen.queryCache", QueuePriority::Default, clock_)) {}

QueryCache::~QueryCache() {
  observers_.clear();
  if (source) source->cancel();
}

void QueryCache::_observeClearingNotifications() {
  if (!notificationCenter_) return;
  for (const std::string& name : clearingNotificationNames()) {
    observers_.push_back(notificationCenter_->addObserver<QueryCache>(
        name, nullptr, shared_from_this(), [](QueryCache& cache, const Notification&) {
          std::weak_ptr<QueryCache> weak = cache.weak_from_this();
          cache.queue_->async([weak] {
            if (auto self = weak.lock()) self->_clearCache();
          });
        }));
  }
}

void QueryCache::set(std::shared_ptr<const CachedResultSet> entry) {
  if (!entry || entry->data().empty() || !entry->query() || entry->query()->empty()) return;
  if (entry->inputLength() > entry->queryLength()) {
    log().error("BUG: NOT caching '{}' because input is longer than completed query '{}'",
                Private(*entry->query()), Private(entry->input()));
    return;
  }
  std::weak_ptr<QueryCache> weak = weak_from_this();
  queue_->async([weak, entry = std::move(entry)] {
    if (auto self = weak.lock()) self->_insert(entry);
  });
}

void QueryCache::_insert(const std::shared_ptr<const CachedResultSet>& entry) {
  queue_->assertCurrent();
  const uint64_t charge = entry->cost() + kEntryOverhead;
  if (charge >= kMaxCost) {
    log().error("NOT caching '{}' with cost {}", Private(*entry->query()), charge);
    return;
  }
  log().info("caching '{}' with cost {}", Private(*entry->query()), charge);
  if (currentCost_ + charge >= kMaxCost) {
    log().info("!!! exceeded max cost, flushing cache !!!");
    _clearCache();
  }
  currentCost_ += charge;
  tree.setObject(entry, *entry->query());
  count_.store(tree.count());
  if (tree.count() == 1) _becameNonEmpty();
}

std::shared_ptr<const CachedResultSet> QueryCache::getRequest(const VORRequest& request,
                                                              const HttpRequest* httpRequest) {
  if (!request.queryItems.empty()) return nullptr;
  const double scale = request.scale;
  const std::string input = CachedResultSet::lowercased(request.queryString);
  const size_t inputLength = CachedResultSet::utf16Length(input);
  const CachedResultSet::RequestItems items = CachedResultSet::requestItems(httpRequest);
  log().debug("cache lookup: '{}' qtype {} suggest {}", Private(input), orNull(items.qtype),
              orNull(items.suggestQueries));

  std::shared_ptr<const CachedResultSet> chosen;
  queue_->sync([&] {
    const Time now = clock_->now();
    std::vector<std::string> expired;
    std::vector<std::shared_ptr<const CachedResultSet>> candidates;
    tree.objectsMatchingPrefix(
        input, [&](std::string_view key, const std::shared_ptr<const CachedResultSet>& entry, bool&) {
          if (!entry) return;
          // The tree cannot change during the walk, so expired keys are collected and dropped after it.
          if (entry->expireTime() && *entry->expireTime() <= now) {
            expired.emplace_back(key);
            return;
          }
          if (scale > 0 && scale != entry->uiScale()) return;
          // An entry made for longer typed text says nothing about what the server answers for shorter text.
          if (inputLength < entry->inputLength()) return;
          if (items.qtype != entry->qtype() || items.suggestQueries != entry->suggest_queries() ||
              items.localCompletion != entry->localCompletion())
            return;
          candidates.push_back(entry);
        });
    // The cost of expired entries is not given back, and emptying the tree this way is not a clear.
    for (const std::string& k : expired) tree.removeObjectForKey(k);
    count_.store(tree.count());

    // Every key begins with the typed text, so each query is at least as long as the input.
    size_t shortest = std::numeric_limits<size_t>::max();
    for (const auto& c : candidates) shortest = std::min(shortest, c->queryLength() - inputLength);
    for (const auto& c : candidates) {
      if (c->queryLength() - inputLength != shortest) continue;
      log().debug("entry {} prefix: {} input: {} score: {:.6f}", fmt::ptr(c.get()), Private(*c->query()),
                  Private(c->input()), static_cast<double>(c->completionScore()));
      // The first in key order stands unless a later one has a positive and strictly higher score.
      if (!chosen || (c->completionScore() > 0 && c->completionScore() > chosen->completionScore()))
        chosen = c;
    }
  });
  return chosen;
}

std::shared_ptr<const CachedResultSet> QueryCache::get(const std::string& query) {
  VORSearchRequest request;
  request.queryString = query;
  request.triggerEvent = 0;
  return getRequest(request, nullptr);
}

void QueryCache::removeAllObjects() {
  queue_->sync([this] { _clearCache(); });
}

void QueryCache::_clearCache() {
  queue_->assertCurrent();
  if (tree.count() == 0) return;
  tree.removeAllObjects();
  currentCost_ = 0;
  count_.store(0);
  _becameEmpty();
}

void QueryCache::_becameNonEmpty() {
  queue_->assertCurrent();
  log().debug("query cache no longer empty");
  if (source) return;
  std::weak_ptr<QueryCache> weak = weak_from_this();
  source = MemoryPressureSource::create(queue_, [weak] {
    auto self = weak.lock();
    if (!self) return;
    log().debug("emptying caches under memory pressure");
    self->_clearCache();
  });
  // Where pressure events are unavailable the source stays, inert, so that its life still marks the
  // non-empty state; the budget alone then bounds the cache.
  source->start();
}

void QueryCache::_becameEmpty() {
  queue_->assertCurrent();
  log().debug("query cache became empty");
  if (source) {
    source->cancel();
    source.reset();
  }
}

uint64_t QueryCache::currentCostForTesting() const {
  uint64_t cost = 0;
  queue_->sync([&] { cost = currentCost_; });
  return cost;
}

std::shared_ptr<MemoryPressureSource> QueryCache::memoryPressureSourceForTesting() const {
  std::shared_ptr<MemoryPressureSource> out;
  queue_->sync([&] { out = source; });
  return out;
}

}  // namespace vorlen
