// eventually: polls a condition until it holds. The 30 s bound only keeps a broken build from hanging; no
// test relies on it or measures time with it. Prefer waiting on an event (WaitCounter, a future) where the
// code under test offers one; poll only state that announces nothing.
#pragma once

#include <chrono>
#include <thread>

namespace vorlen::test {

template <class Pred>
bool eventually(Pred pred) {
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!pred()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace vorlen::test
