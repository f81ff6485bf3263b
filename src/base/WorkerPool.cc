#include "base/WorkerPool.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace vorlen {

struct WorkerPool::Impl {
  std::mutex mu;
  std::condition_variable wake;
  std::deque<std::function<void()>> jobs;
  bool stopping = false;
  std::vector<std::thread> threads;

  static void run(const std::shared_ptr<Impl>& self) {
    std::unique_lock lock(self->mu);
    for (;;) {
      self->wake.wait(lock, [&] { return self->stopping || !self->jobs.empty(); });
      if (self->jobs.empty()) return;  // stopping, and nothing left to finish
      std::function<void()> job = std::move(self->jobs.front());
      self->jobs.pop_front();
      lock.unlock();
      job();
      // The job's captures die here, outside the lock: they may own the last reference to a queue, and
      // through it to this pool.
      job = nullptr;
      lock.lock();
    }
  }
};

WorkerPool::WorkerPool(unsigned workers) : impl_(std::make_shared<Impl>()) {
  workers = std::max(1u, workers);
  impl_->threads.reserve(workers);
  for (unsigned i = 0; i < workers; ++i) impl_->threads.emplace_back([impl = impl_] { Impl::run(impl); });
}

WorkerPool::~WorkerPool() {
  {
    std::lock_guard lock(impl_->mu);
    impl_->stopping = true;
  }
  impl_->wake.notify_all();
  for (std::thread& t : impl_->threads) {
    if (t.get_id() == std::this_thread::get_id()) {
      t.detach();  // the last owner was one of our own jobs; this worker finishes the list and leaves
    } else {
      t.join();
    }
  }
}

void WorkerPool::submit(std::function<void()> job) {
  {
    std::lock_guard lock(impl_->mu);
    impl_->jobs.push_back(std::move(job));
  }
  impl_->wake.notify_one();
}

unsigned WorkerPool::size() const {
  return static_cast<unsigned>(impl_->threads.size());
}

std::shared_ptr<WorkerPool> WorkerPool::shared() {
  // Never destroyed: workers may still be running jobs while static objects are torn down at exit.
  static auto* pool = new std::shared_ptr<WorkerPool>(
      std::make_shared<WorkerPool>(std::max(4u, std::thread::hardware_concurrency())));
  return *pool;
}

}  // namespace vorlen
