// ClientState: everything the service keeps for one client identifier: its configuration, user agent and
// short client name, the bag as this client sees it, its query cache slot and its feedback session
// manager. The query operations turn one request into one reply; every path replies exactly once, and
// a missing reply callback is tolerated.
//
// A state is created once per identifier by the ClientStateManager and lives for the whole process, so a
// reconnecting client finds its state (and caches) again.
//
// What this build answers: the bag a state hands out comes from the Assembly's bag controller. While that
// slot is empty no bag can be had, so every query kind takes its no-bag path: search, zero keyword,
// look-up and flight search answer with the bag time-out error (code 1, reason "timeout") and record a
// skip event; more results, card and flight look-up, which need the bag's URLs, answer with the same
// error. The network path joins when the bag controller and the request factory are in the Assembly.
//
// Threading: every public method is safe from any thread. Replies run on the caller's thread (or, for
// network answers, on the HTTP session's queue).
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "base/Clock.h"
#include "model/VORBag.h"
#include "model/VORError.h"
#include "model/VORReply.h"
#include "model/VORRequest.h"
#include "model/VORSessionConfiguration.h"

namespace vorlen {

class Assembly;
class ClientSessionManagerProtocol;
class QXFeedback;
class QueryCache;

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

  // Setting the user agent also derives the short client name used in per-client counter names.
  void setUserAgent(std::optional<std::string> userAgent);
  std::optional<std::string> userAgent() const;
  std::string clientShortName() const;

  // The client's feedback session manager: the Assembly's shared one. May be null.
  std::shared_ptr<ClientSessionManagerProtocol> sessionManager() const;
  // The client's in-memory query cache; null until the query cache is part of the Assembly.
  std::shared_ptr<QueryCache> queryCache() const { return nullptr; }
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

  // True when a usable bag is held. Getting one needs the bag controller, which the Assembly does not
  // have yet, so no bag is ever held in this build.
  bool _ensureBag();
  // The no-bag answer of the query kinds: the time-out error, and a skip event where the kind records one.
  void _replyBagFailure(const VORRequest& request, std::string_view logText, bool recordSkip,
                        const QueryReply& reply);
  void _recordFeedback(QXFeedback feedback, const VORRequest& request);
  void _countForClient(std::string_view suffix) const;

  const std::string identifier_;
  const std::shared_ptr<Assembly> assembly_;

  mutable std::mutex mu_;
  std::optional<VORSessionConfiguration> configuration_;
  std::optional<std::string> userAgent_;
  std::string clientShortName_;
  std::optional<VORBag> bag_;
  std::optional<Time> lastNetworkRequest_;
};

}  // namespace vorlen
