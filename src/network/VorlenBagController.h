// VorlenBagController: the one owner of the installed bag (the server configuration). It fetches the bag
// from the bag endpoint as a JSON object, keeps it in memory, writes it to the disk cache bag.plist so a
// restarted daemon has a bag at once, decides when the bag is stale, refetches it in the background and
// posts "VORBagChangeNotification" (user information "bag", the VORBag as the notification's object) each
// time a bag is installed. No caller ever waits for the network.
//
// Before caching, the controller adds two private keys to the raw dictionary: "__expiration" (seconds
// since 1970, caching time + 14400 s) and "__bagurl" (the URL text of the bag-cache request at that time).
// A cached bag needs refresh when it has no "__refresh_disabled" key and either less than 600 s remain
// before "__expiration", or "__bagurl" is missing or differs from the current bag-cache request URL.
//
// Refreshes start from: currentBag() with no bag installed; cachedBagState() finding the bag stale; a stale
// disk bag at construction (it is installed first and served meanwhile); "VORBagRefreshRequired" posted by
// the request factory; forceFetchBag() naming a numerically higher version; refreshBag() (a client asking
// for the bag now). Every trigger goes through one single-flight gate: while a fetch is in flight, further
// triggers are dropped, not queued; a refreshBag() that finds a fetch in flight waits for it and then has
// one more fetch made for every refresh that asked meanwhile, so its answer is from a fetch begun after it.
//
// A failed fetch leaves the installed bag as it was, logs in "Vorlen_Bag", counts
// "com.velmo.vorlend.bag.fetchesfailed" and records an error event in the fetch's feedback session; a
// successful one counts "com.velmo.vorlend.bag.fetches". Failure reasons: "no data", "statusCode <n>",
// "not JSON object", or the transport error.
//
// Threading: every public method is safe from any thread. The installed bag is read under a shared lock
// and replaced whole under an exclusive one, so readers see the old or the new bag, never a mix. Installs
// are serialised, and each one's change notification is posted before the next install starts; readers
// are not blocked while it is posted. Fetch completions run on the bag HTTP session's callback queue;
// scheduled refreshes on the global default-priority queue.
// REQUIRES: observers of "VORBagChangeNotification" do not call cacheBagState() synchronously.
// REQUIRES: the Assembly's clock is set. Every other slot may be empty: without a request factory or HTTP
// sessions every fetch fails (and nothing observes "VORBagRefreshRequired"), without a GUID controller the
// fetch's feedback carries no GUID, without a notification centre or system notifier nothing is posted.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <vector>

#include "base/NotificationCenter.h"
#include "base/Value.h"
#include "model/VORBag.h"
#include "model/VORError.h"
#include "network/BagController.h"

