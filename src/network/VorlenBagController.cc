#include "network/VorlenBagController.h"

#include <sys/stat.h>

#include <cctype>
#include <cmath>

#include <nlohmann/json.hpp>

#include "base/Archive.h"
#include "base/Counters.h"
#include "base/FileUtil.h"
#include "base/JsonValue.h"
#include "base/Log.h"
#include "base/Queue.h"
#include "base/Transaction.h"
#include "feedback/ClientSessionProtocol.h"
#include "feedback/VorlenFeedback.h"
#include "model/Constants.h"
#include "model/QXFeedbackFactory.h"
#include "network/GUIDController.h"
#include "network/HttpSessions.h"
#include "network/NetworkTimingData.h"
#include "network/UrlComponents.h"
#include "network/UserAgent.h"
#include "network/VORNetworkRequestFactory.h"
#include "network/VORRetryableNetworkRequest.h"
#include "platform/Assembly.h"
#include "platform/DeviceProperties.h"
#include "platform/SystemNotifier.h"

namespace vorlen {
namespace {

const Logger& bagLog() {
  return VorlenLogForCategory(VorlenLogCategoryBag);
}

constexpr const char* kFetchesCounter = "com.velmo.vorlend.bag.fetches";
constexpr const char* kFetchesFailedCounter = "com.velmo.vorlend.bag.fetchesfailed";
constexpr const char* kExpiredCounter = "com.velmo.vorlend.bag.expired";

// Error code of every bag failure made here, in the daemon's error domain.
constexpr int64_t kBagErrorCode = 2;
// The feedback session of a fetch: trigger "bag fetch", endpoint "bag".
constexpr uint64_t kBagFetchTriggerEvent = 16;
constexpr uint64_t kBagEndpoint = 10;
// The fetch is never retried after a transport error (it has no expiry), but the retry budget is kept
// as the request carries it.
constexpr uint64_t kBagFetchRetries = 5;

std::string describeHeaders(const std::map<std::string, std::string>& headers) {
  Value::Dict d;
  for (const auto& [k, v] : headers) d.emplace(k, Value(v));
  return Value(std::move(d)).describe();
}

std::string describeResponse(const std::optional<HttpResponse>& response) {
  if (!response) return "(null)";
  return fmt::format("<HTTP response {} status {}>", response->url, response->status);
}

// A number as its shortest decimal text: 10 is "10", 10.5 is "10.5".
std::string numberText(double n) {
  if (std::isfinite(n) && n == std::floor(n) && std::fabs(n) < 9.0e15)
    return fmt::format("{}", static_cast<long long>(n));
  return fmt::format("{}", n);
}

// Orders two version texts the way people read them: runs of digits compare by value ("9" < "10",
// "1.2.9" < "1.2.10"), everything else character by character. Returns <0, 0 or >0.
int compareNumerically(std::string_view a, std::string_view b) {
  size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    bool da = std::isdigit(static_cast<unsigned char>(a[i])),
         db = std::isdigit(static_cast<unsigned char>(b[j]));
    if (da && db) {
      size_t ei = i, ej = j;
      while (ei < a.size() && std::isdigit(static_cast<unsigned char>(a[ei]))) ++ei;
      while (ej < b.size() && std::isdigit(static_cast<unsigned char>(b[ej]))) ++ej;
      std::string_view ra = a.substr(i, ei - i), rb = b.substr(j, ej - j);
      while (ra.size() > 1 && ra.front() == '0') ra.remove_prefix(1);
      while (rb.size() > 1 && rb.front() == '0') rb.remove_prefix(1);
      if (ra.size() != rb.size()) return ra.size() < rb.size() ? -1 : 1;
      if (int c = ra.compare(rb)) return c < 0 ? -1 : 1;
      i = ei;
      j = ej;
      continue;
    }
    if (a[i] != b[j]) return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[j]) ? -1 : 1;
    ++i;
    ++j;
  }
  if (i < a.size()) return 1;
  if (j < b.size()) return -1;
  return 0;
}

// The news service's availability in a bag: 0 or 1.
unsigned long newsStatus(const Value::Dict& rawBag) {
  return VORBag(rawBag, VorlenBagController::kNewsUserAgent).isEnabled() ? 1 : 0;
}
constexpr unsigned long kNewsStatusUnknown = 2;

}  // namespace

std::shared_ptr<VorlenBagController> VorlenBagController::create(std::shared_ptr<const Assembly> assembly) {
  std::shared_ptr<VorlenBagController> c(new VorlenBagController(std::move(assembly)));
  c->_start();
  return c;
}

