// Must come first: see IpcAsio.h.
#include "ipc/IpcAsio.h"

#include "ipc/IpcConnection.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <utility>

#include "base/Log.h"
#include "ipc/IpcFraming.h"
#include "ipc/IpcMemoryBudget.h"
#include "ipc/IpcRuntime.h"

namespace vorlen {

namespace {

const Logger& connectionLog() {
  return VorlenLogForCategory(VorlenLogCategoryConnection);
}

std::atomic<uint64_t> gNextConnectionId{1};

// One read takes at most this much; a busy connection yields the I/O thread after kReadsPerWakeup reads.
constexpr size_t kReadChunk = size_t{64} << 10;
constexpr int kReadsPerWakeup = 16;
// Room for more descriptors than any message may keep, so that extras are counted rather than lost
// silently by the kernel.
constexpr size_t kMaxDescriptorsPerRead = 64;
// Frames gathered into one write.
constexpr size_t kMaxIovecs = 64;

}  // namespace

struct IpcConnection::OutFrame {
  std::vector<uint8_t> bytes;
  std::vector<UniqueFd> fds;  // sent with the first byte of the frame
  size_t offset = 0;
};

struct IpcConnection::Io {
  Io(asio::io_context& context, size_t maxFrameBytes, size_t maxDescriptors)
      : socket(context), decoder(maxFrameBytes, maxDescriptors), readBuffer(kReadChunk) {}

  asio::local::stream_protocol::socket socket;
  IpcFrameDecoder decoder;
  std::vector<uint8_t> readBuffer;
  std::deque<std::shared_ptr<OutFrame>> outgoing;
  bool started = false;
  bool readWaiting = false;   // an async_wait for reading is outstanding
  bool readPaused = false;    // reading stopped until the queue works off its backlog
  bool budgetParked = false;  // reading stopped until the process budget has room
  size_t unframedBytes = 0;   // bytes read and counted in the budget that are not in a queued frame yet
  bool writeWaiting = false;  // an async_wait for writing is outstanding
  bool writeBroken = false;   // the peer reads no more: what we send is discarded, reading goes on
  bool closed = false;
  // Stall watch: active while a frame is half-received (and we are reading) or our data waits for the
  // peer; a connection that makes no progress for stallTimeout while active is closed.
  bool stallActive = false;
  bool stallScheduled = false;
  Time lastProgress{};
  std::shared_ptr<ScheduledCall> stallCall;
};

IpcConnection::IpcConnection(UniqueFd socket, IpcConnectionOptions options)
    : options_(std::move(options)),
      runtime_(options_.runtime ? options_.runtime : IpcRuntime::shared()),
      budget_(options_.budget ? options_.budget : IpcMemoryBudget::shared()),
      clock_(options_.clock ? options_.clock : Clock::system()),
      queue_(options_.queue ? options_.queue : Queue::serial(options_.queueLabel)),
      peer_(IpcPeer::fromSocket(socket.get())),
      id_(gNextConnectionId.fetch_add(1)),
      io_(std::make_unique<Io>(runtime_->context(), options_.maxFrameBytes,
                               options_.maxDescriptorsPerMessage)) {
  int flags = ::fcntl(socket.get(), F_GETFL);
  if (flags >= 0) ::fcntl(socket.get(), F_SETFL, flags | O_NONBLOCK);
  ::fcntl(socket.get(), F_SETFD, FD_CLOEXEC);
  asio::error_code ec;
  io_->socket.assign(asio::local::stream_protocol(), socket.get(), ec);
  if (ec) {
    // Only fails for a descriptor the reactor cannot watch; the connection is born closed.
    connectionLog().error("cannot watch connection socket: {}", ec.message());
    invalidated_ = true;
    closeReason_ = static_cast<int>(CloseReason::IoError);
    io_->closed = true;
    return;  // `socket` closes the descriptor
  }
  directFd_ = socket.release();
}

IpcConnection::~IpcConnection() {
  std::function<void()> observer;
  {
    std::lock_guard lock(mu_);
    observer = std::move(closeObserver_);
  }
  if (observer) observer();
  if (io_->stallCall) io_->stallCall->cancel();
}

std::shared_ptr<IpcConnection> IpcConnection::adopt(UniqueFd socket, IpcConnectionOptions options) {
  return std::shared_ptr<IpcConnection>(new IpcConnection(std::move(socket), std::move(options)));
}

std::shared_ptr<IpcConnection> IpcConnection::connect(const std::filesystem::path& path,
                                                      IpcConnectionOptions options, std::string* error) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  const std::string& p = path.native();
  if (p.empty() || p.size() >= sizeof(addr.sun_path)) {
    if (error) *error = "socket path is empty or too long: " + p;
    return nullptr;
  }
  std::memcpy(addr.sun_path, p.data(), p.size());
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd) {
    if (error) *error = std::string("socket: ") + std::strerror(errno);
    return nullptr;
  }
  int rc;
  do {
    rc = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    if (error) *error = "connect " + p + ": " + std::strerror(errno);
    return nullptr;
  }
  return adopt(std::move(fd), std::move(options));
}