namespace vorlen {

class Assembly;

class VorlenBagController final : public BagController,
                                  public std::enable_shared_from_this<VorlenBagController> {
 public:
  static constexpr double kBagLifetimeSeconds = 14400;  // 4 hours
  static constexpr double kRefreshMarginSeconds = 600;  // refetch from 10 minutes before expiry
  static constexpr const char* kBagCacheFileName = "bag.plist";
  static constexpr const char* kExpirationKey = "__expiration";
  static constexpr const char* kBagURLKey = "__bagurl";
  static constexpr const char* kRefreshDisabledKey = "__refresh_disabled";
  static constexpr const char* kBagURLPreference = "VORBagURL";
  // The agent whose view of the bag decides the news service's availability.
  static constexpr const char* kNewsUserAgent = "news/1.0";

  using FetchCompletion = std::function<void(const std::optional<VORBag>&, const std::optional<VORError>&)>;

  // Reads the disk cache and installs what it finds (a stale one starts a refetch), and observes
  // "VORBagRefreshRequired" from the Assembly's request factory.
  static std::shared_ptr<VorlenBagController> create(std::shared_ptr<const Assembly> assembly);
  ~VorlenBagController() override;
  VorlenBagController(const VorlenBagController&) = delete;
  VorlenBagController& operator=(const VorlenBagController&) = delete;

  // BagController
  std::optional<VORBag> currentBag() override;
  std::optional<VORBag> cachedBagState() override;
  std::optional<std::string> warmURL() override;
  void forceFetchBag(const Value::Dict& info) override;
  void refreshBag(RefreshCompletion done) override;
  std::string bagFetchURLWithCountry(const std::optional<std::string>& countryCode) const override;

  // The installed bag without side effects.
  std::optional<VORBag> inMemoryBag() const;
  // The daemon's own user agent, as sent with the bag request; absent when it cannot be built.
  const std::optional<std::string>& userAgent() const { return userAgent_; }
  // True from the start of a fetch until its completion has run.
  bool isFetchInProgress() const { return fetchInProgress_.load(); }

  // Installs `bag` (nothing for an absent one) and posts the change notification. When the news service's
  // availability (the bag's isEnabled for the agent "news/1.0") differs from the previously installed
  // bag's, and the bag did not come from disk, also posts the system-wide news enabled/disabled
  // notification. With no bag installed before, the previous availability counts as unknown.
  void cacheBagState(const std::optional<VORBag>& bag, bool fromDisk);

  // The disk cache's dictionary, or nothing (no file, unreadable, not a dictionary, or the disk cache
  // switched off). When the dictionary needs refresh a fetch is started.
  std::optional<Value::Dict> diskCachedBagDictionary();
  // Adds "__expiration" and "__bagurl" to `dict`, writes it to the disk cache (binary property list,
  // mode 0600, replaced atomically) and returns it. Write failures are logged; the dictionary is returned
  // whether or not the write succeeded.
  Value::Dict cacheBagDictionary(const Value::Dict& dict);

  // Starts a fetch through the single-flight gate; false when one was already in flight (then `completion`
  // is never called). Otherwise `completion` runs once, with a bag or an error, before the gate reopens.
  bool fetchBagStateForTesting(const std::optional<std::string>& version, FetchCompletion completion);
  // The refresh decision for a cached raw dictionary (logs and counts like a real check).
  bool isRefreshRequiredForTesting(const Value::Dict& rawBag) {
    return _isRefreshRequiredForCachedBag(rawBag);
  }
  std::optional<std::filesystem::path> pathToCachedBagForTesting() { return _pathToCachedBag(nullptr); }

 private:
  explicit VorlenBagController(std::shared_ptr<const Assembly> assembly);
  void _start();

  // Fetches through the single-flight gate; returns false when the trigger was dropped.
  bool _fetchBagStateWithVersion(const std::optional<std::string>& version, FetchCompletion completion = {});
  void _fetchBagStateWithVersionUngated(const std::optional<std::string>& version,
                                        FetchCompletion completion);
  // Ends a fetch: tells `completion` and the refreshBag() callers of this fetch, then reopens the gate or,
  // when refreshes asked meanwhile, starts their fetch.
  // Fetches now, or, while a fetch runs (built before whatever asks now), once more after it; `done` runs
  // with the result of the fetch that serves it.
  void _fetchNowOrAfterCurrent(FetchCompletion done);
  void _finishFetch(const std::optional<VORBag>& bag, const std::optional<VORError>& error,
                    const FetchCompletion& completion);
  bool _isRefreshRequiredForCachedBag(const Value::Dict& rawBag);
  std::optional<std::filesystem::path> _pathToCachedBag(std::string* error);
  Value::Dict _dictionaryToCacheBag(const Value::Dict& dict);
  std::optional<Value::Dict> _readDiskCache();
  void _handleRefreshNotification();
  // The URL text of the bag-cache request with no version: the identity of a cached bag.
  std::optional<std::string> _currentBagCacheURL() const;

  const std::shared_ptr<const Assembly> assembly_;
  std::optional<std::string> userAgent_;
  std::atomic<bool> fetchInProgress_{false};
  // refreshBag() callers: those the fetch in flight will tell, and those that asked while it ran, who
  // share the fetch that follows it (one begun before they asked may use a bag URL they just changed).
  // Changed under the mutex together with the gate, so no caller is left without a fetch to tell it.
  std::mutex refreshWaitersMutex_;
  std::vector<FetchCompletion> refreshWaiters_;
  std::vector<FetchCompletion> refreshWaitersForNextFetch_;

  // Guards inMemoryBag_: shared for reads, exclusive for the swap of an install (the barrier writes of
  // the access queue "com.velmo.vorlend.bagcontroller.cacheaccess").
  mutable std::shared_mutex inMemoryBagCacheAccess_;
  std::optional<VORBag> inMemoryBag_;
  // Serialises installs together with their notifications, so observers see them in install order.
  std::mutex installMutex_;
  // Serialises writes of bag.plist.
  std::mutex diskMutex_;

  std::unique_ptr<NotificationCenter::Token> refreshObservation_;
};

}  // namespace vorlen
