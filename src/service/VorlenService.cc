#include "service/VorlenService.h"

#include <malloc.h>

#include <cstring>

#include "base/Counters.h"
#include "base/Log.h"
#include "feedback/ClientSession.h"
#include "feedback/ClientSessionManager.h"
#include "ipc/IpcConnection.h"
#include "network/HttpSessions.h"
#include "network/VorlenUserGUIDController.h"
#include "platform/Assembly.h"
#include "service/ClientState.h"
#include "storage/VorlenFlusherIPC.h"

namespace vorlen {

namespace {

const Logger& connectionLog() {
  return VorlenLogForCategory(VorlenLogCategoryConnection);
}
const Logger& sessionLog() {
  return VorlenLogForCategory(VorlenLogCategorySession);
}

std::string clientIdForPeer(const IpcPeer& peer) {
  if (peer.executableName) return *peer.executableName;
  connectionLog().error("error getting path for pid [{}] {}", peer.pid, std::strerror(peer.executableErrno));
  return "(null)";
}

}  // namespace

std::shared_ptr<VorlenService> VorlenService::create(std::shared_ptr<Assembly> assembly,
                                                     ClientConnectionOptions connectionOptions) {
  auto service =
      std::shared_ptr<VorlenService>(new VorlenService(std::move(assembly), std::move(connectionOptions)));
  service->_createFlusherIPC();
  return service;
}

void VorlenService::_createFlusherIPC() {
  if (assembly_->flusherIPCListener) return;
  // The endpoint's dump reaches the clients through the live connections; once the service is gone the
  // list is empty.
  std::weak_ptr<VorlenService> weak = weak_from_this();
  assembly_->flusherIPCListener = VorlenFlusherIPC::create(assembly_, [weak] {
    std::vector<FlusherClientConnection> out;
    auto self = weak.lock();
    if (!self) return out;
    for (const auto& connection : self->getClientConnections()) {
      std::weak_ptr<ClientConnection> weakConnection = connection;
      out.push_back(
          {connection->userAgent().value_or("(null)"), [weakConnection](std::function<void()> done) {
             if (auto c = weakConnection.lock()) {
               c->flushSession(std::move(done));
             } else if (done) {
               done();
             }
           }});
    }
    return out;
  });
}

VorlenService::VorlenService(std::shared_ptr<Assembly> assembly, ClientConnectionOptions connectionOptions)
    : assembly_(std::move(assembly)), connectionOptions_(std::move(connectionOptions)) {
  queue_ = Queue::serial("com.velmo.vorlen.serviceQueue", QueuePriority::Default, assembly_->clock());
  // One feedback session for every client unless the preference says otherwise.
  const auto& defaults = assembly_->userDefaults;
  assembly_->sharedSession =
      defaults && defaults->contains("VORSharedSession") ? defaults->boolForKey("VORSharedSession") : true;
  if (!assembly_->guidController) assembly_->guidController = VorlenUserGUIDController::create(*assembly_);
  // The shared manager; with individual sessions each client state makes its own as well.
  if (!assembly_->clientSessionManager) {
    assembly_->clientSessionManager =
        ClientSessionManager::create(assembly_, assembly_->guidController, "vorlen");
  }
  // Components that describe their own work as a session (the bag fetch) open real ones from now on.
  if (!assembly_->makeClientSession) {
    assembly_->makeClientSession = [](const Assembly& a,
                                      VorlenFeedback first) -> std::shared_ptr<ClientSessionProtocol> {
      return ClientSession::create(a, std::move(first));
    };
  }
}

bool VorlenService::shouldAcceptNewConnection(IpcListener&,
                                              const std::shared_ptr<IpcConnection>& connection) {
  const IpcPeer& peer = connection->peer();
  const std::string clientId = clientIdForPeer(peer);
  connectionLog().notice("new connection from {} ({})", clientId, peer.pid);
  connection->setProxyErrorHandler([pid = peer.pid](const std::string& reason) {
    connectionLog().error("(pid:{}) remote proxy error: {}", pid, reason);
  });

  auto client = ClientConnection::create(assembly_, connection, connectionOptions_);

  const pid_t pid = peer.pid;
  queue_->async([this, self = shared_from_this(), client, pid] {
    connections_.push_back(client);
    size_t fromPid = 0;
    for (const auto& c : connections_) {
      if (c->connection()->peer().pid == pid) ++fromPid;
    }
    // Advisory only: the connection is kept all the same.
    if (fromPid >= 2) connectionLog().error("too many connections {} from pid {}", fromPid, pid);
  });

  std::weak_ptr<VorlenService> weak = weak_from_this();
  connection->setInvalidationHandler([weak, client, clientId, pid] {
    connectionLog().notice("connection from {} ({}) invalidated", clientId, pid);
    if (auto state = client->state()) {
      std::string shortName = state->clientShortName();
      if (!shortName.empty())
        VorlenDiagnosticDataReporter::addValue(1, createTallydKey(shortName, "icpinvalidation"));
    }
    if (auto self = weak.lock()) self->connectionInvalidated(client);
  });
  VorlenDiagnosticDataReporter::addValue(1, "com.velmo.vorlend.clientconnection");
  return true;
}

void VorlenService::connectionInvalidated(const std::shared_ptr<ClientConnection>& client) {
  std::weak_ptr<VorlenService> weak = weak_from_this();
  queue_->async([weak, client] {
    client->flushSessionInvalidation([weak, client](bool flushed) {
      sessionLog().debug("session {} on invalidation", flushed ? "flushed" : "not flushed");
      auto self = weak.lock();
      if (!self) return;
      self->queue_->async([self, client] {
        std::erase(self->connections_, client);
        if (!self->connections_.empty()) return;
        sessionLog().debug("purging url cache");
        if (self->assembly_->httpSessions) self->assembly_->httpSessions->urlSession()->purgeInMemoryCache();
        // Nobody is connected: hand the memory the clients' work freed back to the system, off this queue.
        Queue::global(QueuePriority::Background)->async([] { ::malloc_trim(0); });
      });
    });
  });
}

std::vector<std::shared_ptr<ClientConnection>> VorlenService::getClientConnections() const {
  std::vector<std::shared_ptr<ClientConnection>> copy;
  queue_->sync([&] { copy = connections_; });
  return copy;
}

}  // namespace vorlen
