// ClientStateManager: owns every ClientState, one per client identifier. States are created on demand and
// kept, so a reconnecting client finds its state again, up to kMaxStates: beyond that the least recently
// asked for state that no connection holds is forgotten (a client identifier is whatever a local process
// says, so the table must not grow with them). With
// the preference "VORPersistSessions" (read once, at creation) the known clients and their user agents
// are kept in the preferences store under "sessions" and their states exist again after a restart.
//
// It also runs the anonymous client-state endpoint (VOREndpointIPC): a client may send a more-results or
// card request together with its configuration there, without a configured connection. At most 10
// endpoint connections are open at once; the eleventh waits up to 100 ms for a slot and is otherwise
// refused.
//
// Threading: every public method is safe from any thread. The identifier table is only touched on
// "com.velmo.vorlend.stateCache": look-ups are synchronous, saves asynchronous.
#pragma once

#include <list>
#include <map>
#include <memory>
#include <semaphore>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/Queue.h"
#include "ipc/IpcEndpoint.h"
#include "ipc/IpcListenerDelegate.h"
#include "model/VORSessionConfiguration.h"

namespace vorlen {

class Assembly;
class ClientState;
class IpcListener;
class IpcMessage;
class IpcReplier;
class IpcExportedInterface;

struct ClientStateManagerOptions {
  // Time an endpoint connection waits for a free slot.
  Duration endpointSlotWait = std::chrono::milliseconds(100);
};

class ClientStateManager : public IpcListenerDelegate,
                           public std::enable_shared_from_this<ClientStateManager> {
 public:
  static constexpr std::ptrdiff_t kMaxEndpointConnections = 10;
  // States kept warm: beyond this many, the least recently asked for lose their in-memory caches.
  static constexpr size_t kWarmStates = 64;
  // States known at once; the least recently asked for one without a connection makes way for a new one.
  static constexpr size_t kMaxStates = 1024;

  // Creates the endpoint listener in the runtime folder and loads the persisted states. An endpoint that
  // cannot be set up is logged; the manager works without it (endpoint() is then empty).
  static std::shared_ptr<ClientStateManager> create(std::shared_ptr<Assembly> assembly,
                                                    ClientStateManagerOptions options = {});
  ~ClientStateManager() override;

  // The state of `identifier`, created when new; null (with a fault line) for an empty identifier.
  std::shared_ptr<ClientState> stateForClientIdentifier(const std::string& identifier);

  // [{"identifier": ..., "agent": ...}] of every state that has a user agent.
  Value::Array sessions();
  // Writes sessions() under "sessions" when persistence is on; asynchronous. Either way the file is
  // rewritten only when the list differs from what it holds.
  void saveState();
  // The same, done before it returns: a configuration is answered only once its client is on disk.
  void saveStateNow();
  void loadState();

  std::optional<IpcEndpoint> endpoint() const;
  const std::shared_ptr<IpcListener>& listener() const { return listener_; }
  bool persistSessions() const { return persistSessions_; }

  bool shouldAcceptNewConnection(IpcListener& listener,
                                 const std::shared_ptr<IpcConnection>& connection) override;

 private:
  ClientStateManager(std::shared_ptr<Assembly> assembly, ClientStateManagerOptions options);
  void start();
  Value::Array sessionsOnQueue() const;
  void writeSessionsOnQueue();
  void serveEndpointRequest(const IpcMessage& call, IpcReplier reply);

  std::shared_ptr<Assembly> assembly_;
  ClientStateManagerOptions options_;
  std::shared_ptr<Queue> stateCacheQueue_;
  std::map<std::string, std::shared_ptr<ClientState>> stateCache_;  // stateCacheQueue_ only
  // Most recently asked for first; stateCacheQueue_ only.
  std::list<ClientState*> recent_;
  std::unordered_map<ClientState*, std::list<ClientState*>::iterator> recentPosition_;
  void _touchOnQueue(ClientState* state);
  // Forgets least recently used states that nobody else holds until at most kMaxStates are known.
  void _evictOnQueue();
  bool persistSessions_ = false;
  std::counting_semaphore<kMaxEndpointConnections> connectSemaphore_{kMaxEndpointConnections};
  std::shared_ptr<IpcListener> listener_;
  std::shared_ptr<const IpcExportedInterface> endpointInterface_;
};

}  // namespace vorlen
