// VorlenService: the delegate of the service socket's listener. It completes the object graph at start-up
// (shared-session switch, user GUID controller, session manager), accepts every client connection, makes one
// ClientConnection for each, and keeps the list of live connections.
//
// Accepting never refuses: a process holding two or more connections at once is logged as an error
// ("too many connections"), and all its connections are kept. When a connection ends its client's
// session is flushed or marked, the connection leaves the list, and when the last one is gone the query
// session's in-memory response cache is purged.
//
// Threading: the listener calls the delegate on its own queue; the list is only touched on
// "com.velmo.vorlen.serviceQueue". getClientConnections() is safe from any thread.
#pragma once

#include <memory>
#include <vector>

#include "base/Queue.h"
#include "ipc/IpcListenerDelegate.h"
#include "service/ClientConnection.h"

namespace vorlen {

class Assembly;

class VorlenService : public IpcListenerDelegate, public std::enable_shared_from_this<VorlenService> {
 public:
  // Fills the Assembly's sharedSession ("VORSharedSession", true when unset), guidController,
  // clientSessionManager (identifier "vorlen"), makeClientSession and flusherIPCListener (the flusher
  // endpoint, whose dump flushes the sessions of the live connections) slots; a slot already filled is
  // kept.
  static std::shared_ptr<VorlenService> create(std::shared_ptr<Assembly> assembly,
                                               ClientConnectionOptions connectionOptions = {});

  bool shouldAcceptNewConnection(IpcListener& listener,
                                 const std::shared_ptr<IpcConnection>& connection) override;

  // A copy of the live connections, taken on the service queue.
  std::vector<std::shared_ptr<ClientConnection>> getClientConnections() const;

  const std::shared_ptr<Queue>& queue() const { return queue_; }

 private:
  VorlenService(std::shared_ptr<Assembly> assembly, ClientConnectionOptions connectionOptions);
  void _createFlusherIPC();
  void connectionInvalidated(const std::shared_ptr<ClientConnection>& connection);

  std::shared_ptr<Assembly> assembly_;
  ClientConnectionOptions connectionOptions_;
  std::shared_ptr<Queue> queue_;
  std::vector<std::shared_ptr<ClientConnection>> connections_;  // queue_ only
};

}  // namespace vorlen
