#include "ipc/IpcReplier.h"

#include <atomic>

#include "base/Log.h"
#include "ipc/IpcConnection.h"

namespace vorlen {

struct IpcReplier::State {
  std::weak_ptr<IpcConnection> connection;
  uint64_t serial;
  std::atomic<bool> used{false};
};

IpcReplier::IpcReplier(std::weak_ptr<IpcConnection> connection, uint64_t serial)
    : state_(std::make_shared<State>()) {
  state_->connection = std::move(connection);
  state_->serial = serial;
}

bool IpcReplier::operator()(Value::Array args) const {
  return send(IpcMessage::reply(std::move(args)));
}

bool IpcReplier::send(IpcMessage reply) const {
  if (!state_) return false;
  if (state_->used.exchange(true)) {
    VorlenLogForCategory(VorlenLogCategoryConnection).fault("reply {} sent twice; dropped", state_->serial);
    return false;
  }
  auto connection = state_->connection.lock();
  if (!connection) return false;
  IpcMessage message = IpcMessage::reply(std::move(reply.args()));
  for (UniqueFd& fd : reply.takeAllDescriptors()) message.attach(std::move(fd));
  message.setSerial(state_->serial);
  return connection->send(std::move(message));
}

}  // namespace vorlen