VorlenBagController::VorlenBagController(std::shared_ptr<const Assembly> assembly)
    : assembly_(std::move(assembly)) {
  // The daemon's own agent: the name-and-version text on both sides of the device text.
  const auto& device = assembly_->platform.device;
  if (device)
    userAgent_ = createUserAgentString(kVORVorlendNameVersion, *device);
  else if (*kVORVorlendNameVersion)
    userAgent_ = std::string(kVORVorlendNameVersion);
}

VorlenBagController::~VorlenBagController() = default;

void VorlenBagController::_start() {
  // The disk bag is installed before its refresh check, so that a refetch it starts can never be
  // overwritten by the stale bag it replaces; clients are served from the stale bag meanwhile.
  if (auto dict = _readDiskCache()) {
    cacheBagState(VORBag(*dict, userAgent_.value_or("")), /*fromDisk=*/true);
    if (_isRefreshRequiredForCachedBag(*dict)) _fetchBagStateWithVersion(std::nullopt);
  }
  const auto& center = assembly_->notificationCenter;
  const void* factory = assembly_->requestFactory.get();
  if (center && factory) {
    refreshObservation_ = center->addObserver<VorlenBagController>(
        kVORBagRefreshRequired, factory, shared_from_this(),
        [](VorlenBagController& c, const Notification&) { c._handleRefreshNotification(); });
  }
}

// ---- Reads -----------------------------------------------------------------------------------------------

std::optional<VORBag> VorlenBagController::inMemoryBag() const {
  std::shared_lock lock(inMemoryBagCacheAccess_);
  return inMemoryBag_;
}

std::optional<VORBag> VorlenBagController::currentBag() {
  auto bag = inMemoryBag();
  if (!bag) _fetchBagStateWithVersion(std::nullopt);
  return bag;
}

std::optional<VORBag> VorlenBagController::cachedBagState() {
  auto bag = inMemoryBag();
  if (bag && _isRefreshRequiredForCachedBag(bag->rawBag())) {
    std::weak_ptr<VorlenBagController> weak = weak_from_this();
    Queue::global(QueuePriority::Default)->async([weak] {
      if (auto self = weak.lock()) self->_fetchBagStateWithVersion(std::nullopt);
    });
  }
  return bag;
}

std::optional<std::string> VorlenBagController::warmURL() {
  auto bag = currentBag();
  if (!bag) return std::nullopt;
  return bag->warmURL();
}

void VorlenBagController::forceFetchBag(const Value::Dict& info) {
  std::optional<std::string> installed;
  if (auto bag = inMemoryBag()) installed = bag->version();
  std::optional<std::string> required;
  if (auto n = VORBag::numberForKey(info, kVORBagKey)) required = numberText(*n);
  if (installed && required && compareNumerically(*installed, *required) < 0) {
    bagLog().info("server requires bag version {}, installed is {}", *required, *installed);
    _fetchBagStateWithVersion(required);
  }
}

std::string VorlenBagController::bagFetchURLWithCountry(const std::optional<std::string>& countryCode) const {
  if (const auto& defaults = assembly_->userDefaults) {
    auto url = defaults->stringForKey(kBagURLPreference);
    if (url && !url->empty()) {
      if (UrlComponents::parse(*url)) return *url;
      bagLog().error("Malformed vorlen bag URL in user defaults key {}", kBagURLPreference);
    }
  }
  std::string country = countryCode.value_or("");
  for (char& ch : country) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
  return country == "CN" ? kVORBagURLChina : kVORBagURLWorldwide;
}

// ---- Fetching --------------------------------------------------------------------------------------------

bool VorlenBagController::fetchBagStateForTesting(const std::optional<std::string>& version,
                                                  FetchCompletion completion) {
  return _fetchBagStateWithVersion(version, std::move(completion));
}

bool VorlenBagController::_fetchBagStateWithVersion(const std::optional<std::string>& version,
                                                    FetchCompletion completion) {
  // Dropped, not queued: the fetch in flight will install the newest bag the server has.
  if (fetchInProgress_.exchange(true)) return false;
  _fetchBagStateWithVersionUngated(version, std::move(completion));
  return true;
}

