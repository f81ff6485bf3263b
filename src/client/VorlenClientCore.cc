#include "client/VorlenClientCore.h"

#include <condition_variable>
#include <cstdlib>

#include <fmt/format.h>

#include "base/Log.h"
#include "base/Paths.h"
#include "client/ClientCallbackInterface.h"
#include "ipc/IpcRuntime.h"
#include "model/Operations.h"
#include "model/QXFeedback.h"
#include "model/RecordCoder.h"

namespace vorlen {

namespace {

const Logger& connectionLog() {
  return VorlenLogForCategory(VorlenLogCategoryConnection);
}

using namespace op;

ClientError lost(std::string message) {
  return {ClientError::Kind::ConnectionLost, std::move(message)};
}

template <class T>
ClientResult<T> decodeWith(ClientResult<IpcMessage> raw, ClientResult<T> (*decode)(const IpcMessage&)) {
  if (!raw.ok()) return ClientResult<T>::failure(std::move(*raw.error));
  return decode(*raw.value);
}

ClientResult<IpcEndpoint> decodeConfigure(const IpcMessage& m) {
  return ClientReplyDecoder::endpoint(m, kConfigure);
}
ClientResult<IpcEndpoint> decodeFlusher(const IpcMessage& m) {
  return ClientReplyDecoder::endpoint(m, kListenToFlusher);
}
ClientResult<BagReply> decodeBag(const IpcMessage& m) {
  return ClientReplyDecoder::bag(m);
}
ClientResult<BagReply> decodeRefreshBag(const IpcMessage& m) {
  return ClientReplyDecoder::bag(m, kRefreshBag);
}
ClientResult<RequestReply> decodeRequest(const IpcMessage& m) {
  return ClientReplyDecoder::request(m);
}
ClientResult<RequestReply> decodeEndpointRequest(const IpcMessage& m) {
  return ClientReplyDecoder::request(m, kEndpointRequest);
}

}  // namespace

// ---- creation ----

std::shared_ptr<VorlenClientCore> VorlenClientCore::create(VorlenClientOptions options) {
  auto client = std::shared_ptr<VorlenClientCore>(new VorlenClientCore(std::move(options)));
  client->exportCallbacks();
  return client;
}

VorlenClientCore::VorlenClientCore(VorlenClientOptions options)
    : socketPath_(options.socketPath.empty() ? Paths::fromEnvironment().serviceSocket : options.socketPath),
      callTimeout_(options.callTimeout),
      reconnectAfterIdle_(options.reconnectAfterIdle),
      runtime_(options.runtime ? options.runtime : IpcRuntime::shared()),
      queue_(options.queue ? options.queue : Queue::serial("com.velmo.vorlen.client")),
      clock_(options.clock ? options.clock : Clock::system()) {}

void VorlenClientCore::exportCallbacks() {
  std::weak_ptr<VorlenClientCore> weak = weak_from_this();
  // Each call reads the handler set at that moment, so handlers may be set (or replaced) at any time.
  auto handler = [weak](auto member) {
    return [weak, member](auto&&... args) {
      auto self = weak.lock();
      if (!self) return;
      std::unique_lock lock(self->mu_);
      auto h = self->handlers_.*member;
      lock.unlock();
      if (h) h(std::forward<decltype(args)>(args)...);
    };
  };
  ClientCallbackInterface::Handlers h;
  h.bagDidLoad = handler(&Handlers::bagDidLoad);
  h.didDownloadResource = handler(&Handlers::didDownloadResource);
  h.didDeleteResource = handler(&Handlers::didDeleteResource);
  exported_ = ClientCallbackInterface::make(std::move(h));
}

VorlenClientCore::~VorlenClientCore() {
  // No queue work of this client can be running: queued work holds the client strongly. So the
  // queue-only members may be read here.
  if (connection_) connection_->invalidate();
  for (auto& [token, p] : pending_) {
    if (p.timer) p.timer->cancel();
    // Endpoint connections are owned by their pending call's finish; ending the call closes them.
    queue_->async(
        [finish = std::move(p.finish)] { finish(ClientResult<IpcMessage>::failure(lost("client closed"))); });
  }
}

std::optional<IpcEndpoint> VorlenClientCore::endpoint() const {
  std::lock_guard lock(mu_);
  return endpoint_;
}

void VorlenClientCore::onBagDidLoad(
    std::function<void(std::optional<VORBag>, std::optional<VORError>)> handler) {
  std::lock_guard lock(mu_);
  handlers_.bagDidLoad = std::move(handler);
}

void VorlenClientCore::onDidDownloadResource(std::function<void(const std::string&)> handler) {
  std::lock_guard lock(mu_);
  handlers_.didDownloadResource = std::move(handler);
}

void VorlenClientCore::onDidDeleteResource(std::function<void(const std::string&)> handler) {
  std::lock_guard lock(mu_);
  handlers_.didDeleteResource = std::move(handler);
}

// ---- connections and pending calls (queue) ----

std::shared_ptr<IpcConnection> VorlenClientCore::openConnection(const std::filesystem::path& path,
                                                                uint64_t* id, ClientError* error) {
  queue_->assertCurrent();
  IpcConnectionOptions o;
  o.runtime = runtime_;
  o.queue = queue_;
  std::string reason;
  std::shared_ptr<IpcConnection> c = IpcConnection::connect(path, o, &reason);
  if (!c) {
    // The transport's reason repeats the path after "connect "; say it once.
    std::string prefix = "connect " + path.string() + ": ";
    if (reason.starts_with(prefix)) reason.erase(0, prefix.size());
    *error = {ClientError::Kind::Unreachable, fmt::format("cannot connect to {}: {}", path.string(), reason)};
    return nullptr;
  }
  *id = nextConnectionId_++;
  std::weak_ptr<VorlenClientCore> weak = weak_from_this();
  c->setInvalidationHandler([weak, id = *id] {
    if (auto self = weak.lock()) self->connectionEnded(id);
  });
  return c;
}

std::shared_ptr<IpcConnection> VorlenClientCore::ensureConnected(bool autoConfigure, ClientError* error) {
  queue_->assertCurrent();
  if (connection_ && connection_->isValid()) {
    bool idle = clock_->now() - lastSent_ >= reconnectAfterIdle_;
    if (!idle || connection_->pendingReplyCount() > 0) return connection_;
    connectionLog().debug("replacing the idle connection to {}", socketPath_.string());
    connection_->invalidate();
  }
  connection_.reset();
  connected_ = false;
  uint64_t id = 0;
  std::shared_ptr<IpcConnection> c = openConnection(socketPath_, &id, error);
  if (!c) return nullptr;
  c->setExportedInterface(exported_);
  c->resume();
  connection_ = c;
  connectionId_ = id;
  connected_ = true;
  lastSent_ = clock_->now();
  if (autoConfigure && configuration_) sendConfigure(c, id, *configuration_, nullptr);
  return c;
}

void VorlenClientCore::connectionEnded(uint64_t connectionId) {
  queue_->assertCurrent();
  if (connection_ && connectionId_ == connectionId) {
    connectionLog().info("connection to {} closed ({})", socketPath_.string(),
                         IpcConnection::closeReasonName(connection_->closeReason()));
    connection_.reset();
    connected_ = false;
  }
  std::vector<uint64_t> ended;
  for (const auto& [token, p] : pending_)
    if (p.connectionId == connectionId) ended.push_back(token);
  for (uint64_t token : ended) {
    std::string op = pending_[token].op;
    complete(token, ClientResult<IpcMessage>::failure(
                        lost(fmt::format("the connection to vorlend closed before the reply to {}", op))));
  }
}

void VorlenClientCore::issue(const std::shared_ptr<IpcConnection>& connection, uint64_t connectionId,
                             std::string op, Value::Array args, Finish finish) {
  queue_->assertCurrent();
  uint64_t token = nextToken_++;
  std::weak_ptr<VorlenClientCore> weak = weak_from_this();
  Pending& p = pending_[token];
  p.connectionId = connectionId;
  p.op = op;
  p.finish = std::move(finish);
  ++pendingCount_;
  p.timer = clock_->scheduleAfter(callTimeout_, queue_, [weak, token, timeout = callTimeout_] {
    if (auto self = weak.lock()) {
      self->complete(token, ClientResult<IpcMessage>::failure(
                                {ClientError::Kind::TimedOut,
                                 fmt::format("timed out after {:g} s", toSeconds(timeout))}));
    }
  });
  lastSent_ = clock_->now();
  bool queued =
      connection->call(IpcMessage::call(op, std::move(args)), [weak, token](const IpcMessage& reply) {
        if (auto self = weak.lock()) self->complete(token, ClientResult<IpcMessage>::success(reply));
      });
  if (!queued)
    complete(token, ClientResult<IpcMessage>::failure(lost("could not send " + op + " to vorlend")));
}

void VorlenClientCore::complete(uint64_t token, ClientResult<IpcMessage> outcome) {
  queue_->assertCurrent();
  auto it = pending_.find(token);
  if (it == pending_.end()) return;  // already ended (a reply after its time-out, or the reverse)
  Pending p = std::move(it->second);
  pending_.erase(it);
  --pendingCount_;
  if (p.timer) p.timer->cancel();
  if (!outcome.ok() && outcome.error->kind == ClientError::Kind::TimedOut)
    connectionLog().error("{} {}", p.op, outcome.error->message);
  p.finish(std::move(outcome));
}

void VorlenClientCore::sendConfigure(const std::shared_ptr<IpcConnection>& connection, uint64_t connectionId,
                                     const VORSessionConfiguration& configuration,
                                     Callback<IpcEndpoint> done) {
  std::weak_ptr<VorlenClientCore> weak = weak_from_this();
  issue(connection, connectionId, kConfigure, {configuration.toRecord()},
        [weak, done = std::move(done)](ClientResult<IpcMessage> raw) {
          ClientResult<IpcEndpoint> r = decodeWith(std::move(raw), &decodeConfigure);
          if (auto self = weak.lock(); self && r.ok()) {
            std::lock_guard lock(self->mu_);
            self->endpoint_ = *r.value;
          }
          if (done) done(std::move(r));
        });
}

// ---- call forms ----

namespace {
// The client whose blocking form is issuing its call on this thread, inside a sync on its queue.
thread_local const VorlenClientCore* tIssuingInline = nullptr;
}  // namespace

void VorlenClientCore::post(Queue::Work work) {
  if (tIssuingInline == this) {
    queue_->assertCurrent();
    work();
  } else {
    queue_->async(std::move(work));
  }
}

template <class T>
void VorlenClientCore::callService(std::string op, Value::Array args,
                                   ClientResult<T> (*decode)(const IpcMessage&), Callback<T> done) {
  post([self = shared_from_this(), op = std::move(op), args = std::move(args), decode,
        done = std::move(done)]() mutable {
    ClientError error;
    std::shared_ptr<IpcConnection> c = self->ensureConnected(true, &error);
    if (!c) return done(ClientResult<T>::failure(std::move(error)));
    self->issue(c, self->connectionId_, std::move(op), std::move(args),
                [decode, done = std::move(done)](ClientResult<IpcMessage> raw) {
                  done(decodeWith(std::move(raw), decode));
                });
  });
}

void VorlenClientCore::sendService(std::string op, Value::Array args, Callback<Sent> done) {
  post([self = shared_from_this(), op = std::move(op), args = std::move(args),
        done = std::move(done)]() mutable {
    ClientError error;
    std::shared_ptr<IpcConnection> c = self->ensureConnected(true, &error);
    if (!c) return done(ClientResult<Sent>::failure(std::move(error)));
    self->lastSent_ = self->clock_->now();
    if (!c->send(op, std::move(args))) return done(ClientResult<Sent>::failure(lost("could not send " + op)));
    done(ClientResult<Sent>::success(Sent{}));
  });
}

template <class T, class Start>
ClientResult<T> VorlenClientCore::wait(const char* op, Start start) {
  if (queue_->isCurrent()) {
    VorlenDefaultLog().fault("VorlenClient: blocking {} called on the client's own queue {}", op,
                             queue_->label());
    std::abort();
  }
  struct Box {
    std::mutex mu;
    std::optional<ClientResult<T>> result;
    std::atomic<bool> ready{false};
  };
  auto box = std::make_shared<Box>();
  // The call is issued on this thread (the queue is taken for it as soon as it is idle), and this thread
  // then runs the queue's work until the outcome is in, so the reply is handled here without waking a
  // worker to hand it over.
  queue_->sync([&] {
    tIssuingInline = this;
    start([box](ClientResult<T> r) {
      std::lock_guard lock(box->mu);
      box->result.emplace(std::move(r));
      box->ready = true;
    });
    tIssuingInline = nullptr;
  });
  // Every call ends: by its reply, its time-out, its connection's end or the client's end, each on the queue.
  queue_->runUntil([&] { return box->ready.load(); });
  std::lock_guard lock(box->mu);
  return std::move(*box->result);
}

void VorlenClientCore::configure(VORSessionConfiguration configuration, Callback<IpcEndpoint> done) {
  std::string why;
  if (!RecordCoder::validate(configuration.toRecord(), VORSessionConfiguration::kClassName, &why) ||
      configuration.identifier.empty() || configuration.userAgent.empty()) {
    if (why.empty()) why = "a configuration needs an identifier and a user agent";
    post([done = std::move(done), why] {
      done(ClientResult<IpcEndpoint>::failure({ClientError::Kind::InvalidArgument, why}));
    });
    return;
  }
  post([self = shared_from_this(), configuration = std::move(configuration),
        done = std::move(done)]() mutable {
    self->configuration_ = configuration;
    ClientError error;
    // A fresh connection is not configured automatically: this call is its configuration.
    std::shared_ptr<IpcConnection> c = self->ensureConnected(false, &error);
    if (!c) return done(ClientResult<IpcEndpoint>::failure(std::move(error)));
    self->sendConfigure(c, self->connectionId_, configuration, std::move(done));
  });
}

ClientResult<IpcEndpoint> VorlenClientCore::configure(VORSessionConfiguration configuration) {
  return wait<IpcEndpoint>(
      kConfigure, [&](Callback<IpcEndpoint> done) { configure(std::move(configuration), std::move(done)); });
}

void VorlenClientCore::bag(Callback<BagReply> done) {
  callService(kBag, {}, &decodeBag, std::move(done));
}
ClientResult<BagReply> VorlenClientCore::bag() {
  return wait<BagReply>(kBag, [&](Callback<BagReply> done) { bag(std::move(done)); });
}

void VorlenClientCore::refreshBag(Callback<BagReply> done) {
  callService(kRefreshBag, {}, &decodeRefreshBag, std::move(done));
}
ClientResult<BagReply> VorlenClientCore::refreshBag() {
  return wait<BagReply>(kRefreshBag, [&](Callback<BagReply> done) { refreshBag(std::move(done)); });
}

void VorlenClientCore::request(const VORRequest& request, Callback<RequestReply> done) {
  callService(kRequest, {request.toRecord()}, &decodeRequest, std::move(done));
}
ClientResult<RequestReply> VorlenClientCore::request(const VORRequest& r) {
  return wait<RequestReply>(kRequest, [&](Callback<RequestReply> done) { request(r, std::move(done)); });
}

void VorlenClientCore::reportEvent(std::string eventName, uint64_t queryId, Value feedbackRecord,
                                   Callback<Sent> done) {
  std::string why;
  if (!RecordCoder::validate(feedbackRecord, QXFeedback::kClassName, &why)) {
    post([done = std::move(done), why] {
      done(ClientResult<Sent>::failure(
          {ClientError::Kind::InvalidArgument, "invalid feedback record: " + why}));
    });
    return;
  }
  sendService(kReportEvent, {Value(std::move(eventName)), Value(queryId), std::move(feedbackRecord)},
              std::move(done));
}
ClientResult<Sent> VorlenClientCore::reportEvent(std::string eventName, uint64_t queryId,
                                                 Value feedbackRecord) {
  return wait<Sent>(kReportEvent, [&](Callback<Sent> done) {
    reportEvent(std::move(eventName), queryId, std::move(feedbackRecord), std::move(done));
  });
}

void VorlenClientCore::feedback(Callback<FeedbackReply> done) {
  // The daemon ignores the string argument.
  callService(kFeedback, {Value("")}, &ClientReplyDecoder::feedback, std::move(done));
}
ClientResult<FeedbackReply> VorlenClientCore::feedback() {
  return wait<FeedbackReply>(kFeedback, [&](Callback<FeedbackReply> done) { feedback(std::move(done)); });
}

void VorlenClientCore::listenToFlusher(Callback<IpcEndpoint> done) {
  callService(kListenToFlusher, {}, &decodeFlusher, std::move(done));
}
ClientResult<IpcEndpoint> VorlenClientCore::listenToFlusher() {
  return wait<IpcEndpoint>(kListenToFlusher,
                           [&](Callback<IpcEndpoint> done) { listenToFlusher(std::move(done)); });
}

void VorlenClientCore::listSessions(Callback<std::vector<SessionInfo>> done) {
  callService(kListSessions, {}, &ClientReplyDecoder::sessions, std::move(done));
}
ClientResult<std::vector<SessionInfo>> VorlenClientCore::listSessions() {
  return wait<std::vector<SessionInfo>>(
      kListSessions, [&](Callback<std::vector<SessionInfo>> done) { listSessions(std::move(done)); });
}

void VorlenClientCore::fileHandleForResource(std::string identifier, Callback<ResourceFile> done) {
  callService(kFileHandleForResource, {Value(std::move(identifier))}, &ClientReplyDecoder::resourceFile,
              std::move(done));
}
ClientResult<ResourceFile> VorlenClientCore::fileHandleForResource(std::string identifier) {
  return wait<ResourceFile>(kFileHandleForResource, [&](Callback<ResourceFile> done) {
    fileHandleForResource(std::move(identifier), std::move(done));
  });
}

void VorlenClientCore::clearEngagedCompletions(Time from, Time to, Callback<Sent> done) {
  sendService(kClearEngagedCompletions, {Value(from), Value(to)}, std::move(done));
}
ClientResult<Sent> VorlenClientCore::clearEngagedCompletions(Time from, Time to) {
  return wait<Sent>(kClearEngagedCompletions,
                    [&](Callback<Sent> done) { clearEngagedCompletions(from, to, std::move(done)); });
}

void VorlenClientCore::addCompletion(std::string completion, std::string input, Callback<Sent> done) {
  sendService(kAddCompletion, {Value(std::move(completion)), Value(std::move(input))}, std::move(done));
}
ClientResult<Sent> VorlenClientCore::addCompletion(std::string completion, std::string input) {
  return wait<Sent>(kAddCompletion, [&](Callback<Sent> done) {
    addCompletion(std::move(completion), std::move(input), std::move(done));
  });
}

void VorlenClientCore::updateParameters(const CompletionParameters& p, Callback<Sent> done) {
  sendService(
      kUpdateParameters,
      {Value(p.voyantLast1hour), Value(p.voyantLast1day), Value(p.voyantLast1week), Value(p.voyantLast1month),
       Value(p.voyantAll), Value(p.voyantMostRecent), Value(p.minThresholdToSend)},
      std::move(done));
}
ClientResult<Sent> VorlenClientCore::updateParameters(const CompletionParameters& p) {
  return wait<Sent>(kUpdateParameters, [&](Callback<Sent> done) { updateParameters(p, std::move(done)); });
}

void VorlenClientCore::getImageMap(Callback<Value::Dict> done) {
  callService(kGetImageMap, {}, &ClientReplyDecoder::imageMap, std::move(done));
}
ClientResult<Value::Dict> VorlenClientCore::getImageMap() {
  return wait<Value::Dict>(kGetImageMap, [&](Callback<Value::Dict> done) { getImageMap(std::move(done)); });
}

void VorlenClientCore::requestViaEndpoint(const IpcEndpoint& endpoint, const VORRequest& request,
                                          const VORSessionConfiguration& configuration,
                                          Callback<RequestReply> done) {
  post([self = shared_from_this(), path = endpoint.path,
        args = Value::Array{request.toRecord(), configuration.toRecord()}, done = std::move(done)]() mutable {
    ClientError error;
    uint64_t id = 0;
    std::shared_ptr<IpcConnection> c = self->openConnection(path, &id, &error);
    if (!c) return done(ClientResult<RequestReply>::failure(std::move(error)));
    c->resume();
    // The pending call owns the endpoint connection and closes it when the call ends.
    self->issue(c, id, kEndpointRequest, std::move(args),
                [c, done = std::move(done)](ClientResult<IpcMessage> raw) {
                  c->invalidate();
                  done(decodeWith(std::move(raw), &decodeEndpointRequest));
                });
  });
}

ClientResult<RequestReply> VorlenClientCore::requestViaEndpoint(
    const IpcEndpoint& endpoint, const VORRequest& r, const VORSessionConfiguration& configuration) {
  return wait<RequestReply>(kEndpointRequest, [&](Callback<RequestReply> done) {
    requestViaEndpoint(endpoint, r, configuration, std::move(done));
  });
}

}  // namespace vorlen
