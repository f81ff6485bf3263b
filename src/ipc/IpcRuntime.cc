// Must come first: see IpcAsio.h.
#include "ipc/IpcAsio.h"

#include "ipc/IpcRuntime.h"

#include <pthread.h>

#include <optional>
#include <thread>

namespace vorlen {

struct IpcRuntime::Impl {
  asio::io_context context{1};
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> guard{context.get_executor()};
  std::thread thread;
  std::thread::id threadId;
};

IpcRuntime::IpcRuntime() : impl_(std::make_shared<Impl>()) {
  // The thread holds the Impl: when the last owner of the runtime lets go on the I/O thread itself (a
  // connection released by its own completion handler), the thread is detached and frees the context
  // only after the handler has returned.
  impl_->thread = std::thread([impl = impl_] {
    pthread_setname_np(pthread_self(), "vorlen-ipc");
    impl->context.run();
  });
  impl_->threadId = impl_->thread.get_id();
}

IpcRuntime::~IpcRuntime() {
  impl_->guard.reset();
  impl_->context.stop();
  if (std::this_thread::get_id() == impl_->threadId) {
    impl_->thread.detach();
  } else {
    impl_->thread.join();
  }
}

std::shared_ptr<IpcRuntime> IpcRuntime::create() {
  return std::shared_ptr<IpcRuntime>(new IpcRuntime());
}

std::shared_ptr<IpcRuntime> IpcRuntime::shared() {
  // Never destroyed: connections may be in flight while the process exits.
  static auto* runtime = new std::shared_ptr<IpcRuntime>(create());
  return *runtime;
}

asio::io_context& IpcRuntime::context() {
  return impl_->context;
}

void IpcRuntime::post(std::function<void()> work) {
  asio::post(impl_->context, std::move(work));
}

bool IpcRuntime::isCurrent() const {
  return std::this_thread::get_id() == impl_->threadId;
}

}  // namespace vorlen