std::shared_ptr<IpcConnection> IpcConnection::connect(const IpcEndpoint& endpoint,
                                                      IpcConnectionOptions options, std::string* error) {
  return connect(endpoint.path, std::move(options), error);
}

// ---- configuration ----

void IpcConnection::setExportedInterface(std::shared_ptr<const IpcExportedInterface> exported) {
  std::lock_guard lock(mu_);
  handlers_.exported = std::move(exported);
}

void IpcConnection::setCallHandler(CallHandler handler) {
  std::lock_guard lock(mu_);
  handlers_.callHandler = std::move(handler);
}

void IpcConnection::setInvalidationHandler(std::function<void()> handler) {
  std::lock_guard lock(mu_);
  handlers_.invalidation = std::move(handler);
}

void IpcConnection::setInterruptionHandler(std::function<void()> handler) {
  std::lock_guard lock(mu_);
  handlers_.interruption = std::move(handler);
}

void IpcConnection::setInvocationHook(std::function<void(const IpcMessage&)> hook) {
  std::lock_guard lock(mu_);
  handlers_.hook = std::move(hook);
}

void IpcConnection::setProxyErrorHandler(std::function<void(const std::string&)> handler) {
  std::lock_guard lock(mu_);
  handlers_.proxyError = std::move(handler);
}

void IpcConnection::setCloseObserver(std::function<void()> observer) {
  std::lock_guard lock(mu_);
  closeObserver_ = std::move(observer);
}

size_t IpcConnection::pendingReplyCount() const {
  std::lock_guard lock(mu_);
  return pending_.size();
}

const char* IpcConnection::closeReasonName(CloseReason reason) {
  switch (reason) {
    case CloseReason::Open:
      return "open";
    case CloseReason::Invalidated:
      return "invalidated";
    case CloseReason::PeerClosed:
      return "peer closed";
    case CloseReason::ProtocolError:
      return "protocol error";
    case CloseReason::Stalled:
      return "stalled";
    case CloseReason::OutgoingOverflow:
      return "peer not reading";
    case CloseReason::IoError:
      return "I/O error";
  }
  return "?";
}

std::string IpcConnection::describePeer() const {
  return fmt::format("{} (pid {}, connection {})", peer_.executableName.value_or("?"), peer_.pid, id_);
}

// ---- opening and closing ----

void IpcConnection::resume() {
  if (resumed_.exchange(true)) return;
  runtime_->post([self = shared_from_this()] { self->startOnIo(); });
}

void IpcConnection::invalidate() {
  closeSoon(CloseReason::Invalidated, /*stopDelivery=*/true);
}

void IpcConnection::closeSoon(CloseReason reason, bool stopDelivery) {
  if (stopDelivery) stopDelivery_ = true;
  int open = static_cast<int>(CloseReason::Open);
  closeReason_.compare_exchange_strong(open, static_cast<int>(reason));
  if (invalidated_.exchange(true)) return;
  runtime_->post([self = shared_from_this(), reason] { self->closeOnIo(reason); });
}

