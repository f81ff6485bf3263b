// QueryCache: one client's in-memory store of recent search responses, so that a user who keeps typing
// along a completion the server already returned is answered without a new request.
//
// Entries are keyed by the completed query the server reported (lower-cased). A lookup takes the typed
// text and returns the entry whose key extends it by the fewest characters, among entries made for the
// same kind of request (same display scale unless the request leaves it 0, same "qtype", "suggest_queries"
// and "lc" items, none matching none only) whose own typed text was not longer than this one. Among equally
// short extensions the first in key order wins unless a later one has a positive, strictly higher
// completion score. Expired entries are dropped by the lookups that reach them.
//
// Budget: each entry is charged its body size + 1024. The running total is reset only when the cache is
// emptied, never given back by a replacement or an expiry: it bounds the churn between two clears, not the
// size held. An entry whose own charge is 2 MiB or more is never cached; one that would take the total to
// 2 MiB or more empties the cache first. The cache also empties itself whole on memory pressure and when
// the user identifier rotates, a feedback session reaches a limit, or the country code, time zone, locale,
// device restrictions, accounts or account credentials change. Nothing is kept on disk.
//
// While non-empty the cache holds a MemoryPressureSource on its queue; emptying it (by any clearing)
// cancels and drops the source. Lookups that expire the last entries do not count as emptying.
//
// Threading: all state lives on the serial queue "com.velmo.vorlen.queryCache" (one per cache). set() and
// the notification-driven clears hop onto it asynchronously, getRequest() and removeAllObjects()
// synchronously, so a set() issued just before a lookup from another thread may not be visible to it; from
// one thread, FIFO order makes it visible. count() reads a mirror of the tree size without the queue.
// REQUIRES: getRequest(), get() and removeAllObjects() are not called on the cache's own queue.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/Clock.h"
#include "base/NotificationCenter.h"
#include "base/Queue.h"
#include "cache/CachedResultSet.h"
#include "cache/CritbitTree.h"

namespace vorlen {

class Assembly;
class MemoryPressureSource;
class VORRequest;
struct HttpRequest;

class QueryCache : public std::enable_shared_from_this<QueryCache> {
 public:
  static constexpr uint64_t kMaxCost = 0x200000;    // 2 MiB charge budget
  static constexpr uint64_t kEntryOverhead = 1024;  // charged per entry on top of its body

  // The notifications that empty the cache, from any sender.
  static const std::vector<std::string>& clearingNotificationNames();

  // initWithAssembly: a private queue, an empty tree, and observers of the clearing notifications on the
  // Assembly's notification centre (none when that slot is empty). Time comes from the Assembly's clock.
  static std::shared_ptr<QueryCache> create(const Assembly& assembly);
  ~QueryCache();
  QueryCache(const QueryCache&) = delete;
  QueryCache& operator=(const QueryCache&) = delete;

  // Adds `entry` under its query, replacing any entry with that key. Records without data or without a
  // non-empty query are ignored; one whose input is longer than its query is refused with an error log.
  void set(std::shared_ptr<const CachedResultSet> entry);

  // The best cached entry for `request` (its query string, scale and own query items) as it would be sent
  // as `httpRequest` (may be null), or null. A request that carries query items of its own is never
  // answered from the cache.
  std::shared_ptr<const CachedResultSet> getRequest(const VORRequest& request,
                                                    const HttpRequest* httpRequest);
  // getRequest() for a plain search of `query` (trigger event 0) without an HTTP request.
  std::shared_ptr<const CachedResultSet> get(const std::string& query);

  // Empties the cache; done when this returns.
  void removeAllObjects();
  // Number of entries.
  uint64_t count() const { return count_.load(); }

  // Test hooks; each waits for the work queued before it.
  uint64_t currentCostForTesting() const;
  std::shared_ptr<MemoryPressureSource> memoryPressureSourceForTesting() const;
  const std::shared_ptr<Queue>& queueForTesting() const { return queue_; }

 private:
  QueryCache(std::shared_ptr<NotificationCenter> center, std::shared_ptr<Clock> clock);
  void _observeClearingNotifications();
  // On the queue.
  void _insert(const std::shared_ptr<const CachedResultSet>& entry);
  void _clearCache();
  void _becameNonEmpty();
  void _becameEmpty();

  std::shared_ptr<NotificationCenter> notificationCenter_;
  std::shared_ptr<Clock> clock_;
  std::shared_ptr<Queue> queue_;
  std::vector<std::unique_ptr<NotificationCenter::Token>> observers_;

  // Queue-bound state.
  CritbitTree<const CachedResultSet> tree;
  uint64_t currentCost_ = 0;
  std::shared_ptr<MemoryPressureSource> source;

  std::atomic<uint64_t> count_{0};  // tree.count(), mirrored for count()
};

}  // namespace vorlen