void VorlenBagController::_fetchBagStateWithVersionUngated(const std::optional<std::string>& version,
                                                           FetchCompletion completion) {
  auto transaction = std::make_shared<Transaction>("bagFetch");
  const std::string agent = userAgent_.value_or("");

  std::optional<HttpRequest> request;
  if (const auto& factory = assembly_->requestFactory)
    request = factory->bagFetchRequest(*this, userAgent_, version);
  std::shared_ptr<HttpSession> session;
  if (assembly_->httpSessions) session = assembly_->httpSessions->bagSession();
  if (!request || !session) {
    bagLog().error("Error fetching bag: no bag request could be made");
    VorlenDiagnosticDataReporter::addValue(1, kFetchesFailedCounter);
    _finishFetch(std::nullopt, VORError::make(kBagErrorCode, "no request"), completion);
    return;
  }
  VorlenLogForCategory(VorlenLogCategoryProtocol)
      .notice("Initiating bag fetch attempt with request {} header {}", Private(request->url),
              Private(describeHeaders(request->headers)));

  std::optional<Uuid> guid;
  if (const auto& guids = assembly_->guidController) guid = guids->currentUserGUID();
  QXFeedback start = QXFeedbackFactory::startNetworkSearch("", request->url, request->headers,
                                                           kBagFetchTriggerEvent, kBagEndpoint);
  std::shared_ptr<ClientSessionProtocol> feedbackSession;
  if (assembly_->makeClientSession)
    feedbackSession = assembly_->makeClientSession(*assembly_, VorlenFeedback(start, 0, guid, agent));

  // The completion reads the task's timing data; the holder is emptied when the completion has run, which
  // breaks the task -> completion -> holder -> task cycle.
  auto taskHolder = std::make_shared<std::shared_ptr<HttpTask>>();
  std::weak_ptr<VorlenBagController> weak = weak_from_this();
  auto onDone = [weak, start, feedbackSession, taskHolder, transaction, completion = std::move(completion)](
                    const std::vector<uint8_t>& data, const std::optional<HttpResponse>& response,
                    const std::optional<HttpError>& transportError) mutable {
    bagLog().debug("resp: {}", describeResponse(response));
    std::optional<TaskMetrics> metrics;
    if (*taskHolder) metrics = (*taskHolder)->metrics();
    const long status = response ? response->status : 0;
    QXFeedback end = QXFeedbackFactory::endNetworkSearch(start, data.size(), status,
                                                         NetworkTimingData::fromMetrics(metrics));

    auto self = weak.lock();
    if (!self) {
      bagLog().error("Error fetching bag, bag fetch task completed after BagFetchController was cleaned up");
      taskHolder->reset();
      return;
    }
    std::optional<Uuid> guid;
    if (const auto& guids = self->assembly_->guidController) guid = guids->currentUserGUID();
    const std::string agent = self->userAgent_.value_or("");
    if (feedbackSession) feedbackSession->addFeedback(VorlenFeedback(end, 0, guid, agent));

    std::optional<VORBag> bag;
    std::optional<VORError> error;
    if (transportError) {
      bagLog().error("Error fetching bag: {}", transportError->message);
      error = NetworkTimingData::errorFromTransport(*transportError);
    } else if (data.empty()) {
      // Same text as a body that is not an object: both mean the server sent nothing usable.
      bagLog().error("Error fetching bag: returned data was not of the expected type.");
      error = VORError::make(kBagErrorCode, "no data");
    } else if (status != 200) {
      bagLog().error("Error fetching bag status code: {}", status);
      error = VORError::make(kBagErrorCode, fmt::format("statusCode {}", status));
    } else {
      nlohmann::json json =
          nlohmann::json::parse(data.begin(), data.end(), nullptr, /*allow_exceptions=*/false);
      if (!json.is_object()) {
        bagLog().error("Error fetching bag: returned data was not of the expected type.");
        error = VORError::make(kBagErrorCode, "not JSON object");
      } else {
        std::string why;
        auto value = JsonValue::toValue(json, &why);
        if (!value || !value->getDict()) {
          bagLog().error("error parsing bag json {}", why);
          error = VORError::make(kBagErrorCode, why);
        } else {
          bagLog().info("Got bag: {}", value->describe());
          Value::Dict cached = self->cacheBagDictionary(*value->getDict());
          bag = VORBag(std::move(cached), agent);
          self->cacheBagState(bag, /*fromDisk=*/false);
        }
      }
    }

    if (!error) {
      VorlenDiagnosticDataReporter::addValue(1, kFetchesCounter);
    } else {
      if (feedbackSession)
        feedbackSession->addFeedback(VorlenFeedback(QXFeedbackFactory::error(*error), 0, guid, agent));
      VorlenDiagnosticDataReporter::addValue(1, kFetchesFailedCounter);
    }
    if (feedbackSession) feedbackSession->sessionComplete();
    self->_finishFetch(bag, error, completion);
    taskHolder->reset();
  };

  VORRetryableNetworkRequest retryable(std::move(*request), std::nullopt, /*delayOnFail=*/true);
  *taskHolder = dataTaskWithRetryableRequest(session, retryable, 1, kBagFetchRetries, std::move(onDone));
  (*taskHolder)->resume();
}