void IpcConnection::closeOnIo(CloseReason reason) {
  Io& io = *io_;
  if (io.closed) return;
  io.closed = true;
  invalidated_ = true;
  int open = static_cast<int>(CloseReason::Open);
  closeReason_.compare_exchange_strong(open, static_cast<int>(reason));
  if (io.stallCall) io.stallCall->cancel();
  io.stallCall.reset();
  io.stallActive = false;
  asio::error_code ignored;
  {
    std::lock_guard lock(writeMu_);  // no direct write may use the descriptor number once it is closed
    directFd_ = -1;
    io.socket.close(ignored);  // outstanding waits complete with operation_aborted
  }
  // What is still counted comes off the process budget: frames read in part, and frames never written.
  budget_->removeIncoming(std::exchange(io.unframedBytes, 0));
  for (const auto& f : io.outgoing) dropOutgoing(f->bytes.size());
  io.outgoing.clear();
  std::function<void()> observer;
  {
    std::lock_guard lock(mu_);
    observer = std::move(closeObserver_);
    closeObserver_ = nullptr;
  }
  if (observer) observer();
  connectionLog().debug("connection from {} closed: {}", describePeer(), closeReasonName(closeReason()));
  queue_->async([self = shared_from_this()] { self->finishOnQueue(); });
}

void IpcConnection::finishOnQueue() {
  Handlers handlers;
  std::unordered_map<uint64_t, ReplyHandler> pending;
  {
    std::lock_guard lock(mu_);
    handlers = std::move(handlers_);
    handlers_ = Handlers{};
    pending = std::move(pending_);
    pending_.clear();
  }
  if (handlers.proxyError) {
    for (size_t i = 0; i < pending.size(); ++i) {
      handlers.proxyError(
          fmt::format("connection closed ({}) before the reply came", closeReasonName(closeReason())));
    }
  }
  pending.clear();
  if (closeReason() == CloseReason::PeerClosed && handlers.interruption) handlers.interruption();
  if (handlers.invalidation) handlers.invalidation();
}

void IpcConnection::reportProxyError(std::string reason) {
  queue_->async([self = shared_from_this(), reason = std::move(reason)] {
    std::function<void(const std::string&)> handler;
    {
      std::lock_guard lock(self->mu_);
      handler = self->handlers_.proxyError;
    }
    if (handler) handler(reason);
  });
}

// ---- receiving (I/O thread) ----

void IpcConnection::startOnIo() {
  if (io_->closed) return;
  io_->started = true;
  armRead();
  updateStallWatch();
}

void IpcConnection::armRead() {
  Io& io = *io_;
  if (io.closed || !io.started || io.readWaiting || io.readPaused || io.budgetParked) return;
  io.readWaiting = true;
  io.socket.async_wait(asio::socket_base::wait_read, [self = shared_from_this()](const asio::error_code& ec) {
    self->io_->readWaiting = false;
    if (ec || self->io_->closed) return;
    self->onReadable();
  });
}

void IpcConnection::onReadable() {
  Io& io = *io_;
  int fd = io.socket.native_handle();
  for (int round = 0; round < kReadsPerWakeup && !io.closed && !io.readPaused; ++round) {
    if (budget_->incomingFull()) {
      parkForBudgetOnIo();
      break;
    }
    iovec iov{io.readBuffer.data(), io.readBuffer.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxDescriptorsPerRead)];
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof(control);
    ssize_t n = ::recvmsg(fd, &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) break;
      if (errno == ECONNRESET) {
        closeOnIo(CloseReason::PeerClosed);
      } else {
        connectionLog().error("closing connection from {}: read failed: {}", describePeer(),
                              std::strerror(errno));
        closeOnIo(CloseReason::IoError);
      }
      return;
    }
    std::vector<UniqueFd> fds;
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
      if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
      size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
      const unsigned char* data = CMSG_DATA(c);
      for (size_t i = 0; i < count; ++i) {
        int received;
        std::memcpy(&received, data + i * sizeof(int), sizeof(int));
        fds.emplace_back(received);
      }
    }
    if (msg.msg_flags & MSG_CTRUNC) {
      connectionLog().error("descriptors from {} beyond {} in one read were discarded", describePeer(),
                            kMaxDescriptorsPerRead);
    }
    if (n == 0) {
      if (io.decoder.midFrame()) {
        connectionLog().error("connection from {} ended in the middle of a frame", describePeer());
      }
      closeOnIo(CloseReason::PeerClosed);
      return;
    }
    io.lastProgress = clock_->now();
    budget_->addIncoming(static_cast<size_t>(n));
    io.unframedBytes += static_cast<size_t>(n);
    io.decoder.append(std::span<const uint8_t>(io.readBuffer.data(), static_cast<size_t>(n)), std::move(fds));
    if (!takeFramesOnIo()) return;
  }
  updateStallWatch();
  armRead();
}

