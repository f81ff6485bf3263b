// ClientState: everything the service keeps for one client identifier: its configuration, user agent and
// short client name, the bag as this client sees it, its query cache slot and its feedback session
// manager. The query operations turn one request into one reply; every path replies exactly once, and
// a missing reply callback is tolerated.
//
// A state is created once per identifier by the ClientStateManager and lives for the whole process, so a
// reconnecting client finds its state (and caches) again.
//
// Every query kind checks the bag first (the Assembly's bag controller; nothing is awaited), builds its
// HTTP request with the request factory, and answers from the query cache (search only) or the network
// (the query session). Each decision leaves a feedback event with the session manager.
//
// Threading: every public method is safe from any thread. Replies run on the caller's thread (or, for
// network answers, on the HTTP session's queue).
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "base/Clock.h"
#include "base/Uuid.h"
#include "model/VORBag.h"
#include "model/VORError.h"
#include "model/VORReply.h"
#include "model/VORRequest.h"
#include "model/VORSessionConfiguration.h"
#include "network/HttpError.h"
#include "network/HttpRequest.h"
#include "network/HttpResponse.h"
#include "network/TaskMetrics.h"
#include "network/VORNetworkRequestFactory.h"

namespace vorlen {

class Assembly;
class Logger;
class ClientSessionManagerProtocol;
class GUIDController;
class QXFeedback;
class QueryCache;
class Queue;

class ClientState : public std::enable_shared_from_this<ClientState> {
 public:
  // (query id, reply or nothing, error or nothing).
  using QueryReply =
      std::function<void(uint64_t queryId, std::optional<VORReply> reply, std::optional<VORError> error)>;
  using BagReply = std::function<void(std::optional<VORBag> bag, std::optional<VORError> error)>;

  static std::shared_ptr<ClientState> create(std::string identifier, std::shared_ptr<Assembly> assembly);

  const std::string& identifier() const { return identifier_; }

  void setConfiguration(VORSessionConfiguration configuration);
  std::optional<VORSessionConfiguration> configuration() const;

  // Setting the user agent also derives the short client name used in per-client counter names
  // (extractClientNameFromString of the client's part of the agent; empty when it names no known client).
  void setUserAgent(std::optional<std::string> userAgent);
  std::optional<std::string> userAgent() const;
  std::string clientShortName() const;

  // The client's feedback session manager and user GUID source: the Assembly's shared ones, or with
  // "VORSharedSession" off, the client's own (made on first use). May be null.
  std::shared_ptr<ClientSessionManagerProtocol> sessionManager() const;
  std::shared_ptr<GUIDController> guidController() const;
  // The client's in-memory query cache; null when the preference "VORNoQueryCache" is true, until the
  // first search needs it, and again after releaseCaches(). A state without one costs a few hundred bytes.
  std::shared_ptr<QueryCache> queryCache() const;
  // Lets go of the in-memory query cache (its answers, queue and observers); the next search makes a new
  // one. The state manager calls it on the least recently used states.
  void releaseCaches();
  // The query cache, made when missing as the first search makes it.
  std::shared_ptr<QueryCache> makeQueryCacheForTesting() { return _queryCacheForUse(); }
  // The bag as this client sees it; nothing until one was had.
  std::optional<VORBag> bag() const;

  // The bag for `userAgent`: error {"reason": "no UserAgent"} for an empty agent, {"reason": "timeout"}
  // (code 1) when no bag can be had.
  void bag(const std::string& userAgent, BagReply reply);

  void search(std::shared_ptr<const VORSearchRequest> request, QueryReply reply);
  void zeroKeyword(std::shared_ptr<const VORZeroKeywordRequest> request, QueryReply reply);
  void moreResults(std::shared_ptr<const VORMoreResultsRequest> request, QueryReply reply);
  void card(std::shared_ptr<const VORCardRequest> request, QueryReply reply);
  void lookup(std::shared_ptr<const VORLookupRequest> request, QueryReply reply);
  void flightSearch(std::shared_ptr<const VORFlightSearchRequest> request, QueryReply reply);
  void flightLookup(std::shared_ptr<const VORFlightLookupRequest> request, QueryReply reply);

  // Pre-warms the connection to the search service when the bag names a warm URL and no request went out
  // in the last 30 s.
  void warm();

 private:
  ClientState(std::string identifier, std::shared_ptr<Assembly> assembly);

