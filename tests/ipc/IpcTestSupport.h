// Helpers for the transport tests: a fixture with its own I/O runtime, manual clock and folder; a server
// whose delegate records every connection and how it ended; a raw socket client that can break the
// protocol; condition waits.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

#include "base/Log.h"
#include "base/ManualClock.h"
#include "ipc/IpcConnection.h"
#include "ipc/IpcListener.h"
#include "ipc/IpcRuntime.h"
#include "support/Eventually.h"
#include "support/TempDir.h"

namespace vorlen::test {

inline size_t countLogLines(const CapturingSink& sink, LogLevel level, std::string_view containing) {
  size_t n = 0;
  for (const LogRecord& r : sink.records())
    n += r.level == level && r.message.find(containing) != std::string::npos;
  return n;
}

inline std::vector<uint8_t> frameHeader(uint32_t n) {
  return {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)};
}

// Values handed from some queue to the test thread.
template <class T>
class Inbox {
 public:
  void put(T v) {
    std::lock_guard lock(mu_);
    items_.push_back(std::move(v));
  }
  size_t size() const {
    std::lock_guard lock(mu_);
    return items_.size();
  }
  bool waitFor(size_t n) const {
    return eventually([&] { return size() >= n; });
  }
  std::vector<T> items() const {
    std::lock_guard lock(mu_);
    return items_;
  }

 private:
  mutable std::mutex mu_;
  std::vector<T> items_;
};