bool IpcConnection::backlogFull() const {
  return backlogBytes_.load() > options_.maxIncomingBacklogBytes ||
         backlogMessages_.load() >= options_.maxIncomingBacklogMessages;
}

bool IpcConnection::backlogHalfEmpty() const {
  return backlogBytes_.load() <= options_.maxIncomingBacklogBytes / 2 &&
         backlogMessages_.load() <= options_.maxIncomingBacklogMessages / 2;
}

bool IpcConnection::takeFramesOnIo() {
  Io& io = *io_;
  for (;;) {
    while (!backlogFull()) {
      IpcRawFrame frame;
      std::string why;
      IpcFrameDecoder::Status status = io.decoder.next(&frame, &why);
      if (status == IpcFrameDecoder::Status::NeedMore) return true;
      if (status == IpcFrameDecoder::Status::Error) {
        connectionLog().error("closing connection from {}: {}", describePeer(), why);
        closeOnIo(CloseReason::ProtocolError);
        return false;
      }
      queueFrameOnIo(std::move(frame));
    }
    io.readPaused = true;
    readPaused_ = true;
    // The queue may have worked the backlog off between the check and the flag (it resumes reading only
    // when it sees the flag): check once more.
    if (backlogFull()) return true;
    io.readPaused = false;
    readPaused_ = false;
  }
}

void IpcConnection::queueFrameOnIo(IpcRawFrame&& frame) {
  size_t bytes = frame.payload.size() + IpcFraming::kHeaderBytes;
  io_->unframedBytes -= bytes;
  backlogBytes_ += bytes;
  ++backlogMessages_;
  auto shared = std::make_shared<IpcRawFrame>(std::move(frame));
  queue_->async([self = shared_from_this(), shared, bytes] {
    self->serveFrame(*shared);
    shared->descriptors.clear();  // whatever the message did not hand out is closed now
    self->releaseBacklog(bytes);
  });
}

void IpcConnection::releaseBacklog(size_t bytes) {
  if (bytes > 0) budget_->removeIncoming(bytes);
  backlogBytes_ -= bytes;
  --backlogMessages_;
  // Reading resumes once half the backlog is worked off, not at the first free slot: a peer that keeps
  // the backlog full would otherwise cost a hand-off to the I/O thread and a pause for every message.
  if (readPaused_.load() && backlogHalfEmpty()) {
    runtime_->post([self = shared_from_this()] { self->resumeReadingOnIo(); });
  }
}

void IpcConnection::parkForBudgetOnIo() {
  io_->budgetParked = true;
  std::weak_ptr<IpcConnection> weak = weak_from_this();
  budget_->waitForIncomingRoom([weak] {
    if (auto self = weak.lock()) self->runtime_->post([self] { self->resumeFromBudgetOnIo(); });
  });
}

void IpcConnection::resumeFromBudgetOnIo() {
  Io& io = *io_;
  if (!io.budgetParked) return;
  io.budgetParked = false;
  armRead();
}

void IpcConnection::dropOutgoing(size_t bytes) {
  outgoingBytes_ -= bytes;
  budget_->removeOutgoing(bytes);
}

std::shared_ptr<void> IpcConnection::holdIncomingBacklog() {
  ++backlogMessages_;
  // Points at the connection, never null: holders pass it on with `if (hold)`, which a null pointer with a
  // deleter fails, and the hold would end at once.
  auto self = shared_from_this();
  IpcConnection* raw = self.get();
  return std::shared_ptr<void>(raw, [self = std::move(self)](void*) { self->releaseBacklog(0); });
}

void IpcConnection::resumeReadingOnIo() {
  Io& io = *io_;
  if (io.closed || !io.readPaused || backlogFull()) return;
  io.readPaused = false;
  readPaused_ = false;
  // Frames already read wait in the decoder: they go first.
  if (!takeFramesOnIo() || io.readPaused) return;
  updateStallWatch();
  armRead();
}