void VorlenBagController::_finishFetch(const std::optional<VORBag>& bag, const std::optional<VORError>& error,
                                       const FetchCompletion& completion) {
  if (completion) completion(bag, error);
  std::vector<FetchCompletion> waiters;
  bool fetchAgain = false;
  {
    std::lock_guard lock(refreshWaitersMutex_);
    waiters.swap(refreshWaiters_);
    // Refreshes asked for while this fetch ran were built too early for them: they share one more fetch,
    // and the gate stays closed for it.
    fetchAgain = !refreshWaitersForNextFetch_.empty();
    refreshWaiters_.swap(refreshWaitersForNextFetch_);
    if (!fetchAgain) fetchInProgress_.store(false);
  }
  for (const FetchCompletion& waiter : waiters) waiter(bag, error);
  if (fetchAgain) _fetchBagStateWithVersionUngated(std::nullopt, {});
}

void VorlenBagController::refreshBag(RefreshCompletion done) {
  bagLog().notice("bag refresh requested");
  // A refresh follows a preference change (the bag URL) made by another process: the file is read again
  // now rather than trusting its stat stamp, which a rewrite of the same size within one tick can keep.
  if (const auto& defaults = assembly_->userDefaults) defaults->synchronize();
  _fetchNowOrAfterCurrent(std::move(done));
}

void VorlenBagController::_fetchNowOrAfterCurrent(FetchCompletion done) {
  if (!done) done = [](const std::optional<VORBag>&, const std::optional<VORError>&) {};
  bool opened = false;
  {
    std::lock_guard lock(refreshWaitersMutex_);
    opened = !fetchInProgress_.exchange(true);
    (opened ? refreshWaiters_ : refreshWaitersForNextFetch_).push_back(std::move(done));
  }
  if (opened) _fetchBagStateWithVersionUngated(std::nullopt, {});
}

// ---- Installing ------------------------------------------------------------------------------------------

void VorlenBagController::cacheBagState(const std::optional<VORBag>& bag, bool fromDisk) {
  if (!bag) return;
  std::lock_guard install(installMutex_);
  unsigned long oldStatus = kNewsStatusUnknown;
  if (auto old = inMemoryBag()) oldStatus = newsStatus(old->rawBag());
  const unsigned long newStatus = newsStatus(bag->rawBag());
  {
    std::unique_lock lock(inMemoryBagCacheAccess_);
    inMemoryBag_ = bag;
  }
  if (const auto& center = assembly_->notificationCenter) {
    Notification n;
    n.name = kVORBagChangeNotification;
    n.userInfo = Value::dict({{kVORBagKey, bag->toRecord()}});
    n.object = std::make_shared<const VORBag>(*bag);
    center->post(n);
  }
  // A bag read from disk at start-up never announces availability: nothing changed for the system since
  // that bag was fetched and announced.
  if (oldStatus != newStatus && !fromDisk) {
    bagLog().notice("setting Vorlen News Available status to {}", newStatus);
    if (const auto& notifier = assembly_->platform.systemNotifier)
      notifier->post(newStatus ? kVORNotifyEnabled : kVORNotifyDisabled);
  }
}

// ---- Staleness -------------------------------------------------------------------------------------------

std::optional<std::string> VorlenBagController::_currentBagCacheURL() const {
  const auto& factory = assembly_->requestFactory;
  if (!factory) return std::nullopt;
  auto request = factory->bagCacheRequest(*this, userAgent_, std::nullopt);
  if (!request) return std::nullopt;
  return request->url;
}

bool VorlenBagController::_isRefreshRequiredForCachedBag(const Value::Dict& rawBag) {
  if (rawBag.count(kRefreshDisabledKey)) {
    bagLog().info("Bag refresh is disabled.");
    return false;
  }
  // A missing expiry counts as 1970, long past.
  const double expiration = VORBag::numberForKey(rawBag, kExpirationKey).value_or(0.0);
  const double remaining = expiration - toUnixSeconds(assembly_->clock()->now());
  if (remaining < kRefreshMarginSeconds) {
    bagLog().notice("bag expired: {:f}", remaining);
    VorlenDiagnosticDataReporter::addValue(1, kExpiredCounter);
    return true;
  }
  auto it = rawBag.find(kBagURLKey);
  if (it == rawBag.end() || !it->second.isString()) {
    bagLog().notice("no bag URL found in cache");
    return true;
  }
  const std::string& cachedURL = *it->second.getString();
  auto currentURL = _currentBagCacheURL();
  if (!currentURL || *currentURL != cachedURL) {
    bagLog().notice("bag url changed from: {} to {}", cachedURL, currentURL.value_or("(null)"));
    return true;
  }
  return false;
}

