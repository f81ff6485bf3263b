#include "service/ClientConnection.h"

#include "base/Counters.h"
#include "base/Log.h"
#include "base/Queue.h"
#include "base/Timer.h"
#include "base/Trace.h"
#include "base/Transaction.h"
#include "cache/EngagedCompletionCache.h"
#include "cache/QueryCache.h"
#include "download/DownloadManager.h"
#include "feedback/ClientSession.h"
#include "feedback/ClientSessionManager.h"
#include "feedback/ClientSessionManagerProtocol.h"
#include "feedback/VorlenFeedback.h"
#include "ipc/IpcConnection.h"
#include "ipc/IpcExportedInterface.h"
#include "model/Constants.h"
#include "model/Operations.h"
#include "model/QXFeedbackFactory.h"
#include "model/QXResultSection.h"
#include "model/QXSearchResult.h"
#include "network/BagController.h"
#include "network/GUIDController.h"
#include "network/UserAgent.h"
#include "platform/Assembly.h"
#include "platform/DeviceProperties.h"
#include "platform/InteractionDonor.h"
#include "service/ClientState.h"
#include "service/ClientStateManager.h"
#include "storage/FlusherIPC.h"

namespace vorlen {

namespace {

const Logger& connectionLog() {
  return VorlenLogForCategory(VorlenLogCategoryConnection);
}
const Logger& sessionLog() {
  return VorlenLogForCategory(VorlenLogCategorySession);
}
const Logger& feedbackLog() {
  return VorlenLogForCategory(VorlenLogCategoryFeedback);
}
const Logger& bagLog() {
  return VorlenLogForCategory(VorlenLogCategoryBag);
}

using Arg = IpcExportedInterface::Arg;

Value optionalRecord(const auto& record) {
  return record ? record->toRecord() : Value();
}

// View-appear events that mean a search screen is about to be used: worth pre-warming the connection.
bool warmsConnection(uint64_t viewAppearEvent) {
  switch (viewAppearEvent) {
    case 2:
    case 5:
    case 6:
    case 9:
    case 10:
    case 11:
    case 22:
    case 23:
    case 24:
      return true;
    default:
      return false;
  }
}

std::optional<uint64_t> firstResultQueryId(const std::vector<QXSearchResult>& results) {
  if (results.empty()) return std::nullopt;
  return results.front().queryId;
}

std::optional<uint64_t> firstSectionQueryId(const std::vector<QXResultSection>& sections) {
  if (sections.empty()) return std::nullopt;
  return firstResultQueryId(sections.front().results);
}

}  // namespace

std::shared_ptr<ClientConnection> ClientConnection::create(std::shared_ptr<Assembly> assembly,
                                                           std::shared_ptr<IpcConnection> connection,
                                                           ClientConnectionOptions options) {
  auto self = std::shared_ptr<ClientConnection>(
      new ClientConnection(std::move(assembly), std::move(connection), std::move(options)));
  self->start();
  return self;
}

ClientConnection::ClientConnection(std::shared_ptr<Assembly> assembly,
                                   std::shared_ptr<IpcConnection> connection, ClientConnectionOptions options)
    : assembly_(std::move(assembly)),
      clientStateManager_(assembly_->clientStateManager),
      connection_(std::move(connection)),
      options_(std::move(options)),
      transaction_(std::make_unique<Transaction>("com.velmo.vorlend.clientconnection")) {}

ClientConnection::~ClientConnection() {
  if (idleTimer_) idleTimer_->cancel();
  if (configureTimer_) configureTimer_->cancel();
  // A connection's answers do not outlive it: the next connection of the same client (or another one
  // bound to the same state) starts from an empty query cache.
  if (state_) {
    if (auto cache = state_->queryCache()) cache->removeAllObjects();
  }
  // The observers go with their tokens; the transaction closes with its object.
}

void ClientConnection::start() {
  std::weak_ptr<ClientConnection> weak = weak_from_this();
  notifyQueue_ = Queue::global(QueuePriority::Background);
  bagQueue_ = Queue::serial("com.velmo.vorlend.clientconnection.bag", QueuePriority::Background);

  idleTimer_ = Timer::weak<ClientConnection>(assembly_->clock(), notifyQueue_, shared_from_this(),
                                             [](ClientConnection& self) {
                                               connectionLog().debug("timing out idle ipc connection");
                                               self.connection_->invalidate();
                                             });
  idleTimer_->arm(options_.idleTimeout);
  configureTimer_ = Timer::weak<ClientConnection>(
      assembly_->clock(), notifyQueue_, shared_from_this(), [](ClientConnection& self) {
        if (self.state()) return;
        connectionLog().debug("closing ipc connection that never configured");
        self.connection_->invalidate();
      });
  configureTimer_->arm(options_.configureTimeout);

  auto center = assembly_->notificationCenter;
  if (center) {
    downloadObserver_ = center->addObserver<ClientConnection>(
        kVORFileDownloadCompletedNotification, nullptr, shared_from_this(),
        [](ClientConnection& self, const Notification& n) {
          self.forwardResourceNotification(n, op::kDidDownloadResource);
        });
    deleteObserver_ =
        center->addObserver<ClientConnection>(kVORFileDeletedNotification, nullptr, shared_from_this(),
                                              [](ClientConnection& self, const Notification& n) {
                                                self.forwardResourceNotification(n, op::kDidDeleteResource);
                                              });
  }

  connection_->setExportedInterface(makeInterface(weak));
  // Every message from the client restarts the idle time-out before it is served.
  connection_->setInvocationHook([weak](const IpcMessage&) {
    if (auto self = weak.lock()) self->idleTimer_->arm(self->options_.idleTimeout);
  });
}

std::shared_ptr<const IpcExportedInterface> ClientConnection::makeInterface(
    std::weak_ptr<ClientConnection> weak) {
  auto exported = std::make_shared<IpcExportedInterface>(op::kDaemonInterface);
  // Binds an operation to a member; calls arriving after the connection object is gone do nothing.
  auto bind = [weak](auto member) {
    return [weak, member](const IpcMessage& call, IpcReplier reply) {
      if (auto self = weak.lock()) member(*self, call, std::move(reply));
    };
  };
  exported->add(op::kConfigure, {Arg::record({VORSessionConfiguration::kClassName})},
                bind([](ClientConnection& self, const IpcMessage& call, IpcReplier reply) {
                  auto configuration = VORSessionConfiguration::fromRecord(call.arg(0));
                  if (configuration) self.configure(std::move(*configuration), std::move(reply));
                }));
  exported->add(op::kBag, {}, bind([](ClientConnection& self, const IpcMessage&, IpcReplier reply) {
                  self.bag(std::move(reply));
                }));
  exported->add(op::kRefreshBag, {}, bind([](ClientConnection& self, const IpcMessage&, IpcReplier reply) {
                  self.refreshBag(std::move(reply));
                }));
  exported->add(op::kRequest, {Arg::record()},
                bind([](ClientConnection& self, const IpcMessage& call, IpcReplier reply) {
                  // An unknown request class is rejected here (one log line) and never answered.
                  if (auto request = VORRequest::fromRecord(call.arg(0)))
                    self.request(std::move(request), std::move(reply));
                }));
  exported->add(
      op::kReportEvent, {Arg::string(), Arg::unsignedInteger(), Arg::record()},
      bind([](ClientConnection& self, const IpcMessage& call, IpcReplier) {
        // The event name is deliberately not used: the feedback's class says what happened.
        auto feedback = QXFeedback::fromRecord(call.arg(2));
        if (!feedback) return;
        if (feedback->isServiceEvent()) {
          self.repeatedLines_.log(
              feedbackLog(), LogLevel::Error,
              fmt::format("refusing {} from a client: only the service makes it", feedback->className()));
          return;
        }
        self.reportEvent(*feedback, *call.arg(1).getUInt());
      }));
  exported->add(op::kFeedback, {Arg::string()},
                bind([](ClientConnection& self, const IpcMessage&, IpcReplier reply) {
                  self.feedback(std::move(reply));
                }));
  exported->add(op::kListenToFlusher, {},
                bind([](ClientConnection& self, const IpcMessage&, IpcReplier reply) {
                  self.listenToFlusher(std::move(reply));
                }));
  exported->add(op::kListSessions, {}, bind([](ClientConnection& self, const IpcMessage&, IpcReplier reply) {
                  self.listSessions(std::move(reply));
                }));
  exported->add(op::kFileHandleForResource, {Arg::string()},
                bind([](ClientConnection& self, const IpcMessage& call, IpcReplier reply) {
                  self.fileHandleAndAttributesForResource(*call.arg(0).getString(), std::move(reply));
                }));
  exported->add(op::kClearEngagedCompletions, {Arg::date(), Arg::date()},
                bind([](ClientConnection& self, const IpcMessage& call, IpcReplier) {
                  if (auto cache = self.assembly_->engagedCompletionCache) {
                    cache->clearCompletionsFromDate(*call.arg(0).getDate(), *call.arg(1).getDate());
                  }
                }));
  exported->add(op::kAddCompletion, {Arg::string(), Arg::string()},
                bind([](ClientConnection& self, const IpcMessage& call, IpcReplier) {
                  if (auto cache = self.assembly_->engagedCompletionCache) {
                    cache->addCompletion(*call.arg(0).getString(), *call.arg(1).getString());
                  }
                }));
  exported->add(op::kUpdateParameters, std::vector<Arg>(7, Arg::number()),
                bind([](ClientConnection& self, const IpcMessage& call, IpcReplier) {
                  auto cache = self.assembly_->engagedCompletionCache;
                  if (!cache) return;
                  auto d = [&](size_t i) { return *call.arg(i).getDouble(); };
                  cache->updateParameters(d(0), d(1), d(2), d(3), d(4), d(5), d(6));
                }));
  exported->add(op::kGetImageMap, {}, bind([](ClientConnection& self, const IpcMessage&, IpcReplier reply) {
                  self.getImageMap(std::move(reply));
                }));
  return exported;
}

std::shared_ptr<ClientState> ClientConnection::state() const {
  std::lock_guard lock(mu_);
  return state_;
}

std::optional<std::string> ClientConnection::userAgent() const {
  std::lock_guard lock(mu_);
  return userAgent_;
}

void ClientConnection::_ensureState() {
  std::optional<VORSessionConfiguration> configuration;
  {
    std::lock_guard lock(mu_);
    configuration = configuration_;
  }
  if (!configuration) {
    repeatedLines_.log(sessionLog(), LogLevel::Fault, "configuration must not be nil");
    return;
  }
  const std::string& identifier = configuration->identifier;
  std::optional<std::string> agent;
  if (!configuration->userAgent.empty() && assembly_->platform.device) {
    agent = createUserAgentString(configuration->userAgent, *assembly_->platform.device);
  }
  // An empty identifier goes on: the state manager refuses it with its own fault line.
  if (!agent) {
    repeatedLines_.log(sessionLog(), LogLevel::Fault, "configuration requires identifier and agent");
    return;
  }
  std::shared_ptr<ClientState> bound;
  {
    std::lock_guard lock(mu_);
    userAgent_ = agent;
    bound = state_;
  }
  if (bound) {
    if (bound->identifier() != identifier) {
      repeatedLines_.log(sessionLog(), LogLevel::Fault, "session identifier must match");
    }
    return;
  }
  auto state = clientStateManager_ ? clientStateManager_->stateForClientIdentifier(identifier) : nullptr;
  if (!state) return;
  state->setConfiguration(*configuration);
  state->setUserAgent(agent);
  std::lock_guard lock(mu_);
  if (!state_) state_ = std::move(state);
}

void ClientConnection::configure(VORSessionConfiguration configuration, IpcReplier reply) {
  sessionLog().notice("client configuration {}", Private(configuration.toRecord().describe()));
  {
    std::lock_guard lock(mu_);
    configuration_ = configuration;
  }
  _ensureState();
  auto bound = state();
  if (!bound) {
    _reportErrorAsVorlendFeedback(VORError::make(500, "invalid configuration"));
    sessionLog().fault("invalid configuration, closing connection");
    connection_->invalidate();
    return;
  }
  // The connection listens for bag changes before it asks for the bag: a bag installed at any moment
  // after this point reaches the client, by this answer or by the change that follows it.
  _observeBagChanges();
  std::weak_ptr<ClientConnection> weak = weak_from_this();
  {
    // Held from reading the bag to sending it, so that no change is numbered between the two.
    std::lock_guard sending(bagSendMu_);
    // The state never waits for a bag: without one installed it answers at once with the time-out.
    bound->bag(userAgent().value_or(""), [weak](std::optional<VORBag> bag, std::optional<VORError> error) {
      auto self = weak.lock();
      if (!self) return;
      if (bag && !bag->feedbackEnabled()) {
        feedbackLog().info("feedback collection disabled in bag for user agent {}",
                           self->userAgent().value_or(""));
      }
      bagLog().info("sending bag with version: {} to client: {} error: {}",
                    bag ? bag->version().value_or("(null)") : "(null)", self->state()->identifier(),
                    error ? error->describe() : "(null)");
      {
        std::lock_guard again(self->bagSendMu_);
        self->_sendBagInOrder(++self->bagSendsNumbered_, bag, error);
      }
      // A failed bag still leaves the client subscribed to the next one and recorded as a known client.
      if (self->clientStateManager_) self->clientStateManager_->saveState();
    });
  }
  // A known client survives a crash from the moment it is told it is configured.
  if (clientStateManager_) clientStateManager_->saveStateNow();
  auto endpoint = clientStateManager_ ? clientStateManager_->endpoint() : std::nullopt;
  if (reply) reply(Value::Array{endpoint ? endpoint->toValue() : Value()});
}

void ClientConnection::_observeBagChanges() {
  std::lock_guard lock(mu_);
  if (bagObserver_ || !assembly_->notificationCenter) return;
  bagObserver_ = assembly_->notificationCenter->addObserver<ClientConnection>(
      kVORBagChangeNotification, nullptr, shared_from_this(),
      [](ClientConnection& c, const Notification& n) { c.bagChangeNotification(n); });
}

void ClientConnection::_sendBagInOrder(uint64_t number, const std::optional<VORBag>& bag,
                                       const std::optional<VORError>& error) {
  // A bag numbered before one already sent is older than what the client has: it is dropped.
  if (number <= bagSendsDone_) return;
  bagSendsDone_ = number;
  connection_->send(op::kBagDidLoad, Value::Array{optionalRecord(bag), optionalRecord(error)});
  if (bag) _setEngagedCompletionCacheValues(*bag);
}

void ClientConnection::bagChangeNotification(const Notification& notification) {
  bagLog().info("bag change notification: {}", notification.userInfo.describe());
  const Value* record = notification.userInfo.find("bag");
  if (!record) return;
  auto bag = VORBag::fromRecord(*record);
  if (!bag) return;
  // Numbered here, in the order the bags were installed, and sent from the background queue; the number
  // keeps a late sender from delivering an older bag after a newer one.
  std::lock_guard numbering(bagSendMu_);
  const uint64_t number = ++bagSendsNumbered_;
  std::weak_ptr<ClientConnection> weak = weak_from_this();
  bagQueue_->async([weak, number, bag = std::move(*bag)] {
    auto self = weak.lock();
    if (!self) return;
    std::lock_guard sending(self->bagSendMu_);
    self->_sendBagInOrder(number, bag, std::nullopt);
  });
}

void ClientConnection::_setEngagedCompletionCacheValues(const VORBag& bag) {
  auto cache = assembly_->engagedCompletionCache;
  if (!cache) return;
  cache->setEnabled(bag.smartHistoryEnabled());
  if (auto timeout = bag.smartHistoryTimeout()) cache->setSearchTimeout(timeout);
  if (auto rows = bag.smartHistoryMaxRows()) cache->setMaxRowCount(rows);
  if (bag.smartHistoryEnabled()) {
    cache->updateParameters(bag.voyantLast1hour(), bag.voyantLast1day(), bag.voyantLast1week(),
                            bag.voyantLast1month(), bag.voyantAll(), bag.voyantMostRecent(),
                            bag.minThresholdToSend());
  }
}

void ClientConnection::forwardResourceNotification(const Notification& notification, const char* op) {
  const Value* identifier = notification.userInfo.find("identifier");
  if (!identifier || !identifier->getString()) return;
  std::weak_ptr<ClientConnection> weak = weak_from_this();
  notifyQueue_->async([weak, op, id = *identifier->getString()] {
    if (auto self = weak.lock()) self->connection_->send(op, Value::Array{Value(id)});
  });
}

void ClientConnection::bag(IpcReplier reply) {
  _ensureState();
  auto bound = state();
  if (!bound) return;
  bound->bag(userAgent().value_or(""), [reply](std::optional<VORBag> bag, std::optional<VORError> error) {
    if (reply) reply(Value::Array{optionalRecord(bag), optionalRecord(error)});
  });
}

void ClientConnection::refreshBag(IpcReplier reply) {
  _ensureState();
  if (!state()) return;
  const auto& controller = assembly_->bagController;
  if (!controller) {
    if (reply) reply(Value::Array{Value(), VORError::make(500, "no bag controller").toRecord()});
    return;
  }
  if (refreshPending_.exchange(true)) {
    if (reply) reply(Value::Array{Value(), VORError::make(2, "bag refresh already waiting").toRecord()});
    return;
  }
  std::weak_ptr<ClientConnection> weak = weak_from_this();
  controller->refreshBag(
      [weak, reply](const std::optional<VORBag>& bag, const std::optional<VORError>& error) {
        auto self = weak.lock();
        if (!self) return;
        self->refreshPending_.store(false);
        if (!reply) return;
        std::optional<VORBag> view;
        if (bag) view = VORBag(bag->rawBag(), self->userAgent().value_or(""));
        reply(Value::Array{optionalRecord(view), optionalRecord(error)});
      });
}

void ClientConnection::request(std::shared_ptr<VORRequest> request, IpcReplier reply) {
  _ensureState();
  auto bound = state();
  if (!bound) return;
  const auto& device = assembly_->platform.device;
  if (!request->keyboardInputMode && device) {
    request->keyboardInputMode = device->keyboardInputMode();
    VorlenDefaultLog().debug("keyboardInputMode property not set, using {}", *request->keyboardInputMode);
  }
  if (request->scale == 0.0 && device) {
    request->scale = device->screenScale();
    VorlenDefaultLog().debug("request scale property not set, using {:f}", request->scale);
  }
  auto answer = [reply](uint64_t queryId, std::optional<VORReply> r, std::optional<VORError> e) {
    if (reply) reply(Value::Array{Value(queryId), optionalRecord(r), optionalRecord(e)});
  };
  // The traced kinds emit their start event now and their end event with the answer.
  auto traced = [&answer](uint32_t start, uint32_t end) {
    VorlenTraceEvent(start);
    return [answer, end](uint64_t queryId, std::optional<VORReply> r, std::optional<VORError> e) {
      VorlenTraceEvent(end);
      answer(queryId, std::move(r), std::move(e));
    };
  };
  // In this order; the first match wins.
  switch (request->kind()) {
    case VORRequestKind::Search:
      search(std::static_pointer_cast<const VORSearchRequest>(request), std::move(reply));
      break;
    case VORRequestKind::MoreResults:
      bound->moreResults(std::static_pointer_cast<const VORMoreResultsRequest>(request), answer);
      break;
    case VORRequestKind::Card:
      bound->card(std::static_pointer_cast<const VORCardRequest>(request),
                  traced(kTraceCardStart, kTraceCardEnd));
      break;
    case VORRequestKind::ZeroKeyword:
      bound->zeroKeyword(std::static_pointer_cast<const VORZeroKeywordRequest>(request),
                         traced(kTraceZeroKeywordStart, kTraceZeroKeywordEnd));
      break;
    case VORRequestKind::Lookup:
      bound->lookup(std::static_pointer_cast<const VORLookupRequest>(request),
                    traced(kTraceLookupStart, kTraceLookupEnd));
      break;
    case VORRequestKind::FlightLookup:
      bound->flightLookup(std::static_pointer_cast<const VORFlightLookupRequest>(request), answer);
      break;
    case VORRequestKind::FlightSearch:
      bound->flightSearch(std::static_pointer_cast<const VORFlightSearchRequest>(request), answer);
      break;
  }
}

void ClientConnection::search(std::shared_ptr<const VORSearchRequest> request, IpcReplier reply) {
  const uint64_t queryId = request->queryId;
  auto empty = [reply, queryId] {
    if (reply) reply(Value::Array{Value(queryId), Value(), Value()});
  };
  uint64_t current = currentQueryId_.load();
  // A search that is not newer than one already accepted, or that lost the race to a newer one, is
  // answered at once without a result.
  if (queryId <= current || !currentQueryId_.compare_exchange_strong(current, queryId)) {
    empty();
    return;
  }
  VorlenTraceEvent(kTraceSearchStart);
  std::weak_ptr<ClientConnection> weak = weak_from_this();
  state()->search(request, [weak, reply, empty, queryId](uint64_t id, std::optional<VORReply> r,
                                                         std::optional<VORError> e) {
    VorlenTraceEvent(kTraceSearchEnd);
    auto self = weak.lock();
    if (self && self->currentQueryId_.load() > queryId) {
      empty();  // overtaken while in flight
      return;
    }
    if (reply) reply(Value::Array{Value(id), optionalRecord(r), optionalRecord(e)});
  });
}

uint64_t ClientConnection::clientQueryIdForFeedback(const QXFeedback& feedback) {
  std::optional<uint64_t> id;
  const std::string& cls = feedback.className();
  // Later matches overwrite earlier ones, as the classes may be related.
  if (feedback.isKindOf("QXStartSearchFeedback")) id = feedback.uint("queryId");
  if (feedback.isKindOf("QXRankingFeedback")) {
    if (auto v = firstSectionQueryId(feedback.records<QXResultSection>("sections"))) id = v;
  }
  if (feedback.isKindOf("QXResultEngagementFeedback")) {
    if (auto result = feedback.record<QXSearchResult>("result")) id = result->queryId;
  }
  if (cls == "QXVisibleResultsFeedback" || cls == "QXResultsReceivedAfterTimeoutFeedback") {
    if (auto v = firstResultQueryId(feedback.records<QXSearchResult>("results"))) id = v;
  }
  if (feedback.isKindOf("QXLateSectionsAppendedFeedback")) {
    if (auto v = firstSectionQueryId(feedback.records<QXResultSection>("sections"))) id = v;
  }
  if (feedback.isKindOf("QXSectionEngagementFeedback") ||
      feedback.isKindOf("QXVisibleSectionHeaderFeedback")) {
    if (auto section = feedback.record<QXResultSection>("section")) {
      if (auto v = firstResultQueryId(section->results)) id = v;
    }
  }
  return id.value_or(0);
}

void ClientConnection::reportEvent(const QXFeedback& feedback, uint64_t queryId) {
  VorlenTraceEvent(kTraceFeedbackStart);
  _reportEvent(feedback, queryId);
  VorlenTraceEvent(kTraceFeedbackEnd);
}

void ClientConnection::_reportEvent(const QXFeedback& feedback, uint64_t queryId) {
  auto bound = state();
  if (!bound) {
    _reportErrorAsFeedbackSession("client state nil");
    feedbackLog().error("state must not be nil");
    return;
  }
  if (feedback.className() == "QXSearchViewAppearFeedback" &&
      !feedback.boolean("isOnLockScreen").value_or(false) &&
      warmsConnection(feedback.uint("viewAppearEvent").value_or(0))) {
    bound->warm();
  }
  auto manager = bound->sessionManager();
  if (!manager) {
    _reportErrorAsFeedbackSession("session manager nil");
    feedbackLog().error("session manager nil");
    return;
  }
  const uint64_t clientQueryId = clientQueryIdForFeedback(feedback);
  const std::string shortName = bound->clientShortName();
  if (feedback.isKindOf("QXResultEngagementFeedback")) _resultEngagementExtras(*bound, feedback);
  if (feedback.isKindOf("QXSuggestionEngagementFeedback") && !shortName.empty()) {
    VorlenDiagnosticDataReporter::addValue(1, createTallydKey(shortName, "querysuggestion.engagements"));
  }
  VorlenFeedback envelope(feedback, static_cast<int64_t>(queryId), std::nullopt,
                          bound->userAgent().value_or(""), clientQueryId);
  // Until the event is in its session file, it counts against what this client may send next.
  envelope.untilStored = connection_->holdIncomingBacklog();
  manager->addVorlenFeedback(std::move(envelope));
}

void ClientConnection::_resultEngagementExtras(const ClientState& state, const QXFeedback& feedback) {
  auto result = feedback.record<QXSearchResult>("result");
  if (!result) return;
  const std::string shortName = state.clientShortName();
  if (!shortName.empty()) {
    if (result->isTopHit())
      VorlenDiagnosticDataReporter::addValue(1, createTallydKey(shortName, "tophit.engagements"));
    if (result->type == 1)
      VorlenDiagnosticDataReporter::addValue(1, createTallydKey(shortName, "vorlen.engagements"));
  }
  const bool voyant = shortName == "voyant";
  const bool norvanta = shortName == "norvanta";
  if ((!voyant && !norvanta) || result->completedQuery.value_or("").empty()) return;

  if (result->userInput && result->completedQuery) {
    if (auto donor = assembly_->platform.interactionDonor) {
      std::string domain = shortName;
      domain[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(domain[0])));
      donor->donate(domain, "Engagement",
                    {{"input", *result->userInput}, {"query", *result->completedQuery}});
    }
  } else {
    feedbackLog().error("invalid input for intent creation, inputString = {}, queryString = {}",
                        Private(result->userInput.value_or("(null)")),
                        Private(result->completedQuery.value_or("(null)")));
  }
  auto cache = assembly_->engagedCompletionCache;
  if (!cache) return;
  if (voyant) {
    if (result->type >= 9 && result->type <= 14) {
      cache->addCompletion(result->title, result->userInput.value_or(""), 2, 1);
    } else if (result->sectionBundleIdentifier.starts_with("com.velmo.vorlen")) {
      cache->addCompletion(*result->completedQuery, result->userInput.value_or(""), 1, 1);
    }
  } else if (result->type == 17) {
    cache->addCompletion(result->title, result->userInput.value_or(""), 3, 2);
  }
}

