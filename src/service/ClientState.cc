#include "service/ClientState.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include <nlohmann/json.hpp>

#include "base/Counters.h"
#include "base/JsonValue.h"
#include "base/Log.h"
#include "base/Queue.h"
#include "base/UniqueFd.h"
#include "cache/CachedResultSet.h"
#include "cache/EngagedCompletionCache.h"
#include "cache/Lookup.h"
#include "cache/QueryCache.h"
#include "feedback/ClientCounterName.h"
#include "feedback/ClientSessionManager.h"
#include "feedback/ClientSessionManagerProtocol.h"
#include "feedback/VorlenFeedback.h"
#include "model/Constants.h"
#include "model/QXFeedbackFactory.h"
#include "network/BagController.h"
#include "network/HttpSession.h"
#include "network/HttpSessions.h"
#include "network/NetworkTimingData.h"
#include "network/UrlComponents.h"
#include "network/UserAgent.h"
#include "network/VORRetryableNetworkRequest.h"
#include "network/VorlenUserGUIDController.h"
#include "platform/Assembly.h"
#include "platform/DeviceProperties.h"

namespace vorlen {

namespace {

const Logger& searchLog() {
  return VorlenLogForCategory(VorlenLogCategorySearch);
}
const Logger& protocolLog() {
  return VorlenLogForCategory(VorlenLogCategoryProtocol);
}
const Logger& cachingLog() {
  return VorlenLogForCategory(VorlenLogCategoryCaching);
}
const Logger& flightLog() {
  return VorlenLogForCategory(VorlenLogCategoryFlight);
}

const char* describeReply(const ClientState::QueryReply& reply) {
  return reply ? "<reply>" : "(null)";
}

// Skip reasons of VORSkipSearchFeedback.
constexpr uint64_t kSkipQueryTooShort = 1;
constexpr uint64_t kSkipBagDisabled = 2;
constexpr uint64_t kSkipBagFetchFailed = 3;

// Trigger events and endpoints of the events this file records.
constexpr uint64_t kTriggerLocalSearch = 1;
constexpr uint64_t kTriggerCacheHit = 4;
constexpr uint64_t kTriggerWarm = 19;
constexpr uint64_t kTriggerFlight = 20;
constexpr uint64_t kTriggerSystemSearchCompletion = 21;
constexpr uint64_t kTriggerDidGoToSearch = 23;
constexpr uint64_t kIndexTypeCompletionCache = 7;
constexpr uint64_t kEndpointSearch = 6;
constexpr uint64_t kEndpointCard = 11;
constexpr uint64_t kEndpointWarm = 12;
constexpr uint64_t kEndpointFlight = 13;

// Completion-cache client numbers.
constexpr int64_t kCompletionClientBrowser = 1;
constexpr int64_t kCompletionClientSystemSearch = 2;

// Retries after transport failures of the retryable kinds. More results and card carry no expiry and so
// are sent once; look-up and flight search are retried until their render deadline has passed.
constexpr uint64_t kQueryRetries = 3;

// Flight debug data is a test fixture: a file beyond this size is refused unread.
constexpr off_t kMaxFlightDebugDataBytes = off_t{16} << 20;

// The lifetime of a warm connection: no pre-warm within this long of the last network request.
constexpr auto kWarmInterval = std::chrono::seconds(30);

// Response header carrying the server's own timing record: a JSON array whose first element holds
// "status", "duration" (milliseconds), "partial_client_ip" and optionally "fbq".
constexpr const char* kServerTimingHeader = "X-Velmo-Server-Timing";
constexpr const char* kForceFetchHeader = "X-Velmo-ForceFetch";

std::string lowered(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
  return out;
}

// Characters as the client counts them (UTF-16 code units).
size_t characterCount(std::string_view text) {
  return CachedResultSet::utf16Length(text);
}

Value::Dict describeHeaders(const std::map<std::string, std::string>& headers) {
  Value::Dict d;
  for (const auto& [k, v] : headers) d.emplace(k, Value(v));
  return d;
}

// The headers as a log line shows them: built only when private logging will show them, since the line
// goes out on every keystroke and without private logging reads "<private>" anyway.
std::string headersForLog(const std::map<std::string, std::string>& headers) {
  return Log::privateDataEnabled() ? Value(describeHeaders(headers)).describe() : std::string();
}

}  // namespace

// What one network query needs beyond its HTTP request.
struct ClientState::NetworkQuery {
  std::shared_ptr<const VORRequest> request;
  HttpRequest http;
  QXFeedback start;
  const Logger* log = nullptr;
  // Logged when an answer arrives.
  std::string gotResponseText;
  // Sent as a retryable request (more results, card, look-up, flight search): retried after transport
  // failures while `expire` has not passed. Without an expiry the request counts as expired at once.
  bool retryable = false;
  std::optional<Time> expire;
  // Any status but 200 is a failed query, logged with this text (status, error) (more results, card).
  std::optional<std::string> statusFailureFormat;
  // The body must be a JSON object (more results, card).
  bool requireJsonObject = false;
  // The typed text a successful answer is cached under (search only).
  std::optional<std::string> cacheInput;
  // The identifier of this request, kept with a cached answer.
  Uuid uuid = Uuid::random();
  // Error code of an answer that is not an HTTP response.
  int64_t invalidResponseCode = 500;
  // A look-up: its answer is filtered by the per-result instructions before it is replied.
  std::shared_ptr<const VORLookupRequest> lookupRequest;
};

std::shared_ptr<ClientState> ClientState::create(std::string identifier, std::shared_ptr<Assembly> assembly) {
  auto state = std::shared_ptr<ClientState>(new ClientState(std::move(identifier), std::move(assembly)));
  const auto& a = state->assembly_;
  if (a && a->userDefaults && a->userDefaults->boolForKey("VORNoQueryCache")) {
    cachingLog().info("query cache OFF for {}", state->identifier_);
  } else if (a) {
    state->queryCacheEnabled_ = true;
    cachingLog().info("query cache ON for {}", state->identifier_);
  }
  return state;
}

ClientState::ClientState(std::string identifier, std::shared_ptr<Assembly> assembly)
    : identifier_(std::move(identifier)),
      assembly_(std::move(assembly)),
      retryQueue_(Queue::concurrent("com.velmo.vorlend.queryRetry", QueuePriority::UserInitiated,
                                    assembly_ ? assembly_->clock() : nullptr)) {}

std::shared_ptr<QueryCache> ClientState::queryCache() const {
  std::lock_guard lock(mu_);
  return queryCache_;
}

std::shared_ptr<QueryCache> ClientState::_queryCacheForUse() {
  std::lock_guard lock(mu_);
  if (queryCacheEnabled_ && !queryCache_) queryCache_ = QueryCache::create(*assembly_);
  return queryCache_;
}

void ClientState::releaseCaches() {
  std::shared_ptr<QueryCache> released;
  std::lock_guard lock(mu_);
  released = std::move(queryCache_);  // destroyed after the lock is let go (declared first)
}

void ClientState::setConfiguration(VORSessionConfiguration configuration) {
  std::lock_guard lock(mu_);
  configuration_ = std::move(configuration);
}

std::optional<VORSessionConfiguration> ClientState::configuration() const {
  std::lock_guard lock(mu_);
  return configuration_;
}

namespace {

// The client's own part of a request agent: what follows the daemon's "Vorlend/1.0 (<device>) " prefix, or
// the whole text when it does not have that shape. The prefix itself names the daemon, so matching client
// names against it would count every client as the daemon.
std::string_view clientPartOfAgent(std::string_view agent) {
  const std::string prefix = std::string(kVORVorlendNameVersion) + " (";
  if (!agent.starts_with(prefix)) return agent;
  const size_t close = agent.find(") ", prefix.size());
  return close == std::string_view::npos ? agent : agent.substr(close + 2);
}

}  // namespace

void ClientState::setUserAgent(std::optional<std::string> userAgent) {
  // Per-client counters are named after the client the agent names; an agent naming none counts nothing.
  std::string shortName =
      userAgent ? extractClientNameFromString(clientPartOfAgent(*userAgent)).value_or("") : std::string();
  std::lock_guard lock(mu_);
  userAgent_ = std::move(userAgent);
  clientShortName_ = std::move(shortName);
}

std::optional<std::string> ClientState::userAgent() const {
  std::lock_guard lock(mu_);
  return userAgent_;
}

std::string ClientState::clientShortName() const {
  std::lock_guard lock(mu_);
  return clientShortName_;
}

void ClientState::_ensureFeedbackIdentity() const {
  if (!assembly_) return;
  std::call_once(feedbackIdentityOnce_, [this] {
    const Logger& log = VorlenLogForCategory(VorlenLogCategorySession);
    if (assembly_->sharedSession) {
      log.info("Vorlen is using shared instance of guid controller");
      return;
    }
    // Sessions per client: this client's GUIDs rotate on their own and its sessions end on their own.
    log.info("Vorlen is using individual instance of guid controller {}", identifier_);
    auto guids = VorlenUserGUIDController::create(*assembly_);
    ownGuidController_ = guids;
    ownSessionManager_ = ClientSessionManager::create(assembly_, guids, identifier_);
  });
}

std::shared_ptr<ClientSessionManagerProtocol> ClientState::sessionManager() const {
  _ensureFeedbackIdentity();
  if (ownSessionManager_) return ownSessionManager_;
  return assembly_ ? assembly_->clientSessionManager : nullptr;
}

std::shared_ptr<GUIDController> ClientState::guidController() const {
  _ensureFeedbackIdentity();
  if (ownGuidController_) return ownGuidController_;
  return assembly_ ? assembly_->guidController : nullptr;
}

std::optional<VORBag> ClientState::bag() const {
  std::lock_guard lock(mu_);
  return bag_;
}

bool ClientState::_ensureBag() {
  auto controller = assembly_ ? assembly_->bagController : nullptr;
  if (!controller) {
    std::lock_guard lock(mu_);
    return bag_.has_value();
  }
  std::optional<VORBag> installed = controller->cachedBagState();
  if (!installed) installed = controller->currentBag();
  std::lock_guard lock(mu_);
  if (!installed) return bag_.has_value();
  // Copies of one installed bag share its dictionary, so identity tells a new bag from the held one
  // without comparing contents on every keystroke.
  if (!bagSource_ || &bagSource_->rawBag() != &installed->rawBag() || !bag_) {
    bag_ = VORBag(installed->rawBag(), userAgent_.value_or(""));
    bagSource_ = std::move(installed);
  }
  return true;
}

void ClientState::bag(const std::string& userAgent, BagReply reply) {
  if (userAgent.empty()) {
    if (reply) reply(std::nullopt, VORError::make(500, "no UserAgent"));
    return;
  }
  bool viewChanged = false;
  {
    std::lock_guard lock(mu_);
    if (bag_ && bag_->userAgent() != userAgent) {
      // The same raw bag, seen by another agent. Cached answers were made for the old view.
      bag_ = VORBag(bag_->rawBag(), userAgent);
      viewChanged = true;
    }
  }
  if (auto cache = viewChanged ? queryCache() : nullptr) cache->removeAllObjects();
  if (!_ensureBag()) {
    if (reply) reply(std::nullopt, VORError::make(1, "timeout"));
    return;
  }
  if (reply) reply(bag(), std::nullopt);
}

void ClientState::_countForClient(std::string_view suffix) const {
  std::string name = clientShortName();
  if (!name.empty()) VorlenDiagnosticDataReporter::addValue(1, createTallydKey(name, suffix));
}

void ClientState::_recordFeedback(QXFeedback feedback, const VORRequest& request,
                                  std::optional<Uuid> userGuid) {
  auto manager = sessionManager();
  if (!manager) return;
  manager->addVorlenFeedback(VorlenFeedback(std::move(feedback), static_cast<int64_t>(request.queryId),
                                            userGuid, userAgent().value_or(""), request.clientQueryId));
}

void ClientState::_recordFeedbacks(std::vector<QXFeedback> feedbacks, const VORRequest& request,
                                   std::optional<Uuid> userGuid) {
  auto manager = sessionManager();
  if (!manager || feedbacks.empty()) return;
  std::vector<VorlenFeedback> envelopes;
  envelopes.reserve(feedbacks.size());
  const std::string agent = userAgent().value_or("");
  for (auto& f : feedbacks) {
    envelopes.emplace_back(std::move(f), static_cast<int64_t>(request.queryId), userGuid, agent,
                           request.clientQueryId);
  }
  manager->addVorlenFeedbacks(std::move(envelopes));
}

std::optional<VORBag> ClientState::_enabledBag(const VORRequest& request, std::string_view failureText,
                                               const Logger& log, std::string_view disabledText,
                                               const QueryReply& reply) {
  if (!_ensureBag()) {
    searchLog().error("{}", failureText);
    if (reply) reply(request.queryId, std::nullopt, VORError::make(1, "timeout"));
    _recordFeedback(QXFeedbackFactory::skipSearch(kSkipBagFetchFailed, request.queryString), request);
    return std::nullopt;
  }
  std::optional<VORBag> held = bag();
  if (!held->isEnabled()) {
    log.debug("{}", disabledText);
    if (reply) reply(request.queryId, std::nullopt, std::nullopt);
    _recordFeedback(QXFeedbackFactory::skipSearch(kSkipBagDisabled, request.queryString), request);
    return std::nullopt;
  }
  return held;
}

Time ClientState::_applyRenderDeadline(HttpRequest& http, const VORBag& bag) const {
  // The answer is due by the bag's render deadline: a slower answer ends as a time-out error, and a
  // failed attempt is retried only while the deadline has not passed.
  const double deadline = bag.searchRenderTimeout();
  if (deadline > 0) http.timeoutSeconds = std::min(http.timeoutSeconds.value_or(deadline), deadline);
  return assembly_->clock()->now() +
         std::chrono::duration_cast<Duration>(std::chrono::duration<double>(std::max(deadline, 0.0)));
}

HttpRequest ClientState::_built(std::optional<HttpRequest> request) {
  // A bag without the kind's URL builds no request. It is sent all the same, as a request without a URL,
  // and ends as the transport failure that sending it meets.
  return request ? std::move(*request) : HttpRequest{};
}

VORRequestClient ClientState::_requestClient() const {
  std::lock_guard lock(mu_);
  if (configuration_) return VORRequestClient::fromConfiguration(*configuration_, userAgent_);
  return VORRequestClient{userAgent_};
}

Uuid ClientState::_currentUserGUID() const {
  auto guid = guidController();
  return guid ? guid->currentUserGUID() : Uuid();
}

std::optional<std::string> ClientState::_fieldMask() const {
  // Messaging clients show results inline in a conversation and ask only for the fields that needs.
  if (lowered(userAgent().value_or("")).find("messages") != std::string::npos) return std::string("messages");
  return std::nullopt;
}

void ClientState::_setPerformedSearch() {
  if (auto factory = assembly_->requestFactory) factory->setPerformedSearch();
}

void ClientState::_markNetworkRequest() {
  std::lock_guard lock(mu_);
  lastNetworkRequest_ = assembly_->clock()->now();
}

VORReply ClientState::_makeReply(const VORRequest& request, const HttpRequest* httpRequest,
                                 const HttpResponse* response, std::vector<uint8_t> data,
                                 bool resetGeoSession) {
  VORReply out;
  out.scale = request.scale;
  if (request.verboseReply && httpRequest) {
    out.httpRequest = Value::Dict{{"url", Value(httpRequest->url)},
                                  {"method", Value(httpRequest->method)},
                                  {"headers", Value(describeHeaders(httpRequest->headers))}};
  }
  if (request.verboseReply && response) {
    std::map<std::string, std::string> headers(response->headers.begin(), response->headers.end());
    out.httpResponse = Value::Dict{{"url", Value(response->url)},
                                   {"status", Value(static_cast<int64_t>(response->status))},
                                   {"headers", Value(describeHeaders(headers))}};
  }
  out.data = std::move(data);
  if (auto factory = assembly_->requestFactory) {
    if (auto entity = factory->getMapsUserSessionEntityAndReset(resetGeoSession)) {
      out.geoSessionEntityString = entity->sessionEntityString().value_or("");
    }
  }
  return out;
}

// ---- search

void ClientState::search(std::shared_ptr<const VORSearchRequest> request, QueryReply reply) {
  searchLog().info("session {} performing query[{}] {}, reply {}", identifier_, request->queryId,
                   Private(request->queryString), describeReply(reply));
  if (!clientShortName().empty()) _countForClient("keystrokes");
  const std::optional<VORBag> enabled = _enabledBag(
      *request,
      fmt::format("Bag fetch failed, can't complete non-cached query {}.", Private(request->queryString)),
      searchLog(), "no search, bag disabled", reply);
  if (!enabled) return;
  const VORBag& bag = *enabled;
  const uint64_t minimum = bag.minimumQueryLength();
  if (characterCount(request->queryString) < minimum) {
    searchLog().debug("query[{}] input '{}' less than {}", request->queryId, Private(request->queryString),
                      minimum);
    if (reply) reply(request->queryId, std::nullopt, std::nullopt);
    _recordFeedback(QXFeedbackFactory::skipSearch(kSkipQueryTooShort, request->queryString), *request);
    return;
  }

  // The search's own events go to the session manager in one piece once it has answered (or before the
  // network query records its start): one queue hop per search, and none ahead of a cached reply.
  std::vector<QXFeedback> events;
  struct Submit {
    ClientState& state;
    std::vector<QXFeedback>& events;
    const VORRequest& request;
    ~Submit() { state._recordFeedbacks(std::move(events), request); }
  } submit{*this, events, *request};

  // Local completion from the engaged-completion history: the browser always, system search only when
  // the user is typing in its completion field.
  auto query = std::make_shared<VORSearchRequest>(*request);
  const std::string client = clientShortName();
  auto completions = assembly_->engagedCompletionCache;
  if (completions && completions->enabled() &&
      (client == "voyant" ||
       (client == "norvanta" && request->triggerEvent == kTriggerSystemSearchCompletion))) {
    QXFeedback start = QXFeedbackFactory::startLocalSearch(request->queryString, kTriggerLocalSearch,
                                                           kIndexTypeCompletionCache, request->queryId);
    events.push_back(start);
    auto found = completions->completionForInput(
        request->queryString, client == "voyant" ? kCompletionClientBrowser : kCompletionClientSystemSearch);
    if (found) {
      QXSearchSuggestion suggestion;
      suggestion.suggestion = found->suggestion;
      suggestion.score = found->score;
      suggestion.type = static_cast<uint64_t>(found->type);
      query->setCompletionCacheSuggestion(std::move(suggestion));
      searchLog().debug("Local completion found: input {}, completion {}, score {:f}",
                        Private(request->queryString), Private(found->suggestion), found->score);
    } else {
      searchLog().debug("Local completion not found: input {}", Private(request->queryString));
    }
    events.push_back(QXFeedbackFactory::endLocalSearch(start));
  }
  if (request->triggerEvent == kTriggerDidGoToSearch) {
    // This one carries the GUID of the moment; it goes ahead of the batch.
    _recordFeedbacks(std::exchange(events, {}), *request);
    _recordFeedback(QXFeedbackFactory::didGoToSearch(request->queryString, kEndpointSearch), *request,
                    _currentUserGUID());
  }

  auto factory = assembly_->requestFactory;
  // A bag without a usable search URL gives a request without a URL, which fails to send like any other
  // transport failure.
  HttpRequest http =
      factory ? factory->searchRequest(*query, bag, _currentUserGUID(), _requestClient(), _fieldMask())
                    .value_or(HttpRequest{})
              : HttpRequest{};
  protocolLog().notice("request: {} header: {}", Private(http.url), Private(headersForLog(http.headers)));

  if (auto cache = http.url.empty() ? nullptr : _queryCacheForUse()) {
    if (auto hit = cache->getRequest(*query, &http)) {
      VORReply answer = _makeReply(*request, nullptr, nullptr, hit->data(), false);
      if (reply) reply(request->queryId, std::move(answer), std::nullopt);
      _countForClient("ondevicecachehits");
      events.push_back(QXFeedbackFactory::cacheHit(kTriggerCacheHit, request->queryString, hit->uuid()));
      return;
    }
  }

  auto network = std::make_shared<NetworkQuery>();
  network->request = query;
  network->start = QXFeedbackFactory::startNetworkSearch(request->queryString, http.url, http.headers,
                                                         request->triggerEvent, kEndpointSearch);
  network->http = std::move(http);
  network->log = &searchLog();
  network->gotResponseText = fmt::format("Got network response for (id, query): ({}, {})", request->queryId,
                                         Private(request->queryString));
  network->cacheInput = request->queryString;
  network->invalidResponseCode = 500;
  searchLog().debug("Dispatching network request for (id, query): ({}, {})", request->queryId,
                    Private(request->queryString));
  _recordFeedbacks(std::exchange(events, {}), *request);
  _sendNetworkQuery(network, std::move(reply));
  VorlenDiagnosticDataReporter::addValue(1, "com.velmo.vorlend.search");
  _setPerformedSearch();
  _markNetworkRequest();
}

// ---- the network path shared by every kind

void ClientState::_sendNetworkQuery(std::shared_ptr<NetworkQuery> query, QueryReply reply) {
  _recordFeedback(query->start, *query->request);
  auto sessions = assembly_->httpSessions;
  auto session = sessions ? sessions->urlSession() : nullptr;
  if (!session || query->http.url.empty()) {
    // Nothing can be sent: the query ends as the transport failure the send would have met.
    std::optional<HttpError> unsent;
    if (!session) {
      query->log->fault("no query session, can't send {}", Private(query->http.url));
      unsent = HttpError::make(HttpError::kUnknown, "no query session");
    } else {
      unsent = HttpError::make(HttpError::kUnsupportedURL, "unsupported URL");
    }
    _handleNetworkAnswer(*query, {}, std::nullopt, unsent, std::nullopt, reply);
    return;
  }
  // The task's timing data is read in its completion; the holder is emptied there, which breaks the
  // cycle task -> completion -> holder -> task.
  auto holder = std::make_shared<std::shared_ptr<HttpTask>>();
  std::weak_ptr<ClientState> weak = weak_from_this();
  auto completion = [weak, query, holder, reply](const std::vector<uint8_t>& data,
                                                 const std::optional<HttpResponse>& response,
                                                 const std::optional<HttpError>& error) {
    std::optional<TaskMetrics> metrics = *holder ? (*holder)->metrics() : std::nullopt;
    holder->reset();
    auto self = weak.lock();
    if (!self) {
      // The state outlives every connection in practice; answer anyway so the client is never left waiting.
      if (reply) reply(query->request->queryId, std::nullopt, VORError::make(500, "client state gone"));
      return;
    }
    self->_handleNetworkAnswer(*query, data, response, error, metrics, reply);
  };
  std::shared_ptr<HttpTask> task;
  if (query->retryable) {
    VORRetryableNetworkRequest retryable(query->http, query->expire, /*delayOnFail=*/false);
    task = dataTaskWithRetryableRequest(session, retryable, 1, kQueryRetries, completion, retryQueue_);
  } else {
    task = session->dataTask(query->http, completion);
  }
  *holder = task;
  // The alternate endpoint mode needs a network-service proxy, which this platform does not have; requests
  // go out directly whatever "VORUseQuintara" says.
  task->resume();
}

void ClientState::_handleNetworkAnswer(const NetworkQuery& query, const std::vector<uint8_t>& data,
                                       const std::optional<HttpResponse>& response,
                                       const std::optional<HttpError>& error,
                                       const std::optional<TaskMetrics>& metrics, const QueryReply& reply) {
  const VORRequest& request = *query.request;
  const Logger& log = *query.log;
  log.info("{}", query.gotResponseText);
  log.debug("resp: {}",
            response ? fmt::format("<HTTP response {} status {}>", Private(response->url), response->status)
                     : std::string("(null)"));
  const int64_t status = response ? response->status : 0;
  if (error) {
    log.error("error with request {}", Private(query.http.url));
    VORError e = NetworkTimingData::errorFromTransport(*error);
    failSearchFeedback(query, e, data.size(), status, metrics);
    if (reply) reply(request.queryId, std::nullopt, e);
    return;
  }
  if (!response) {
    log.error("not http response? {}", Private(query.http.url));
    VORError e = VORError::make(query.invalidResponseCode, "invalid response class");
    failSearchFeedback(query, e, data.size(), status, metrics);
    if (reply) reply(request.queryId, std::nullopt, e);
    return;
  }
  if (query.statusFailureFormat && status != 200) {
    // A failed search for the session; the client gets an empty answer, as for any answer it cannot use.
    VORError e = VORError::make(status, fmt::format("statusCode {}", status));
    log.error("{}", fmt::format(fmt::runtime(*query.statusFailureFormat), status, e.describe()));
    failSearchFeedback(query, e, data.size(), status, metrics);
    if (reply) reply(request.queryId, std::nullopt, std::nullopt);
    return;
  }
  nlohmann::json body = nlohmann::json::parse(data.begin(), data.end(), nullptr, false);
  if (query.requireJsonObject && !body.is_object()) {
    log.error("Failed to deserialize card details for into a dictionary. Error: {}. Response data: \"{}\"",
              body.is_discarded() ? "not JSON" : "not a JSON object",
              Private(std::string(data.begin(), data.end())));
    VORError e = VORError::make(500, "invalid response body");
    failSearchFeedback(query, e, data.size(), status, metrics);
    if (reply) reply(request.queryId, std::nullopt, e);
    return;
  }
  if (query.cacheInput && body.is_object())
    _cacheResponse(body, data, query.http, *query.cacheInput, query.uuid);
  endNetworkFeedback(query, *response, data.size(), metrics);
  std::optional<nlohmann::json> filtered;
  if (query.lookupRequest && assembly_->lookup)
    filtered = assembly_->lookup->filterLookupResultsWithRequest(*query.lookupRequest, std::move(body));
  std::vector<uint8_t> filteredData;
  if (filtered) {
    std::string text = filtered->dump();
    filteredData.assign(text.begin(), text.end());
  }
  VORReply answer = _makeReply(request, &query.http, &*response, filtered ? filteredData : data, false);
  if (reply) reply(request.queryId, std::move(answer), std::nullopt);
  _forceFetchBagIfAsked(*response);
}

void ClientState::_cacheResponse(const nlohmann::json& response, const std::vector<uint8_t>& data,
                                 const HttpRequest& request, const std::string& input, const Uuid& uuid) {
  auto cache = _queryCacheForUse();
  if (!cache) return;
  auto status = response.find("status");
  if (status != response.end() && status->is_string() && status->get<std::string>() == "ERROR") return;
  cache->set(
      std::make_shared<CachedResultSet>(input, &request, response, uuid, data, assembly_->clock()->now()));
}

void ClientState::endNetworkFeedback(const NetworkQuery& query, const HttpResponse& response,
                                     uint64_t responseSize, const std::optional<TaskMetrics>& metrics) {
  Value::Dict timing = NetworkTimingData::fromMetrics(metrics);
  std::optional<QXFeedback> end;
  if (auto header = response.header(kServerTimingHeader)) {
    nlohmann::json record = nlohmann::json::parse(*header, nullptr, false);
    if (record.is_array() && !record.empty() && record[0].is_object()) {
      const nlohmann::json& r = record[0];
      auto text = [&](const char* key) {
        auto it = r.find(key);
        return it != r.end() && it->is_string() ? it->get<std::string>() : std::string();
      };
      auto duration = r.find("duration");
      end = QXFeedbackFactory::vorEndNetworkSearch(
          query.start, responseSize, response.status, text("status"),
          duration != r.end() && duration->is_number() ? duration->get<double>() : 0.0, text("fbq"),
          text("partial_client_ip"), timing);
    } else {
      query.log->error("unreadable server timing record: {}", *header);
    }
  }
  if (!end) end = QXFeedbackFactory::endNetworkSearch(query.start, responseSize, response.status, timing);
  _recordFeedback(std::move(*end), *query.request);
}

void ClientState::failSearchFeedback(const NetworkQuery& query, const VORError& error, uint64_t responseSize,
                                     int64_t statusCode, const std::optional<TaskMetrics>& metrics) {
  _recordFeedback(QXFeedbackFactory::endNetworkSearch(query.start, responseSize, statusCode,
                                                      NetworkTimingData::fromMetrics(metrics)),
                  *query.request);
  _recordFeedback(QXFeedbackFactory::error(error), *query.request);
}

void ClientState::_forceFetchBagIfAsked(const HttpResponse& response) {
  auto header = response.header(kForceFetchHeader);
  if (!header) return;
  nlohmann::json parsed = nlohmann::json::parse(*header, nullptr, false);
  std::string why;
  std::optional<Value> value = parsed.is_object() ? JsonValue::toValue(parsed, &why) : std::nullopt;
  if (!value || !value->isDict()) {
    searchLog().error("Failed to deserialize X-Velmo-ForceFetch header data into a dictionary: {}", *header);
    return;
  }
  if (auto controller = assembly_->bagController) controller->forceFetchBag(*value->getDict());
}

// ---- the other kinds

void ClientState::zeroKeyword(std::shared_ptr<const VORZeroKeywordRequest> request, QueryReply reply) {
  const Logger& log = VorlenLogForCategory(VorlenLogCategoryZeroKeyword);
  log.info("session {} performing zkw query, reply {}", identifier_, describeReply(reply));
  const std::optional<VORBag> enabled = _enabledBag(
      *request, "Bag fetch failed, can't complete non-cached zkw query.", log, "no zkw, bag disabled", reply);
  if (!enabled) return;
  auto factory = assembly_->requestFactory;
  auto network = std::make_shared<NetworkQuery>();
  network->request = request;
  network->http = _built(factory ? factory->zeroKeywordRequest(*request, *enabled, _currentUserGUID(),
                                                               _requestClient(), _fieldMask())
                                 : std::nullopt);
  network->start = QXFeedbackFactory::startNetworkSearch(
      request->queryString, network->http.url, network->http.headers, request->triggerEvent, kEndpointSearch);
  network->log = &log;
  network->gotResponseText = "Got network response for zkw query";
  _sendNetworkQuery(network, std::move(reply));
  _markNetworkRequest();
}

void ClientState::moreResults(std::shared_ptr<const VORMoreResultsRequest> request, QueryReply reply) {
  const Logger& log = VorlenLogForCategory(VorlenLogCategoryMoreResults);
  // No bag check: the request goes to the bag's more-results URL, and without one it cannot be sent.
  _ensureBag();
  auto held = bag();
  auto factory = assembly_->requestFactory;
  auto network = std::make_shared<NetworkQuery>();
  network->request = request;
  network->http = _built(held && factory ? factory->moreResultsRequest(*request, *held, _currentUserGUID(),
                                                                       _requestClient(), _fieldMask())
                                         : std::nullopt);
  // The query this page belongs to, as the built URL carries it.
  std::string input = request->queryString;
  if (auto components = UrlComponents::parse(network->http.url)) {
    for (const auto& item : components->queryItems()) {
      if (item.name == "q" && item.value) input = *item.value;
    }
  }
  network->start = QXFeedbackFactory::startNetworkSearch(input, network->http.url, network->http.headers,
                                                         request->triggerEvent, kEndpointSearch);
  network->log = &log;
  network->gotResponseText = "Got network response for more results query";
  network->retryable = true;  // without an expiry: sent once
  network->statusFailureFormat = "More results fetch failed with HTTP status code {} error {}";
  network->requireJsonObject = true;
  _sendNetworkQuery(network, std::move(reply));
  _markNetworkRequest();
}

void ClientState::card(std::shared_ptr<const VORCardRequest> request, QueryReply reply) {
  const Logger& log = VorlenLogForCategory(VorlenLogCategoryCard);
  // No bag check: the request goes to the bag's card URL, and without one it cannot be sent.
  _ensureBag();
  auto held = bag();
  auto factory = assembly_->requestFactory;
  auto network = std::make_shared<NetworkQuery>();
  network->request = request;
  network->http =
      _built(held && factory ? factory->cardRequest(*request, *held, _currentUserGUID(), _requestClient())
                             : std::nullopt);
  protocolLog().notice("card request: {} header: {}", Private(network->http.url),
                       Private(headersForLog(network->http.headers)));
  network->start = QXFeedbackFactory::startNetworkSearch(
      request->queryString, network->http.url, network->http.headers, request->triggerEvent, kEndpointCard);
  network->log = &log;
  network->gotResponseText = "Got network response for card query";
  network->retryable = true;  // without an expiry: sent once
  network->statusFailureFormat = "Card fetch failed with HTTP status code {} error {}";
  network->requireJsonObject = true;
  _sendNetworkQuery(network, std::move(reply));
  _markNetworkRequest();
}

void ClientState::lookup(std::shared_ptr<const VORLookupRequest> request, QueryReply reply) {
  const Logger& log = VorlenLogForCategory(VorlenLogCategoryLookUp);
  log.info("session {} performing lookup query, reply {}", identifier_, describeReply(reply));
  const std::optional<VORBag> enabled =
      _enabledBag(*request, "Bag fetch failed, can't complete non-cached lookup query.", log,
                  "no lookup, bag disabled", reply);
  if (!enabled) return;
  log.debug("Dispatching network request for lookup query");
  auto factory = assembly_->requestFactory;
  auto network = std::make_shared<NetworkQuery>();
  network->request = request;
  network->http =
      _built(factory ? factory->lookupRequest(*request, *enabled, _currentUserGUID(), _requestClient())
                     : std::nullopt);
  network->retryable = true;
  network->expire = _applyRenderDeadline(network->http, *enabled);
  network->start = QXFeedbackFactory::lookupStartNetworkSearch(
      request->queryString, network->http.url, network->http.headers, request->lookupSelectionType,
      request->hintDomain, kEndpointCard);
  network->log = &log;
  network->gotResponseText = "Got network response for lookup query";
  network->lookupRequest = request;
  _sendNetworkQuery(network, std::move(reply));
  _setPerformedSearch();
  _markNetworkRequest();
}

void ClientState::flightSearch(std::shared_ptr<const VORFlightSearchRequest> request, QueryReply reply) {
  flightLog().info("session {} performing flight query, reply {}", identifier_, describeReply(reply));
  if (_flightDebugDataEnabled()) {
    _debugFlightSearch(*request, reply);
    return;
  }
  const std::optional<VORBag> enabled =
      _enabledBag(*request, "Bag fetch failed, can't complete flight query.", flightLog(),
                  "no flights, bag disabled", reply);
  if (!enabled) return;
  flightLog().debug("Dispatching network request for flight query");
  auto factory = assembly_->requestFactory;
  auto network = std::make_shared<NetworkQuery>();
  network->request = request;
  network->http =
      _built(factory ? factory->flightSearchRequest(*request, *enabled, _currentUserGUID(), _requestClient())
                     : std::nullopt);
  network->retryable = true;
  network->expire = _applyRenderDeadline(network->http, *enabled);
  network->start = QXFeedbackFactory::startNetworkSearch(
      request->flightQuery, network->http.url, network->http.headers, kTriggerFlight, kEndpointFlight);
  network->log = &flightLog();
  network->gotResponseText = "Got network response for flight query";
  _sendNetworkQuery(network, std::move(reply));
  _setPerformedSearch();
  _markNetworkRequest();
}

bool ClientState::_flightDebugDataEnabled() const {
  return assembly_->userDefaults && assembly_->userDefaults->boolForKey("VORFlightUseDebugData");
}

std::optional<nlohmann::json> ClientState::_loadFlightDebugData() const {
  std::string location = "file:///tmp/flight_dummy_data.json";
  if (assembly_->userDefaults) {
    if (auto configured = assembly_->userDefaults->stringForKey("VORFlightDebugDataLocation"))
      location = *configured;
  }
  const std::string path = location.rfind("file://", 0) == 0 ? location.substr(7) : location;
  // The default lies in a folder every local user can write to: only a regular file of this user that
  // nobody else may change is believed, and it is opened without following a link.
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat st {};
  std::string refusal;
  if (!fd) {
    refusal = fmt::format("cannot open {}: {}", path, std::strerror(errno));
  } else if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    refusal = fmt::format("{} is not a regular file", path);
  } else if (st.st_uid != ::geteuid() || (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    refusal = fmt::format("{} is not owned by this user or is writable by others", path);
  } else if (st.st_size > kMaxFlightDebugDataBytes) {
    refusal = fmt::format("{} is larger than {} bytes", path, kMaxFlightDebugDataBytes);
  }
  if (!refusal.empty()) {
    flightLog().error("Failed to load flight test data. Error: {}", refusal);
    return std::nullopt;
  }
  std::string text(static_cast<size_t>(st.st_size), '\0');
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::read(fd.get(), text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  text.resize(done);
  nlohmann::json parsed = nlohmann::json::parse(text, nullptr, false);
  if (!parsed.is_array()) {
    flightLog().error("Failed to parse flight test data json. Error: {}",
                      parsed.is_discarded() ? "not JSON" : "not a JSON array");
    return std::nullopt;
  }
  return parsed;
}

void ClientState::_replyWithFlightEntries(const VORRequest& request, const QueryReply& reply,
                                          const std::function<bool(const nlohmann::json&)>& matches) {
  // Without the switch, or without readable debug data, no entry matches: the answer is an empty list.
  std::optional<nlohmann::json> entries;
  if (_flightDebugDataEnabled()) entries = _loadFlightDebugData();
  nlohmann::json matched = nlohmann::json::array();
  for (const auto& entry : entries.value_or(nlohmann::json::array())) {
    if (entry.is_object() && matches(entry)) matched.push_back(entry);
  }
  const std::string text = matched.dump();
  VORReply answer =
      _makeReply(request, nullptr, nullptr, std::vector<uint8_t>(text.begin(), text.end()), false);
  if (reply) reply(request.queryId, std::move(answer), std::nullopt);
}

void ClientState::_debugFlightSearch(const VORFlightSearchRequest& request, const QueryReply& reply) {
  // "VL-123": carrier code first, flight number second. Any other shape matches nothing.
  const size_t dash = request.flightQuery.find('-');
  const bool twoParts =
      dash != std::string::npos && request.flightQuery.find('-', dash + 1) == std::string::npos;
  const std::string carrier = twoParts ? request.flightQuery.substr(0, dash) : "";
  const std::string number = twoParts ? request.flightQuery.substr(dash + 1) : "";
  _replyWithFlightEntries(request, reply, [&](const nlohmann::json& entry) {
    return twoParts && entry.value("carrier_code", "") == carrier &&
           entry.value("flight_number", "") == number;
  });
}

void ClientState::flightLookup(std::shared_ptr<const VORFlightLookupRequest> request, QueryReply reply) {
  _replyWithFlightEntries(*request, reply, [&](const nlohmann::json& entry) {
    return entry.value("flightId", "") == request->flightId;
  });
}

void ClientState::warm() {
  _ensureBag();
  auto held = bag();
  auto url = held ? held->warmURL() : std::nullopt;
  if (!url) {
    searchLog().info("warm not required, bag fetch in process");
    return;
  }
  {
    std::lock_guard lock(mu_);
    if (lastNetworkRequest_ && assembly_->clock()->now() - *lastNetworkRequest_ < kWarmInterval) {
      searchLog().info("warm not required, connection still warm");
      return;
    }
  }
  auto factory = assembly_->requestFactory;
  auto http = factory ? factory->warmRequest(*url) : std::nullopt;
  auto session = assembly_->httpSessions ? assembly_->httpSessions->urlSession() : nullptr;
  if (!http || !session) return;
  // The warm-up is the daemon's own request, so its event carries the daemon's agent.
  if (auto manager = assembly_->clientSessionManager) {
    std::string agent =
        assembly_->platform.device
            ? createUserAgentString(kVORVorlendNameVersion, *assembly_->platform.device).value_or("")
            : std::string(kVORVorlendNameVersion);
    manager->addVorlenFeedback(VorlenFeedback(
        QXFeedbackFactory::startNetworkSearch("", http->url, http->headers, kTriggerWarm, kEndpointWarm), 0,
        std::nullopt, std::move(agent)));
  }
  session
      ->dataTask(*http,
                 [](const std::vector<uint8_t>&, const std::optional<HttpResponse>&,
                    const std::optional<HttpError>& error) {
                   if (error) searchLog().debug("warm request failed: {}", error->message);
                 })
      ->resume();
  _markNetworkRequest();
}

}  // namespace vorlen
