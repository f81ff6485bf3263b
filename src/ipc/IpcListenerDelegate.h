// IpcListenerDelegate: decides about each connection an IpcListener accepts.
//
// Threading: called on the listener's queue, one connection at a time; it may block briefly (for example
// to wait for a free slot), which holds up only the connections of that listener.
#pragma once

#include <memory>

namespace vorlen {

class IpcConnection;
class IpcListener;

class IpcListenerDelegate {
 public:
  virtual ~IpcListenerDelegate() = default;

  // The connection is still suspended. To keep it, set its exported interface and handlers and return
  // true; the listener then resumes it. Returning false closes it (its invalidation handler, if one was
  // set here, still runs).
  virtual bool shouldAcceptNewConnection(IpcListener& listener,
                                         const std::shared_ptr<IpcConnection>& connection) = 0;
};

}  // namespace vorlen
