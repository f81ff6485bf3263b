// WaitCounter: a count that threads bump and a test thread waits on. The wait has a cap of minutes only
// so that a broken build fails instead of hanging; it is never used to measure time.
//
// Threading: every method is safe from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace vorlen::test {

class WaitCounter {
 public:
  void add(int n = 1) {
    std::lock_guard lock(mu_);
    value_ += n;
    changed_.notify_all();
  }
  int value() const {
    std::lock_guard lock(mu_);
    return value_;
  }
  // True once the count has reached `target`; false only when the cap ran out.
  bool waitFor(int target, std::chrono::seconds cap = std::chrono::seconds(120)) const {
    std::unique_lock lock(mu_);
    return changed_.wait_for(lock, cap, [&] { return value_ >= target; });
  }

 private:
  mutable std::mutex mu_;
  mutable std::condition_variable changed_;
  int value_ = 0;
};

}  // namespace vorlen::test
