// IpcReplier: the reply callback of one incoming call. Empty (false) when the caller wants no reply.
//
// Copies share one state: the first reply is sent, later ones are dropped with a fault line. A reply to a
// connection that is gone, or invalidated, goes nowhere. A call that is never answered leaves the
// caller's reply handler pending until its connection closes.
//
// Threading: safe from any thread; replies are sent in the order they are made.
#pragma once

#include <cstdint>
#include <memory>

#include "base/Value.h"
#include "ipc/IpcMessage.h"

namespace vorlen {

class IpcConnection;

class IpcReplier {
 public:
  IpcReplier() = default;  // no reply wanted
  IpcReplier(std::weak_ptr<IpcConnection> connection, uint64_t serial);

  explicit operator bool() const { return state_ != nullptr; }

  // Sends {"reply": serial, "args": args}. Returns false when nothing was sent.
  bool operator()(Value::Array args) const;
  // Sends a reply built with IpcMessage::reply() (with descriptors attached); its serial is set here.
  bool send(IpcMessage reply) const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace vorlen