// The reply arguments of one call on `c`; nullopt when no reply came within `wait`.
inline std::optional<Value::Array> callAndWait(const std::shared_ptr<IpcConnection>& c, std::string op,
                                               Value::Array args,
                                               std::chrono::milliseconds wait = std::chrono::seconds(20)) {
  auto inbox = std::make_shared<Inbox<Value::Array>>();
  if (!c->call(std::move(op), std::move(args), [inbox](const IpcMessage& m) { inbox->put(m.args()); })) {
    return std::nullopt;
  }
  for (auto end = std::chrono::steady_clock::now() + wait; inbox->size() == 0;) {
    if (std::chrono::steady_clock::now() > end) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return inbox->items()[0];
}

// Sends each of `calls` on `c`, then `barrier`, and waits for the barrier's reply. One connection serves its
// calls in order, so by then every earlier call has been served: the answer is how many of them were
// answered (nullopt when the barrier itself was not). No waiting for silence.
inline std::optional<size_t> answeredBefore(const std::shared_ptr<IpcConnection>& c,
                                            std::vector<std::pair<std::string, Value::Array>> calls,
                                            std::pair<std::string, Value::Array> barrier) {
  auto inbox = std::make_shared<Inbox<Value::Array>>();
  for (auto& [op, args] : calls)
    c->call(std::move(op), std::move(args), [inbox](const IpcMessage& m) { inbox->put(m.args()); });
  if (!callAndWait(c, std::move(barrier.first), std::move(barrier.second))) return std::nullopt;
  return inbox->size();
}

// A socket client that writes whatever bytes it is told to.
class RawClient {
 public:
  explicit RawClient(const std::filesystem::path& path) {
    fd_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un addr{AF_UNIX, {}};
    path.native().copy(addr.sun_path, sizeof(addr.sun_path) - 1);
    connected_ = ::connect(fd_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
  }
  bool connected() const { return connected_; }
  int fd() const { return fd_.get(); }
  void close() { fd_.reset(); }

  bool write(const std::vector<uint8_t>& bytes, const std::vector<int>& fds = {}) {
    iovec iov{const_cast<uint8_t*>(bytes.data()), bytes.size()};
    std::vector<char> control(fds.empty() ? 0 : CMSG_SPACE(sizeof(int) * fds.size()));
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    if (!fds.empty()) {
      msg.msg_control = control.data();
      msg.msg_controllen = control.size();
      cmsghdr* c = CMSG_FIRSTHDR(&msg);
      *c = cmsghdr{CMSG_LEN(sizeof(int) * fds.size()), SOL_SOCKET, SCM_RIGHTS};
      std::memcpy(CMSG_DATA(c), fds.data(), sizeof(int) * fds.size());
    }
    return ::sendmsg(fd_.get(), &msg, MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  // True once the other side has closed; discards what it reads meanwhile.
  bool waitForClose() {
    char buf[4096];
    for (pollfd p{fd_.get(), POLLIN, 0}; ::poll(&p, 1, 30000) > 0;) {
      ssize_t n = ::recv(fd_.get(), buf, sizeof(buf), 0);
      if (n == 0 || (n < 0 && errno == ECONNRESET)) return true;
      if (n < 0) return false;
    }
    return false;
  }

 private:
  UniqueFd fd_;
  bool connected_ = false;
};

// A listener whose delegate keeps every connection (unless refuseAll), gives it `makeInterface(connection)`
// and records how it ended.
class TestServer : public IpcListenerDelegate, public std::enable_shared_from_this<TestServer> {
 public:
  using InterfaceFactory =
      std::function<std::shared_ptr<IpcExportedInterface>(const std::shared_ptr<IpcConnection>&)>;

  static std::shared_ptr<TestServer> serve(std::shared_ptr<IpcListener> listener,
                                           InterfaceFactory makeInterface) {
    if (!listener) return nullptr;
    auto server = std::shared_ptr<TestServer>(new TestServer());
    server->makeInterface_ = std::move(makeInterface);
    server->listener = std::move(listener);
    server->listener->setDelegate(server);
    server->listener->resume();
    return server;
  }

  bool shouldAcceptNewConnection(IpcListener&, const std::shared_ptr<IpcConnection>& c) override {
    if (refuseAll) return false;
    c->setExportedInterface(makeInterface_(c));
    std::weak_ptr<TestServer> weak = weak_from_this();
    std::weak_ptr<IpcConnection> conn = c;
    c->setInterruptionHandler([weak, key = c.get()] {
      if (auto s = weak.lock()) s->note(key, [](Ending& e) { ++e.interruptions; });
    });
    c->setInvalidationHandler([weak, conn, key = c.get()] {
      auto s = weak.lock();
      auto closed = conn.lock();
      if (s && closed) s->note(key, [&](Ending& e) { ++e.invalidations, e.reason = closed->closeReason(); });
    });
    std::lock_guard lock(mu_);
    accepted_.push_back(c);
    return true;
  }

  std::shared_ptr<IpcConnection> waitAccepted(size_t i) const {
    EXPECT_TRUE(eventually([&] { return acceptedCount() > i; }));
    std::lock_guard lock(mu_);
    return i < accepted_.size() ? accepted_[i] : nullptr;
  }
  size_t acceptedCount() const {
    std::lock_guard lock(mu_);
    return accepted_.size();
  }
  int invalidations(const std::shared_ptr<IpcConnection>& c) const { return ending(c).invalidations; }
  int interruptions(const std::shared_ptr<IpcConnection>& c) const { return ending(c).interruptions; }
  // Waits until `c` has ended and returns why.
  std::optional<IpcConnection::CloseReason> waitClosed(const std::shared_ptr<IpcConnection>& c) const {
    if (!eventually([&] { return invalidations(c) > 0; })) return std::nullopt;
    return ending(c).reason;
  }

  void stop() {
    listener->invalidate();
    std::lock_guard lock(mu_);
    for (auto& c : accepted_) c->invalidate();
    accepted_.clear();
  }

  std::shared_ptr<IpcListener> listener;
  std::atomic<bool> refuseAll{false};

 private:
  struct Ending {
    int invalidations = 0;
    int interruptions = 0;
    IpcConnection::CloseReason reason = IpcConnection::CloseReason::Open;
  };
  TestServer() = default;
  template <class F>
  void note(IpcConnection* key, F f) {
    std::lock_guard lock(mu_);
    f(endings_[key]);
  }
  Ending ending(const std::shared_ptr<IpcConnection>& c) const {
    std::lock_guard lock(mu_);
    auto it = endings_.find(c.get());
    return it == endings_.end() ? Ending{} : it->second;
  }

  InterfaceFactory makeInterface_;
  mutable std::mutex mu_;
  std::vector<std::shared_ptr<IpcConnection>> accepted_;
  std::map<IpcConnection*, Ending> endings_;
};

// What the standard test interface saw.
struct Recorded {
  struct Call {
    uint64_t value;
    bool onConnectionQueue;
    int hooksBefore;  // invocation hooks run before this call was served
  };
  Inbox<Call> calls;
  Inbox<size_t> descriptorCounts;
  std::atomic<int> ignored{0};
  std::atomic<int> hooks{0};
};

// The fixture's servers export this interface:
//   echo:reply: (any)                    replies with the argument
//   record: (unsigned)                   records the value
//   ignore:reply: ()                     never replies
//   readFd:reply: (file handle)          replies with everything read from the descriptor
//   openFile:reply: (string)             replies with a file handle of that file
//   flood: (unsigned n, unsigned size)   sends the caller up to n "blob:" calls of `size` bytes
//   count: ()                            records how many descriptors came with the call
//   twice:reply: ()                      replies twice
class IpcFixture : public ::testing::Test {
 protected:
  void TearDown() override {
    for (auto& s : servers) s->stop();
    servers.clear();
    for (auto& c : clients) c->invalidate();
    clients.clear();
    // Everything that used the runtime lets go of it once its sockets are closed: nothing leaks.
    EXPECT_TRUE(eventually([&] { return runtime.use_count() == 1; })) << runtime.use_count();
  }

  IpcConnectionOptions connectionOptions() const {
    IpcConnectionOptions o;
    o.runtime = runtime;
    o.clock = clock;
    o.stallTimeout = seconds(5);
    return o;
  }
  IpcListenerOptions listenerOptions() const {
    IpcListenerOptions o;
    o.connection = connectionOptions();
    return o;
  }
  TestServer::InterfaceFactory factory() {
    return [rec = recorded](const std::shared_ptr<IpcConnection>& c) { return standardInterface(c, rec); };
  }

  std::shared_ptr<TestServer> startServer(IpcListenerOptions options) {
    std::string error;
    auto server =
        TestServer::serve(IpcListener::anonymous(dir.path(), std::move(options), &error), factory());
    EXPECT_TRUE(server) << error;
    if (server) servers.push_back(server);
    return server;
  }
  std::shared_ptr<TestServer> startServer() { return startServer(listenerOptions()); }

  // A resumed client; its invalidations are counted in clientInvalidations[i].
  std::shared_ptr<IpcConnection> connectClient(const std::filesystem::path& path) {
    std::string error;
    auto c = IpcConnection::connect(path, connectionOptions(), &error);
    EXPECT_TRUE(c) << error;
    if (!c) return nullptr;
    auto counter = std::make_shared<std::atomic<int>>(0);
    clientInvalidations.push_back(counter);
    c->setInvalidationHandler([counter] { ++*counter; });
    c->resume();
    clients.push_back(c);
    return c;
  }
  std::shared_ptr<IpcConnection> connectClient(const std::shared_ptr<TestServer>& s) {
    return connectClient(s->listener->path());
  }

  // Round trip of echo:reply:; nullopt when no reply came.
  std::optional<Value> echo(const std::shared_ptr<IpcConnection>& c, Value v) {
    auto inbox = std::make_shared<Inbox<Value>>();
    if (!c->call("echo:reply:", {std::move(v)}, [inbox](const IpcMessage& m) { inbox->put(m.arg(0)); }) ||
        !inbox->waitFor(1)) {
      return std::nullopt;
    }
    return inbox->items()[0];
  }

  // Advances the manual clock past the stall timeout until `c` has closed on the server.
  std::optional<IpcConnection::CloseReason> advanceUntilClosed(const std::shared_ptr<TestServer>& s,
                                                               const std::shared_ptr<IpcConnection>& c) {
    eventually([&] {
      clock->advance(seconds(6));
      return s->invalidations(c) > 0;
    });
    return s->waitClosed(c);
  }

  static std::shared_ptr<IpcExportedInterface> standardInterface(const std::shared_ptr<IpcConnection>& c,
                                                                 std::shared_ptr<Recorded> rec) {
    using Arg = IpcExportedInterface::Arg;
    std::weak_ptr<IpcConnection> weak = c;
    c->setInvocationHook([rec](const IpcMessage&) { ++rec->hooks; });
    auto iface = std::make_shared<IpcExportedInterface>("TestIPC");
    iface->add("echo:reply:", {Arg::any()}, [](const IpcMessage& m, IpcReplier reply) {
      if (reply) reply({m.arg(0)});
    });
    iface->add("record:", {Arg::unsignedInteger()}, [rec, weak](const IpcMessage& m, IpcReplier) {
      auto conn = weak.lock();
      rec->calls.put({*m.arg(0).getUInt(), conn && conn->queue()->isCurrent(), rec->hooks.load()});
    });
    iface->add("ignore:reply:", {}, [rec](const IpcMessage&, IpcReplier) { ++rec->ignored; });
    iface->add("readFd:reply:", {Arg::fileHandle()}, [](const IpcMessage& m, IpcReplier reply) {
      UniqueFd fd = m.takeFileHandle(m.arg(0));
      Value::Data data;
      char buf[256];
      for (ssize_t n; (n = ::read(fd.get(), buf, sizeof(buf))) > 0;) data.insert(data.end(), buf, buf + n);
      reply({Value(std::move(data))});
    });
    iface->add("openFile:reply:", {Arg::string()}, [](const IpcMessage& m, IpcReplier reply) {
      IpcMessage answer = IpcMessage::reply();
      answer.args().push_back(
          answer.attach(UniqueFd(::open(m.arg(0).getString()->c_str(), O_RDONLY | O_CLOEXEC))));
      reply.send(std::move(answer));
    });
    iface->add("flood:", {Arg::unsignedInteger(), Arg::unsignedInteger()},
               [weak](const IpcMessage& m, IpcReplier) {
                 auto conn = weak.lock();
                 for (uint64_t i = 0; conn && i < *m.arg(0).getUInt(); ++i) {
                   if (!conn->send("blob:", {Value(Value::Data(*m.arg(1).getUInt(), 0x5a))})) break;
                 }
               });
    iface->add("count:", {},
               [rec](const IpcMessage& m, IpcReplier) { rec->descriptorCounts.put(m.descriptorCount()); });
    iface->add("twice:reply:", {}, [](const IpcMessage&, IpcReplier reply) {
      reply({Value("first")});
      reply({Value("second")});
    });
    return iface;
  }

  TempDir dir;
  std::shared_ptr<IpcRuntime> runtime = IpcRuntime::create();
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  std::shared_ptr<Recorded> recorded = std::make_shared<Recorded>();
  std::vector<std::shared_ptr<TestServer>> servers;
  std::vector<std::shared_ptr<IpcConnection>> clients;
  std::vector<std::shared_ptr<std::atomic<int>>> clientInvalidations;
};

}  // namespace vorlen::test