void ClientConnection::_reportErrorAsVorlendFeedback(const VORError& error) {
  ClientSessionManager::reportErrorAsVorlendFeedback(error, *assembly_);
}

void ClientConnection::_reportErrorAsFeedbackSession(const std::string& reason) {
  // With no session manager to take it, the error is a finished session of its own.
  ClientSession::createFeedbackSessionFromError(VORError::make(500, reason), *assembly_)->sessionComplete();
}

void ClientConnection::feedback(IpcReplier reply) {
  _ensureState();
  auto bound = state();
  if (!bound || !reply) return;
  auto manager = bound->sessionManager();
  if (!manager) return;
  reply(Value::Array{Value(manager->currentSessionFeedbacksWithRelativeTimestamp()), Value()});
}

void ClientConnection::listenToFlusher(IpcReplier reply) {
  _ensureState();
  const auto& flusher = assembly_->flusherIPCListener;
  std::optional<IpcEndpoint> endpoint = flusher ? flusher->endpoint() : std::nullopt;
  if (!endpoint) {
    // Like any absent component, a missing flusher endpoint answers nothing.
    connectionLog().debug("listenToFlusher: no flusher endpoint");
    return;
  }
  if (reply) reply(Value::Array{endpoint->toValue()});
}

void ClientConnection::flushSession(std::function<void()> completion) {
  auto bound = state();
  auto manager = bound ? bound->sessionManager() : nullptr;
  if (!manager) {
    if (completion) completion();
    return;
  }
  manager->flushSession(std::move(completion));
}

