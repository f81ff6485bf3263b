#include "ipc/IpcMemoryBudget.h"

namespace vorlen {

const std::shared_ptr<IpcMemoryBudget>& IpcMemoryBudget::shared() {
  static const auto budget =
      std::make_shared<IpcMemoryBudget>(kDefaultMaxIncomingBytes, kDefaultMaxOutgoingBytes);
  return budget;
}

void IpcMemoryBudget::removeIncoming(size_t bytes) {
  incoming_ -= bytes;
  if (incomingFull()) return;
  std::vector<std::function<void()>> wake;
  {
    std::lock_guard lock(mu_);
    wake.swap(parked_);
  }
  for (auto& w : wake) w();
}

void IpcMemoryBudget::waitForIncomingRoom(std::function<void()> wake) {
  {
    std::lock_guard lock(mu_);
    // Checked under the lock: a removeIncoming() that made room either ran before (we see the room) or
    // swaps the list after we add to it.
    if (incomingFull()) {
      parked_.push_back(std::move(wake));
      return;
    }
  }
  wake();
}

bool IpcMemoryBudget::tryAddOutgoing(size_t bytes) {
  size_t now = outgoing_.load();
  do {
    if (now + bytes > maxOutgoing_) return false;
  } while (!outgoing_.compare_exchange_weak(now, now + bytes));
  return true;
}

}  // namespace vorlen