// ---- serving (queue) ----

void IpcConnection::serveFrame(IpcRawFrame& frame) {
  if (stopDelivery_.load()) return;
  std::string why;
  std::optional<Value> root = IpcFraming::decodePayload(frame.payload, &why);
  std::optional<IpcMessage> message;
  if (root) message = IpcMessage::fromValue(*root, std::move(frame.descriptors), &why);
  if (!message) {
    connectionLog().error("closing connection from {}: {}", describePeer(), why);
    closeSoon(CloseReason::ProtocolError, /*stopDelivery=*/true);
    return;
  }
  if (frame.droppedDescriptors > 0) {
    connectionLog().error("{} descriptors from {} beyond the limit of {} per message were closed",
                          frame.droppedDescriptors, describePeer(), options_.maxDescriptorsPerMessage);
  }

  if (message->isCall() && message->serial() && peerGoneOnQueue()) {
    ++droppedCalls_;
    return;
  }

  std::function<void(const IpcMessage&)> hook;
  {
    std::lock_guard lock(mu_);
    hook = handlers_.hook;
  }
  if (hook) hook(*message);
  if (stopDelivery_.load()) return;  // the hook may have invalidated the connection

  if (message->isReply()) {
    ReplyHandler handler;
    {
      std::lock_guard lock(mu_);
      auto it = pending_.find(*message->serial());
      if (it != pending_.end()) {
        handler = std::move(it->second);
        pending_.erase(it);
      }
    }
    if (!handler) {
      connectionLog().error("ignoring reply {} from {}: no call is waiting for it", *message->serial(),
                            describePeer());
      return;
    }
    handler(*message);
    return;
  }

  std::shared_ptr<const IpcExportedInterface> exported;
  CallHandler callHandler;
  {
    std::lock_guard lock(mu_);
    exported = handlers_.exported;
    callHandler = handlers_.callHandler;
  }
  IpcReplier replier;
  if (message->serial()) replier = IpcReplier(weak_from_this(), *message->serial());
  if (exported) {
    if (auto rejected = exported->dispatch(*message, std::move(replier))) {
      rejectedCalls_.log(connectionLog(), LogLevel::Error,
                         fmt::format("ignoring call from {}: {}", describePeer(), *rejected));
    }
  } else if (callHandler) {
    callHandler(*message, std::move(replier));
  } else {
    rejectedCalls_.log(
        connectionLog(), LogLevel::Error,
        fmt::format("ignoring call from {}: {} is not served here", describePeer(), message->op()));
  }
}

bool IpcConnection::peerGoneOnQueue() {
  if (invalidated_.load()) return true;
  std::lock_guard lock(writeMu_);  // the descriptor stays open while held
  if (directFd_ < 0) return true;
  // A stream socket whose peer has closed reports POLLHUP even while unread data remains; a peer that
  // only shut down its sending side (and may still read) reports POLLRDHUP alone.
  pollfd p{directFd_, POLLRDHUP, 0};
  return ::poll(&p, 1, 0) == 1 && (p.revents & POLLHUP) != 0;
}

// ---- sending ----

bool IpcConnection::call(IpcMessage message, ReplyHandler onReply) {
  if (!onReply) return send(std::move(message));
  if (!message.isCall()) {
    connectionLog().fault("call() needs a call message, got {}", message.summary());
    return false;
  }
  uint64_t serial = nextSerial_.fetch_add(1);
  {
    std::lock_guard lock(mu_);
    pending_.emplace(serial, std::move(onReply));
  }
  message.setSerial(serial);
  bool closed = false;
  if (enqueue(message, &closed)) return true;
  bool stillOurs;
  {
    std::lock_guard lock(mu_);
    stillOurs = pending_.erase(serial) > 0;
  }
  // When the connection closed meanwhile, finishOnQueue() may already have reported this call.
  if (closed && stillOurs) reportProxyError(fmt::format("{} not sent: connection closed", message.summary()));
  return false;
}

