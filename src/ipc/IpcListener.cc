// Must come first: see IpcAsio.h.
#include "ipc/IpcAsio.h"

#include "ipc/IpcListener.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "base/Log.h"
#include "ipc/IpcConnection.h"
#include "ipc/IpcRuntime.h"

namespace vorlen {

namespace {

const Logger& listenerLog() {
  return VorlenLogForCategory(VorlenLogCategoryConnection);
}

constexpr int kAcceptsPerWakeup = 32;

bool fillAddress(const std::filesystem::path& path, sockaddr_un* addr, std::string* error) {
  const std::string& p = path.native();
  *addr = sockaddr_un{};
  addr->sun_family = AF_UNIX;
  if (p.empty() || p.size() >= sizeof(addr->sun_path)) {
    if (error)
      *error = "socket path is empty or longer than " + std::to_string(sizeof(addr->sun_path) - 1) +
               " bytes: " + p;
    return false;
  }
  std::memcpy(addr->sun_path, p.data(), p.size());
  return true;
}

std::string errnoText(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

// 128 random bits as 32 lower-case hex digits.
std::optional<std::string> randomName() {
  uint8_t bytes[16];
  size_t got = 0;
  while (got < sizeof(bytes)) {
    ssize_t n = ::getrandom(bytes + got, sizeof(bytes) - got, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    got += static_cast<size_t>(n);
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string name;
  for (uint8_t b : bytes) {
    name.push_back(kHex[b >> 4]);
    name.push_back(kHex[b & 0xf]);
  }
  return name;
}

}  // namespace

struct IpcListener::Io {
  explicit Io(asio::io_context& context) : acceptor(context) {}
  asio::local::stream_protocol::acceptor acceptor;
  bool waiting = false;
  bool closed = false;
  bool paused = false;               // accepting waits for the back-off to end
  bool resourceErrorLogged = false;  // until an accept succeeds again
  std::shared_ptr<ScheduledCall> resumeCall;
};

IpcListener::IpcListener(UniqueFd socket, std::filesystem::path path, bool ownsPath, bool activated,
                         IpcListenerOptions options)
    : options_(std::move(options)),
      runtime_(options_.connection.runtime ? options_.connection.runtime : IpcRuntime::shared()),
      queue_(Queue::serial(options_.queueLabel)),
      path_(std::move(path)),
      ownsPath_(ownsPath),
      activated_(activated),
      census_(std::make_shared<Census>()),
      clock_(options_.connection.clock ? options_.connection.clock : Clock::system()),
      io_(std::make_unique<Io>(runtime_->context())) {
  options_.connection.runtime = runtime_;
  struct stat st {};
  if (ownsPath_ && ::stat(path_.c_str(), &st) == 0) {
    fileDevice_ = st.st_dev;
    fileInode_ = st.st_ino;
  }
  asio::error_code ec;
  io_->acceptor.assign(asio::local::stream_protocol(), socket.get(), ec);
  if (ec) {
    listenerLog().error("cannot watch listening socket {}: {}", path_.string(), ec.message());
    io_->closed = true;
    invalidated_ = true;
    return;
  }
  socket.release();
}

IpcListener::~IpcListener() {
  removeSocketFile();
  if (io_->resumeCall) io_->resumeCall->cancel();
}

size_t IpcListener::connectionCount() const {
  std::lock_guard lock(census_->mu);
  return census_->open;
}

UniqueFd IpcListener::bindSocket(const std::filesystem::path& path, std::string* error) {
  sockaddr_un addr;
  if (!fillAddress(path, &addr, error)) return UniqueFd();

  struct stat st {};
  if (::lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      if (error) *error = path.string() + " exists and is not a socket";
      return UniqueFd();
    }
    // A socket file stays behind when its process dies; it is stale unless something still answers on it.
    UniqueFd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!probe) {
      if (error) *error = errnoText("socket");
      return UniqueFd();
    }
    if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == 0) {
      if (error) *error = "another process is listening on " + path.string();
      return UniqueFd();
    }
    if (errno != ECONNREFUSED && errno != ENOENT) {
      if (error) *error = errnoText("probing " + path.string());
      return UniqueFd();
    }
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
      if (error) *error = errnoText("removing stale socket " + path.string());
      return UniqueFd();
    }
    listenerLog().info("removed stale socket {}", path.string());
  } else if (errno != ENOENT) {
    if (error) *error = errnoText("stat " + path.string());
    return UniqueFd();
  }

  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) {
    if (error) *error = errnoText("socket");
    return UniqueFd();
  }
  // The socket file takes the mode of the socket's inode at bind time (less the umask), so it is created
  // 0600 without touching the process-wide umask; chmod afterwards covers a umask that is too loose.
  ::fchmod(fd.get(), 0600);
  if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
    if (error) *error = errnoText("bind " + path.string());
    return UniqueFd();
  }
  if (::chmod(path.c_str(), 0600) != 0 || ::listen(fd.get(), SOMAXCONN) != 0) {
    if (error) *error = errnoText("listen " + path.string());
    ::unlink(path.c_str());
    return UniqueFd();
  }
  return fd;
}

std::shared_ptr<IpcListener> IpcListener::named(const std::filesystem::path& path, IpcListenerOptions options,
                                                std::string* error) {
  if (options.socketActivation) {
    UniqueFd passed = IpcSocketActivation::takeListeningSocket(options.activationDescriptorForTesting);
    if (passed) {
      listenerLog().info("using the socket passed by the service manager for {}", path.string());
      return std::shared_ptr<IpcListener>(
          new IpcListener(std::move(passed), path, false, true, std::move(options)));
    }
  }
  UniqueFd fd = bindSocket(path, error);
  if (!fd) return nullptr;
  listenerLog().info("listening on {}", path.string());
  return std::shared_ptr<IpcListener>(new IpcListener(std::move(fd), path, true, false, std::move(options)));
}