void VorlenBagController::_handleRefreshNotification() {
  bagLog().notice("something significant changed (locale, geo). checking to see if bag needs update");
  // The check asks the factory for the bag-cache request; it runs off the posting thread so that it never
  // re-enters the factory while the factory is posting.
  std::weak_ptr<VorlenBagController> weak = weak_from_this();
  Queue::global(QueuePriority::Default)->async([weak] {
    auto self = weak.lock();
    if (!self) return;
    auto bag = self->inMemoryBag();
    // With no bag installed the empty dictionary has no expiry, so a fetch follows.
    // A fetch in flight was built before the change: one more follows it.
    if (self->_isRefreshRequiredForCachedBag(bag ? bag->rawBag() : Value::Dict{}))
      self->_fetchNowOrAfterCurrent({});
    else
      bagLog().debug("bag is current after the change");
  });
}

// ---- Disk cache ------------------------------------------------------------------------------------------

std::optional<std::filesystem::path> VorlenBagController::_pathToCachedBag(std::string* error) {
  const std::filesystem::path& caches = assembly_->fileManager().cachesDir;
  if (caches.empty()) {
    bagLog().fault("error getting cache directory {}", "(no caches folder configured)");
    if (error) *error = "no caches folder";
    return std::nullopt;
  }
  std::string why;
  if (!ensureDirectory(caches, 0700, &why)) {
    bagLog().fault("error creating agent-specific cache directory {}", why);
    if (error) *error = why;
    return std::nullopt;
  }
  return caches / kBagCacheFileName;
}

Value::Dict VorlenBagController::_dictionaryToCacheBag(const Value::Dict& dict) {
  Value::Dict out = dict;
  out.insert_or_assign(kExpirationKey, Value(toUnixSeconds(assembly_->clock()->now()) + kBagLifetimeSeconds));
  if (auto url = _currentBagCacheURL()) out.insert_or_assign(kBagURLKey, Value(*url));
  return out;
}

Value::Dict VorlenBagController::cacheBagDictionary(const Value::Dict& dict) {
  Value::Dict out = _dictionaryToCacheBag(dict);
  if (!assembly_->diskBagCacheEnabled) {
    bagLog().notice("skipping writing bag to disk because the flag is disabled");
    return out;
  }
  std::string error;
  auto path = _pathToCachedBag(&error);
  if (!path) {
    bagLog().fault("Couldn't get path to cache bag.  Error: {}.", error);
    return out;
  }
  std::vector<uint8_t> bytes = Archive::encodeBinary(Value(out));
  std::lock_guard lock(diskMutex_);
  if (!writeFileAtomically(*path, bytes, &error)) {
    bagLog().error("Error writing bag to persistent cache: {}.", error);
    return out;
  }
  // writeFileAtomically creates 0600 already; setting it again guards against a umask or filesystem
  // that widened it.
  if (::chmod(path->c_str(), 0600) != 0) bagLog().error("Could not write to {}", path->string());
  return out;
}

std::optional<Value::Dict> VorlenBagController::_readDiskCache() {
  if (!assembly_->diskBagCacheEnabled) {
    bagLog().notice("skipping check for bag on disk because the flag is disabled");
    return std::nullopt;
  }
  auto path = _pathToCachedBag(nullptr);
  if (!path) return std::nullopt;
  std::error_code ec;
  if (!std::filesystem::exists(*path, ec)) return std::nullopt;  // no cache yet: not an error
  std::string error;
  auto bytes = readWholeFile(*path, Archive::kMaxBytes, &error);
  if (!bytes) {
    bagLog().fault("Error reading from bag cache: {}.", error);
    return std::nullopt;
  }
  auto value = Archive::decode(*bytes, &error);
  if (!value) {
    bagLog().fault("Error reading from bag cache: {}.", error);
    return std::nullopt;
  }
  if (!value->getDict()) {
    bagLog().fault("Unexpected class deserialized from bag cache: {}.", value->typeName());
    return std::nullopt;
  }
  return *value->getDict();
}

std::optional<Value::Dict> VorlenBagController::diskCachedBagDictionary() {
  auto dict = _readDiskCache();
  if (dict && _isRefreshRequiredForCachedBag(*dict)) _fetchBagStateWithVersion(std::nullopt);
  return dict;
}

}  // namespace vorlen