bool IpcConnection::send(IpcMessage message) {
  bool closed = false;
  if (enqueue(message, &closed)) return true;
  if (closed) reportProxyError(fmt::format("{} not sent: connection closed", message.summary()));
  return false;
}

bool IpcConnection::enqueue(IpcMessage& message, bool* closed) {
  if (invalidated_.load()) {
    *closed = true;
    return false;
  }
  std::vector<UniqueFd> fds = message.takeAllDescriptors();
  if (fds.size() > options_.maxDescriptorsPerMessage) {
    connectionLog().error("{} to {} not sent: {} descriptors, the limit is {}", message.summary(),
                          describePeer(), fds.size(), options_.maxDescriptorsPerMessage);
    return false;
  }
  auto frame = std::make_shared<OutFrame>();
  frame->bytes = IpcFraming::encode(std::move(message).toValue());
  frame->fds = std::move(fds);
  if (frame->bytes.size() - IpcFraming::kHeaderBytes > options_.maxFrameBytes) {
    connectionLog().error("{} to {} not sent: {} bytes exceed the frame limit of {}", message.summary(),
                          describePeer(), frame->bytes.size() - IpcFraming::kHeaderBytes,
                          options_.maxFrameBytes);
    return false;
  }
  if (!budget_->tryAddOutgoing(frame->bytes.size())) {
    connectionLog().error(
        "closing connection from {}: the process already has {} bytes waiting for peers that do not read "
        "(limit {})",
        describePeer(), budget_->outgoingBytes(), budget_->maxOutgoingBytes());
    closeSoon(CloseReason::OutgoingOverflow, /*stopDelivery=*/false);
    return false;
  }
  size_t queued = outgoingBytes_.fetch_add(frame->bytes.size()) + frame->bytes.size();
  if (queued > options_.maxOutgoingBytes) {
    dropOutgoing(frame->bytes.size());
    connectionLog().error(
        "closing connection from {}: {} bytes wait for a peer that does not read (limit {})", describePeer(),
        queued, options_.maxOutgoingBytes);
    closeSoon(CloseReason::OutgoingOverflow, /*stopDelivery=*/false);
    return false;
  }
  writeOrQueue(frame);
  return true;
}

void IpcConnection::writeOrQueue(const std::shared_ptr<OutFrame>& frame) {
  {
    std::lock_guard lock(writeMu_);
    if (framesOnIo_ == 0 && directFd_ >= 0 && frame->fds.empty()) {
      while (frame->offset < frame->bytes.size()) {
        ssize_t n = ::send(directFd_, frame->bytes.data() + frame->offset,
                           frame->bytes.size() - frame->offset, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
          frame->offset += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
          continue;
        } else {
          break;  // a full socket, or an error that the I/O thread meets and reports in its turn
        }
      }
      if (frame->offset == frame->bytes.size()) {
        dropOutgoing(frame->bytes.size());
        return;
      }
    }
    ++framesOnIo_;
  }
  runtime_->post([self = shared_from_this(), frame] { self->enqueueOnIo(frame); });
}

void IpcConnection::enqueueOnIo(const std::shared_ptr<OutFrame>& frame) {
  Io& io = *io_;
  if (io.closed || io.writeBroken) {
    dropOutgoing(frame->bytes.size());
    std::lock_guard lock(writeMu_);
    --framesOnIo_;
    return;
  }
  io.outgoing.push_back(frame);
  if (!io.writeWaiting) flushWrites();
  updateStallWatch();
}