std::shared_ptr<IpcListener> IpcListener::anonymous(const std::filesystem::path& directory,
                                                    IpcListenerOptions options, std::string* error) {
  options.socketActivation = false;
  for (int attempt = 0; attempt < 4; ++attempt) {
    std::optional<std::string> name = randomName();
    if (!name) {
      if (error) *error = errnoText("getrandom");
      return nullptr;
    }
    std::filesystem::path path = directory / *name;
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0) continue;  // 128 random bits do not collide; be safe anyway
    UniqueFd fd = bindSocket(path, error);
    if (!fd) return nullptr;
    listenerLog().debug("anonymous listener on {}", path.string());
    return std::shared_ptr<IpcListener>(
        new IpcListener(std::move(fd), path, true, false, std::move(options)));
  }
  if (error) *error = "no free name in " + directory.string();
  return nullptr;
}

void IpcListener::setDelegate(std::weak_ptr<IpcListenerDelegate> delegate) {
  std::lock_guard lock(mu_);
  delegate_ = std::move(delegate);
}

void IpcListener::resume() {
  if (resumed_.exchange(true)) return;
  runtime_->post([self = shared_from_this()] { self->armAccept(); });
}

void IpcListener::invalidate() {
  if (invalidated_.exchange(true)) return;
  removeSocketFile();
  runtime_->post([self = shared_from_this()] { self->closeOnIo(); });
}

void IpcListener::removeSocketFile() {
  std::lock_guard lock(mu_);
  if (!ownsPath_ || fileRemoved_) return;
  fileRemoved_ = true;
  // Remove the file only while it is still ours: a successor may already have replaced it.
  struct stat st {};
  if (::lstat(path_.c_str(), &st) == 0 && st.st_dev == fileDevice_ && st.st_ino == fileInode_) {
    ::unlink(path_.c_str());
  }
}

void IpcListener::closeOnIo() {
  if (io_->closed) return;
  io_->closed = true;
  if (io_->resumeCall) io_->resumeCall->cancel();
  io_->resumeCall.reset();
  asio::error_code ignored;
  io_->acceptor.close(ignored);
}

void IpcListener::armAccept() {
  if (io_->closed || io_->waiting || io_->paused) return;
  io_->waiting = true;
  io_->acceptor.async_wait(asio::socket_base::wait_read,
                           [self = shared_from_this()](const asio::error_code& ec) {
                             self->io_->waiting = false;
                             if (ec || self->io_->closed) return;
                             self->onAcceptable();
                           });
}

void IpcListener::onAcceptable() {
  int listening = io_->acceptor.native_handle();
  for (int i = 0; i < kAcceptsPerWakeup; ++i) {
    UniqueFd fd(::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!fd) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        // The pending connection stays in the backlog and the socket stays readable: waiting again at once
        // would spin. Try again after the back-off, when descriptors may have been freed.
        pauseAccepting(errno);
        return;
      }
      if (errno != EAGAIN && errno != EWOULDBLOCK) {
        listenerLog().error("accept on {} failed: {}", path_.string(), std::strerror(errno));
      }
      break;
    }
    io_->resourceErrorLogged = false;
    auto connection = IpcConnection::adopt(std::move(fd), options_.connection);
    if (!connection->isValid()) continue;  // adopt logged why
    if (!admit(connection)) continue;      // dropping it closes the socket
    offer(connection);
  }
  armAccept();
}

bool IpcListener::admit(const std::shared_ptr<IpcConnection>& connection) {
  const pid_t pid = connection->peer().pid;
  {
    std::lock_guard lock(census_->mu);
    if (census_->open >= options_.maxConnections) {
      listenerLog().error("refusing connection on {}: {} connections are open, the limit", path_.string(),
                          options_.maxConnections);
      return false;
    }
    Census::PerProcess& mine = census_->byPid[pid];
    if (mine.open >= options_.maxConnectionsPerProcess) {
      if (!std::exchange(mine.refusalLogged, true)) {
        listenerLog().error("refusing connections on {} from pid {}: it has {} open, the limit per process",
                            path_.string(), pid, mine.open);
      }
      return false;
    }
    ++census_->open;
    ++mine.open;
  }
  connection->setCloseObserver([census = census_, pid] {
    std::lock_guard lock(census->mu);
    --census->open;
    auto it = census->byPid.find(pid);
    if (it != census->byPid.end() && --it->second.open == 0)
      census->byPid.erase(it);
    else if (it != census->byPid.end())
      it->second.refusalLogged = false;
  });
  return true;
}

void IpcListener::pauseAccepting(int error) {
  if (!std::exchange(io_->resourceErrorLogged, true)) {
    listenerLog().error("accept on {} failed: {}; retrying every {:.0f} ms", path_.string(),
                        std::strerror(error), toSeconds(options_.acceptBackoff) * 1000);
  }
  io_->paused = true;
  std::weak_ptr<IpcListener> weak = weak_from_this();
  io_->resumeCall = clock_->scheduleAfter(options_.acceptBackoff, nullptr, [weak] {
    if (auto self = weak.lock()) {
      self->runtime_->post([self] {
        self->io_->paused = false;
        self->armAccept();
      });
    }
  });
}

void IpcListener::offer(const std::shared_ptr<IpcConnection>& connection) {
  queue_->async([self = shared_from_this(), connection] {
    std::shared_ptr<IpcListenerDelegate> delegate;
    {
      std::lock_guard lock(self->mu_);
      delegate = self->delegate_.lock();
    }
    if (delegate && delegate->shouldAcceptNewConnection(*self, connection)) {
      connection->resume();
    } else {
      connection->invalidate();
    }
  });
}

}  // namespace vorlen