void ClientConnection::listSessions(IpcReplier reply) {
  _ensureState();
  if (!reply || !clientStateManager_) return;
  reply(Value::Array{Value(clientStateManager_->sessions())});
}

void ClientConnection::fileHandleAndAttributesForResource(const std::string& identifier, IpcReplier reply) {
  _ensureState();
  auto downloads = assembly_->downloadManager;
  if (!downloads) {
    // Like any absent component, a missing download manager answers nothing.
    connectionLog().debug("no download manager for resource {}", identifier);
    return;
  }
  if (!state() || !reply) return;
  // The file travels as a descriptor (SCM_RIGHTS) of the reply; the client owns its copy.
  Value::Dict attributes;
  VORError error;
  UniqueFd fd = downloads->fileHandleForResource(identifier, &attributes, &error);
  IpcMessage message = IpcMessage::reply();
  if (fd) {
    Value handle = message.attach(std::move(fd));
    message.args() = Value::Array{std::move(handle), Value(std::move(attributes)), Value()};
  } else {
    message.args() = Value::Array{Value(), Value(), error.toRecord()};
  }
  reply.send(std::move(message));
}

void ClientConnection::getImageMap(IpcReplier reply) {
  _ensureState();
  auto bound = state();
  if (!bound || !reply) return;
  auto held = bound->bag();
  reply(Value::Array{Value(held ? held->resources() : Value::Dict{})});
}

void ClientConnection::flushSessionInvalidation(std::function<void(bool flushed)> callback) {
  auto bound = state();
  auto manager = bound ? bound->sessionManager() : nullptr;
  if (!manager) {
    if (callback) callback(false);
    return;
  }
  manager->flushSessionInvalidationWithAgent(bound->userAgent().value_or(""), std::move(callback));
}

}  // namespace vorlen
