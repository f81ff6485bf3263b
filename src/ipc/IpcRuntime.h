// IpcRuntime: the one I/O thread of the IPC transport. It owns an asio::io_context and the thread that runs
// it; every socket of the transport (listeners and connections) waits and reads/writes on it. Work never
// stays on this thread longer than a read or write: decoded messages leave at once for each connection's
// serial queue.
//
// The process uses shared(), started on first use and kept for the whole process. Tests may create()
// their own runtime; it stops and joins its thread when the last owner lets go (connections and listeners
// hold their runtime, so it outlives them).
//
// Threading: post() and isCurrent() are safe from any thread. context() is for the transport's own
// classes, which touch their sockets only on this thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace asio {
class io_context;
}

namespace vorlen {

class IpcRuntime {
 public:
  static std::shared_ptr<IpcRuntime> create();
  // The process-wide runtime.
  static std::shared_ptr<IpcRuntime> shared();

  ~IpcRuntime();
  IpcRuntime(const IpcRuntime&) = delete;
  IpcRuntime& operator=(const IpcRuntime&) = delete;

  asio::io_context& context();
  // Runs `work` on the I/O thread.
  void post(std::function<void()> work);
  // True on the I/O thread of this runtime.
  bool isCurrent() const;

 private:
  IpcRuntime();
  struct Impl;
  std::shared_ptr<Impl> impl_;  // shared with the thread, so that the thread may outlive this object
};

}  // namespace vorlen
