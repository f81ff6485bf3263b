// WorkerPool: a fixed set of worker threads that run jobs in submission order (one FIFO list).
//
// Queues run their items on a pool; the pool knows nothing of queues. The shared pool, used by every queue
// that names no pool, has max(4, hardware threads) workers and lives for the whole process.
//
// Threading: submit() and size() are safe from any thread, including from a job of the pool itself. The
// destructor runs every job already submitted (and any they submit), then joins the workers; it may run
// on a worker of the pool itself (the last owner was a job), in which case that worker leaves on its own.
#pragma once

#include <functional>
#include <memory>

namespace vorlen {

class WorkerPool {
 public:
  // REQUIRES: workers >= 1
  explicit WorkerPool(unsigned workers);
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  void submit(std::function<void()> job);
  unsigned size() const;
  static std::shared_ptr<WorkerPool> shared();

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;  // shared with the workers so that one of them may outlive the pool object
};

}  // namespace vorlen
