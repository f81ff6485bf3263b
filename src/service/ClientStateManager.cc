#include "service/ClientStateManager.h"

#include "base/Log.h"
#include "ipc/IpcConnection.h"
#include "ipc/IpcExportedInterface.h"
#include "ipc/IpcListener.h"
#include "model/Operations.h"
#include "platform/Assembly.h"
#include "platform/DeviceProperties.h"
#include "service/ClientState.h"

namespace vorlen {

namespace {

const Logger& sessionLog() {
  return VorlenLogForCategory(VorlenLogCategorySession);
}
const Logger& connectionLog() {
  return VorlenLogForCategory(VorlenLogCategoryConnection);
}

constexpr const char* kSessionsKey = "sessions";

}  // namespace

std::shared_ptr<ClientStateManager> ClientStateManager::create(std::shared_ptr<Assembly> assembly,
                                                               ClientStateManagerOptions options) {
  auto manager = std::shared_ptr<ClientStateManager>(new ClientStateManager(std::move(assembly), options));
  manager->start();
  return manager;
}

ClientStateManager::ClientStateManager(std::shared_ptr<Assembly> assembly, ClientStateManagerOptions options)
    : assembly_(std::move(assembly)), options_(options) {
  persistSessions_ = assembly_->userDefaults && assembly_->userDefaults->boolForKey("VORPersistSessions");
  stateCacheQueue_ =
      Queue::serial("com.velmo.vorlend.stateCache", QueuePriority::Default, assembly_->clock());
}

ClientStateManager::~ClientStateManager() {
  if (listener_) listener_->invalidate();
}

void ClientStateManager::start() {
  std::weak_ptr<ClientStateManager> weak = weak_from_this();
  auto exported = std::make_shared<IpcExportedInterface>(op::kEndpointInterface);
  exported->add(op::kEndpointRequest,
                {IpcExportedInterface::Arg::record(),
                 IpcExportedInterface::Arg::record({VORSessionConfiguration::kClassName})},
                [weak](const IpcMessage& call, IpcReplier reply) {
                  if (auto self = weak.lock()) self->serveEndpointRequest(call, std::move(reply));
                });
  endpointInterface_ = exported;

  std::string error;
  listener_ = IpcListener::anonymous(assembly_->fileManager().runtimeDir, {}, &error);
  if (!listener_) {
    connectionLog().error("cannot create the client state endpoint: {}", error);
  } else {
    listener_->setDelegate(weak);
    listener_->resume();
  }
  loadState();
}

std::shared_ptr<ClientState> ClientStateManager::stateForClientIdentifier(const std::string& identifier) {
  if (identifier.empty()) {
    sessionLog().fault("client session identifier cannot be nil or empty");
    return nullptr;
  }
  std::shared_ptr<ClientState> state;
  stateCacheQueue_->sync([&] {
    auto& slot = stateCache_[identifier];
    const bool created = !slot;
    if (created) slot = ClientState::create(identifier, assembly_);
    state = slot;
    _touchOnQueue(state.get());
    if (created) _evictOnQueue();
  });
  sessionLog().info("using client state: {}", identifier);
  return state;
}

void ClientStateManager::_touchOnQueue(ClientState* state) {
  // A state leaves recent_ in the same step as it leaves stateCache_, so the raw pointers stay valid.
  if (auto it = recentPosition_.find(state); it != recentPosition_.end()) recent_.erase(it->second);
  recent_.push_front(state);
  recentPosition_[state] = recent_.begin();
  if (recent_.size() <= kWarmStates) return;
  // The state that just fell out of the warm set gives its caches back.
  (*std::next(recent_.begin(), static_cast<std::ptrdiff_t>(kWarmStates)))->releaseCaches();
}

void ClientStateManager::_evictOnQueue() {
  for (auto it = recent_.end(); stateCache_.size() > kMaxStates && it != recent_.begin();) {
    --it;
    auto found = stateCache_.find((*it)->identifier());
    // Held elsewhere (a connection, a request in flight): still in use, keep it.
    if (found == stateCache_.end() || found->second.use_count() > 1) continue;
    sessionLog().info("forgetting client state {}: more than {} clients known", found->first, kMaxStates);
    recentPosition_.erase(*it);
    it = recent_.erase(it);
    stateCache_.erase(found);
  }
}

Value::Array ClientStateManager::sessionsOnQueue() const {
  stateCacheQueue_->assertCurrent();
  Value::Array out;
  for (const auto& [identifier, state] : stateCache_) {
    auto agent = state->userAgent();
    if (!agent) continue;
    out.push_back(Value::dict({{"identifier", Value(identifier)}, {"agent", Value(*agent)}}));
  }
  return out;
}

Value::Array ClientStateManager::sessions() {
  Value::Array out;
  stateCacheQueue_->sync([&] { out = sessionsOnQueue(); });
  return out;
}

void ClientStateManager::saveState() {
  if (!persistSessions_) return;
  std::weak_ptr<ClientStateManager> weak = weak_from_this();
  stateCacheQueue_->async([weak] {
    if (auto self = weak.lock()) self->writeSessionsOnQueue();
  });
}

void ClientStateManager::saveStateNow() {
  if (!persistSessions_) return;
  stateCacheQueue_->sync([&] { writeSessionsOnQueue(); });
}

void ClientStateManager::writeSessionsOnQueue() {
  stateCacheQueue_->assertCurrent();
  if (!assembly_->userDefaults) return;
  Value sessions(sessionsOnQueue());
  // The file is rewritten (and synced) only when the set of known clients changed.
  if (assembly_->userDefaults->object(kSessionsKey) == sessions) return;
  assembly_->userDefaults->set(kSessionsKey, std::move(sessions));
  assembly_->userDefaults->synchronize();
}

void ClientStateManager::loadState() {
  if (!persistSessions_ || !assembly_->userDefaults) return;
  auto entries = assembly_->userDefaults->arrayForKey(kSessionsKey);
  if (!entries) return;
  stateCacheQueue_->sync([&] {
    for (const Value& entry : *entries) {
      const Value* identifier = entry.find("identifier");
      if (!identifier || !identifier->getString()) continue;  // not a string: absent
      const Value* agent = entry.find("agent");
      auto state = ClientState::create(*identifier->getString(), assembly_);
      if (agent && agent->getString()) state->setUserAgent(*agent->getString());
      auto& slot = stateCache_[*identifier->getString()];  // later entries replace earlier ones
      if (slot) {
        recent_.erase(recentPosition_[slot.get()]);
        recentPosition_.erase(slot.get());
      }
      slot = state;
      // Known from disk but not asked for yet: the first to go when the table is full.
      recent_.push_back(state.get());
      recentPosition_[state.get()] = std::prev(recent_.end());
    }
    _evictOnQueue();
  });
}

std::optional<IpcEndpoint> ClientStateManager::endpoint() const {
  if (!listener_) return std::nullopt;
  return listener_->endpoint();
}

bool ClientStateManager::shouldAcceptNewConnection(IpcListener&,
                                                   const std::shared_ptr<IpcConnection>& connection) {
  connectionLog().debug("new endpoint connection");
  if (!connectSemaphore_.try_acquire_for(options_.endpointSlotWait)) {
    connectionLog().error("endpoint semaphore timeout");
    return false;
  }
  connection->setExportedInterface(endpointInterface_);
  // The slot is this connection's until it ends; the manager lives for the whole process, but a late
  // invalidation after it is gone must not touch it.
  std::weak_ptr<ClientStateManager> weak = weak_from_this();
  connection->setInvalidationHandler([weak] {
    connectionLog().debug("endpoint connection invalidated");
    if (auto self = weak.lock()) self->connectSemaphore_.release();
  });
  return true;
}

void ClientStateManager::serveEndpointRequest(const IpcMessage& call, IpcReplier reply) {
  auto request = VORRequest::fromRecord(call.arg(0));
  auto configuration = VORSessionConfiguration::fromRecord(call.arg(1));
  if (!request || !configuration) return;  // rejected records are logged by the coder; no reply

  auto state = stateForClientIdentifier(configuration->identifier);
  auto answer = [reply](uint64_t queryId, std::optional<VORReply> r, std::optional<VORError> e) {
    if (!reply) return;
    reply(Value::Array{Value(queryId), r ? r->toRecord() : Value(), e ? e->toRecord() : Value()});
  };
  if (!state) {
    answer(request->queryId, std::nullopt,
           VORError::make(500, "invalid configuration " + configuration->toRecord().describe()));
    return;
  }
  if (request->scale == 0.0 && assembly_->platform.device) {
    request->scale = assembly_->platform.device->screenScale();
    VorlenDefaultLog().debug("request scale property not set, using {:f}", request->scale);
  }
  switch (request->kind()) {
    case VORRequestKind::MoreResults:
      state->moreResults(std::static_pointer_cast<const VORMoreResultsRequest>(request), answer);
      break;
    case VORRequestKind::Card:
      state->card(std::static_pointer_cast<const VORCardRequest>(request), answer);
      break;
    default:
      // Only more results and cards are served here; anything else is dropped unanswered.
      break;
  }
}

}  // namespace vorlen
