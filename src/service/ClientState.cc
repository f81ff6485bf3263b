#include "service/ClientState.h"

#include "base/Counters.h"
#include "base/Log.h"
#include "feedback/ClientSessionManagerProtocol.h"
#include "feedback/VorlenFeedback.h"
#include "model/QXFeedbackFactory.h"
#include "platform/Assembly.h"
#include "service/TypeVocabularies.h"

namespace vorlen {

namespace {

const Logger& searchLog() { return VorlenLogForCategory(VorlenLogCategorySearch); }

const char* describeReply(const ClientState::QueryReply& reply) { return reply ? "<reply>" : "(null)"; }

// Skip reasons of VORSkipSearchFeedback.
constexpr uint64_t kSkipBagFetchFailed = 3;

// The lifetime of a warm connection: no pre-warm within this long of the last network request.
constexpr auto kWarmInterval = std::chrono::seconds(30);

}  // namespace

std::shared_ptr<ClientState> ClientState::create(std::string identifier, std::shared_ptr<Assembly> assembly) {
  return std::shared_ptr<ClientState>(new ClientState(std::move(identifier), std::move(assembly)));
}

ClientState::ClientState(std::string identifier, std::shared_ptr<Assembly> assembly)
    : identifier_(std::move(identifier)), assembly_(std::move(assembly)) {}

void ClientState::setConfiguration(VORSessionConfiguration configuration) {
  std::lock_guard lock(mu_);
  configuration_ = std::move(configuration);
}

std::optional<VORSessionConfiguration> ClientState::configuration() const {
  std::lock_guard lock(mu_);
  return configuration_;
}

void ClientState::setUserAgent(std::optional<std::string> userAgent) {
  std::string shortName = getClientFromUserAgent(userAgent);
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

std::shared_ptr<ClientSessionManagerProtocol> ClientState::sessionManager() const {
  return assembly_ ? assembly_->clientSessionManager : nullptr;
}

std::optional<VORBag> ClientState::bag() const {
  std::lock_guard lock(mu_);
  return bag_;
}

bool ClientState::_ensureBag() {
  std::lock_guard lock(mu_);
  return bag_.has_value();
}

void ClientState::bag(const std::string& userAgent, BagReply reply) {
  if (userAgent.empty()) {
    if (reply) reply(std::nullopt, VORError::make(500, "no UserAgent"));
    return;
  }
  {
    std::lock_guard lock(mu_);
    if (bag_ && bag_->userAgent() != userAgent) {
      // The same raw bag, seen by another agent. Cached answers were made for the old view.
      bag_ = VORBag(bag_->rawBag(), userAgent);
    }
  }
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

void ClientState::_recordFeedback(QXFeedback feedback, const VORRequest& request) {
  auto manager = sessionManager();
  if (!manager) return;
  manager->addVorlenFeedback(VorlenFeedback(std::move(feedback), static_cast<int64_t>(request.queryId),
                                            std::nullopt, userAgent().value_or(""), request.clientQueryId));
}

void ClientState::_replyBagFailure(const VORRequest& request, std::string_view logText, bool recordSkip,
                                   const QueryReply& reply) {
  searchLog().error("{}", logText);
  if (reply) reply(request.queryId, std::nullopt, VORError::make(1, "timeout"));
  if (recordSkip) _recordFeedback(QXFeedbackFactory::skipSearch(kSkipBagFetchFailed, request.queryString), request);
}

void ClientState::search(std::shared_ptr<const VORSearchRequest> request, QueryReply reply) {
  searchLog().info("session {} performing query[{}] {}, reply {}", identifier_, request->queryId,
                   request->queryString, describeReply(reply));
  _countForClient("keystrokes");
  if (!_ensureBag()) {
    _replyBagFailure(*request, fmt::format("Bag fetch failed, can't complete non-cached query {}.", request->queryString),
                     true, reply);
    return;
  }
  // A bag is held but the request factory and the HTTP path are not in the Assembly: nothing can be
  // sent, which to the client is the same as a bag that cannot be had.
  _replyBagFailure(*request, "no request factory, can't complete query", false, reply);
}

void ClientState::zeroKeyword(std::shared_ptr<const VORZeroKeywordRequest> request, QueryReply reply) {
  searchLog().info("session {} performing zkw query, reply {}", identifier_, describeReply(reply));
  _replyBagFailure(*request, "Bag fetch failed, can't complete non-cached zkw query.", true, reply);
}

void ClientState::moreResults(std::shared_ptr<const VORMoreResultsRequest> request, QueryReply reply) {
  _replyBagFailure(*request, "no bag, can't complete more results query", false, reply);
}

void ClientState::card(std::shared_ptr<const VORCardRequest> request, QueryReply reply) {
  _replyBagFailure(*request, "no bag, can't complete card query", false, reply);
}

void ClientState::lookup(std::shared_ptr<const VORLookupRequest> request, QueryReply reply) {
  searchLog().info("session {} performing lookup query, reply {}", identifier_, describeReply(reply));
  _replyBagFailure(*request, "Bag fetch failed, can't complete non-cached lookup query.", true, reply);
}

void ClientState::flightSearch(std::shared_ptr<const VORFlightSearchRequest> request, QueryReply reply) {
  searchLog().info("session {} performing flight query, reply {}", identifier_, describeReply(reply));
  _replyBagFailure(*request, "Bag fetch failed, can't complete flight query.", true, reply);
}

void ClientState::flightLookup(std::shared_ptr<const VORFlightLookupRequest> request, QueryReply reply) {
  _replyBagFailure(*request, "no bag, can't complete flight lookup", false, reply);
}

void ClientState::warm() {
  auto held = bag();
  if (!held || !held->warmURL()) {
    searchLog().info("warm not required, bag fetch in process");
    return;
  }
  std::optional<Time> last;
  {
    std::lock_guard lock(mu_);
    last = lastNetworkRequest_;
  }
  if (last && assembly_->clock()->now() - *last < kWarmInterval) {
    searchLog().info("warm not required, connection still warm");
    return;
  }
  // Sending the warm request needs the request factory; until it is in the Assembly nothing goes out.
}

}  // namespace vorlen