  // True when a usable bag is held: the bag controller's installed bag, seen with this client's agent.
  // Never waits: with no bag installed a fetch starts in the background and this answers false.
  bool _ensureBag();
  // The bag a query kind may use. Without one it answers for the kind and returns nothing: with no bag
  // held, the time-out error (logged as `failureText`); with the service disabled by the bag, an empty
  // answer (`disabledText` on `log`, debug level). Either way a skip event is recorded.
  std::optional<VORBag> _enabledBag(const VORRequest& request, std::string_view failureText,
                                    const Logger& log, std::string_view disabledText,
                                    const QueryReply& reply);
  // Look-up and flight answers are due by the bag's render deadline: a slower one ends as a time-out.
  // Returns the deadline (now + the bag's render time-out), the expiry of the request's retries.
  Time _applyRenderDeadline(HttpRequest& http, const VORBag& bag) const;
  // The request a factory built, or an empty one (no URL) when it built none.
  static HttpRequest _built(std::optional<HttpRequest> request);
  void _recordFeedback(QXFeedback feedback, const VORRequest& request,
                       std::optional<Uuid> userGuid = std::nullopt);
  // Hands several events of one request to the session manager in one piece, in order.
  void _recordFeedbacks(std::vector<QXFeedback> feedbacks, const VORRequest& request,
                        std::optional<Uuid> userGuid = std::nullopt);
  void _countForClient(std::string_view suffix) const;

  // What one network query needs beyond its HTTP request.
  struct NetworkQuery;
  // Records the query's start event, then sends it on the query session and replies from its answer (on
  // the session's queue).
  void _sendNetworkQuery(std::shared_ptr<NetworkQuery> query, QueryReply reply);
  void _handleNetworkAnswer(const NetworkQuery& query, const std::vector<uint8_t>& data,
                            const std::optional<HttpResponse>& response,
                            const std::optional<HttpError>& error, const std::optional<TaskMetrics>& metrics,
                            const QueryReply& reply);
  void _cacheResponse(const nlohmann::json& response, const std::vector<uint8_t>& data,
                      const HttpRequest& request, const std::string& input, const Uuid& uuid);
  void endNetworkFeedback(const NetworkQuery& query, const HttpResponse& response, uint64_t responseSize,
                          const std::optional<TaskMetrics>& metrics);
  void failSearchFeedback(const NetworkQuery& query, const VORError& error, uint64_t responseSize,
                          int64_t statusCode, const std::optional<TaskMetrics>& metrics);
  void _setPerformedSearch();
  void _markNetworkRequest();
  // The reply of a successful answer: scale, data, the geo session, and the HTTP exchange when asked.
  VORReply _makeReply(const VORRequest& request, const HttpRequest* httpRequest, const HttpResponse* response,
                      std::vector<uint8_t> data, bool resetGeoSession);
  // The request identity of this client for the request factory.
  VORRequestClient _requestClient() const;
  Uuid _currentUserGUID() const;
  // Decides once, on first use, between the shared and the client's own GUID controller and manager.
  void _ensureFeedbackIdentity() const;
  // The field mask of this client's search-type requests: messaging clients ask for the "messages" set.
  std::optional<std::string> _fieldMask() const;
  void _forceFetchBagIfAsked(const HttpResponse& response);
  // Flight debug data is used only while the preference "VORFlightUseDebugData" is true.
  bool _flightDebugDataEnabled() const;
  // The entries of the preference-named JSON file, or nothing after a log line. Only a regular file owned
  // by this user and writable by nobody else is read.
  std::optional<nlohmann::json> _loadFlightDebugData() const;
  void _debugFlightSearch(const VORFlightSearchRequest& request, const QueryReply& reply);
  // Answers `request` with the debug entries that `matches` accepts, as a JSON array.
  void _replyWithFlightEntries(const VORRequest& request, const QueryReply& reply,
                               const std::function<bool(const nlohmann::json&)>& matches);

  const std::string identifier_;
  const std::shared_ptr<Assembly> assembly_;

  mutable std::mutex mu_;
  std::optional<VORSessionConfiguration> configuration_;
  std::optional<std::string> userAgent_;
  std::string clientShortName_;
  std::optional<VORBag> bag_;
  // The controller's bag that bag_ was made from: bag_ is remade only when the controller installs another.
  std::optional<VORBag> bagSource_;
  std::optional<Time> lastNetworkRequest_;
  bool queryCacheEnabled_ = false;
  std::shared_ptr<QueryCache> queryCache_;  // made on first use
  // The query cache, made when missing (null when switched off).
  std::shared_ptr<QueryCache> _queryCacheForUse();
  // Schedules the retries of retryable requests; its clock (the Assembly's) decides their expiry.
  std::shared_ptr<Queue> retryQueue_;
  // Set once under feedbackIdentityOnce_, then read-only; null when the shared ones serve this client.
  mutable std::once_flag feedbackIdentityOnce_;
  mutable std::shared_ptr<GUIDController> ownGuidController_;
  mutable std::shared_ptr<ClientSessionManagerProtocol> ownSessionManager_;
};

}  // namespace vorlen