void IpcConnection::flushWrites() {
  Io& io = *io_;
  int fd = io.socket.native_handle();
  while (!io.closed && !io.outgoing.empty()) {
    iovec iov[kMaxIovecs];
    size_t iovCount = 0;
    msghdr msg{};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxDescriptorsPerRead)];
    OutFrame& front = *io.outgoing.front();
    if (!front.fds.empty() && front.offset == 0) {
      // Descriptors go with the write that starts their frame, and that write carries nothing else.
      iov[iovCount++] = iovec{front.bytes.data(), front.bytes.size()};
      size_t fdBytes = sizeof(int) * front.fds.size();
      msg.msg_control = control;
      msg.msg_controllen = CMSG_SPACE(fdBytes);
      std::memset(control, 0, msg.msg_controllen);
      cmsghdr* c = CMSG_FIRSTHDR(&msg);
      c->cmsg_level = SOL_SOCKET;
      c->cmsg_type = SCM_RIGHTS;
      c->cmsg_len = CMSG_LEN(fdBytes);
      for (size_t i = 0; i < front.fds.size(); ++i) {
        int raw = front.fds[i].get();
        std::memcpy(CMSG_DATA(c) + i * sizeof(int), &raw, sizeof(int));
      }
    } else {
      for (size_t i = 0; i < io.outgoing.size() && iovCount < kMaxIovecs; ++i) {
        OutFrame& f = *io.outgoing[i];
        if (i > 0 && !f.fds.empty()) break;
        iov[iovCount++] = iovec{f.bytes.data() + f.offset, f.bytes.size() - f.offset};
      }
    }
    msg.msg_iov = iov;
    msg.msg_iovlen = iovCount;
    ssize_t n = ::sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        io.writeWaiting = true;
        io.socket.async_wait(asio::socket_base::wait_write,
                             [self = shared_from_this()](const asio::error_code& ec) {
                               self->io_->writeWaiting = false;
                               if (ec || self->io_->closed) return;
                               self->flushWrites();
                               self->updateStallWatch();
                             });
        return;
      }
      if ((errno == EPIPE || errno == ECONNRESET) && io.started) {
        // The peer no longer reads, but what it sent before it went is still ours to read (the end of
        // the stream then closes the connection): drop what waits for it and keep reading.
        io.writeBroken = true;
        std::lock_guard lock(writeMu_);
        for (const auto& f : io.outgoing) dropOutgoing(f->bytes.size());
        framesOnIo_ -= io.outgoing.size();
        io.outgoing.clear();
        return;
      }
      if (errno == EPIPE || errno == ECONNRESET) {
        closeOnIo(CloseReason::PeerClosed);
      } else {
        connectionLog().error("closing connection from {}: write failed: {}", describePeer(),
                              std::strerror(errno));
        closeOnIo(CloseReason::IoError);
      }
      return;
    }
    io.lastProgress = clock_->now();
    size_t left = static_cast<size_t>(n);
    while (left > 0 && !io.outgoing.empty()) {
      OutFrame& f = *io.outgoing.front();
      f.fds.clear();  // the kernel holds its own references once any byte of the frame is sent
      size_t take = std::min(left, f.bytes.size() - f.offset);
      f.offset += take;
      left -= take;
      if (f.offset == f.bytes.size()) {
        dropOutgoing(f.bytes.size());
        io.outgoing.pop_front();
        std::lock_guard lock(writeMu_);
        --framesOnIo_;
      }
    }
  }
}

// ---- stall watch (I/O thread) ----

void IpcConnection::updateStallWatch() {
  Io& io = *io_;
  bool active = !io.closed && ((io.started && !io.readPaused && io.decoder.midFrame()) || io.writeWaiting);
  if (active && !io.stallActive) io.lastProgress = clock_->now();
  io.stallActive = active;
  if (active && !io.stallScheduled) scheduleStallCheck(io.lastProgress + options_.stallTimeout);
}

void IpcConnection::scheduleStallCheck(Time deadline) {
  io_->stallScheduled = true;
  // The clock may keep the call until its deadline even when cancelled; it holds nothing but a weak link.
  std::weak_ptr<IpcConnection> weak = weak_from_this();
  io_->stallCall = clock_->schedule(deadline, nullptr, [weak] {
    if (auto self = weak.lock()) {
      self->runtime_->post([self] { self->onStallCheck(); });
    }
  });
}

void IpcConnection::onStallCheck() {
  Io& io = *io_;
  io.stallScheduled = false;
  if (io.closed || !io.stallActive) return;
  Time deadline = io.lastProgress + options_.stallTimeout;
  if (clock_->now() < deadline) {
    scheduleStallCheck(deadline);
    return;
  }
  connectionLog().error("closing connection from {}: no progress for {:.0f} s while {}", describePeer(),
                        toSeconds(options_.stallTimeout),
                        io.writeWaiting ? "it does not read what we send" : "it sends a frame");
  closeOnIo(CloseReason::Stalled);
}

}  // namespace vorlen
