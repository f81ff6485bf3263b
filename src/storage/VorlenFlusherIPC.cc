#include "storage/VorlenFlusherIPC.h"

#include <nlohmann/json.hpp>

#include "base/Log.h"
#include "ipc/IpcConnection.h"
#include "ipc/IpcExportedInterface.h"
#include "ipc/IpcListener.h"
#include "model/Operations.h"
#include "platform/Assembly.h"
#include "storage/BackgroundFlusher.h"

namespace vorlen {

namespace {

const Logger& log() {
  return VorlenLogForCategory(VorlenLogCategoryFlusher);
}
const Logger& sessionLog() {
  return VorlenLogForCategory(VorlenLogCategorySession);
}

constexpr uint64_t kIntentSendingStream = 0;
constexpr uint64_t kIntentReceivingStream = 1;
constexpr uint64_t kIntentStopFlushing = 2;
constexpr uint64_t kIntentDump = 3;

std::string describe(const std::shared_ptr<IpcConnection>& tool) {
  if (!tool) return "(null)";
  const IpcPeer& peer = tool->peer();
  return fmt::format("{} ({})", peer.executableName.value_or("(null)"), peer.pid);
}

// The text a receiving listener gets for one event: the event's log form (its dictionary, "type",
// "query_id" where the class has one, "timestamp" in milliseconds of machine time) with the sender's
// "agent". Nothing for text that cannot be written as JSON.
std::optional<std::string> describeForTool(const VorlenFeedback& feedback) {
  nlohmann::ordered_json d = feedback.dictionary();
  d["timestamp"] = feedback.feedback.timestamp() / QXFeedback::kMachineTimeUnitsPerMillisecond;
  d["agent"] = feedback.userAgent;
  try {
    return d.dump();
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }
}

}  // namespace

std::shared_ptr<VorlenFlusherIPC> VorlenFlusherIPC::create(const std::shared_ptr<Assembly>& assembly,
                                                           GetClientConnections getClientConnections) {
  auto endpoint =
      std::shared_ptr<VorlenFlusherIPC>(new VorlenFlusherIPC(assembly, std::move(getClientConnections)));
  endpoint->start();
  return endpoint;
}

VorlenFlusherIPC::VorlenFlusherIPC(const std::shared_ptr<Assembly>& assembly,
                                   GetClientConnections getClientConnections)
    : assembly_(assembly),
      getClientConnections_(std::move(getClientConnections)),
      flusheripcQueue_(Queue::serial("com.velmo.vorlend.flusherIPCQueue", QueuePriority::Utility,
                                     assembly ? assembly->clock() : nullptr)) {}

VorlenFlusherIPC::~VorlenFlusherIPC() {
  if (listener_) listener_->invalidate();
  log().notice("stopped listening for VORFlusherListener connections");
}

void VorlenFlusherIPC::start() {
  auto assembly = assembly_.lock();
  if (!assembly) return;
  IpcListenerOptions options;
  options.maxConnections = kMaxToolConnections;
  options.maxConnectionsPerProcess = kMaxToolConnections;
  options.connection.maxOutgoingBytes = kMaxToolOutgoingBytes;
  options.connection.queueLabel = "com.velmo.vorlend.flusherIPC.connection";
  options.queueLabel = "com.velmo.vorlend.flusherIPC.listener";
  std::string error;
  listener_ = IpcListener::anonymous(assembly->fileManager().runtimeDir, options, &error);
  if (!listener_) {
    log().error("cannot create the flusher endpoint: {}", error);
    return;
  }
  listener_->setDelegate(weak_from_this());
  listener_->resume();
  log().notice("started accepting connections :{}", listener_->path().string());
}

std::optional<IpcEndpoint> VorlenFlusherIPC::endpoint() const {
  if (!listener_) return std::nullopt;
  return listener_->endpoint();
}

bool VorlenFlusherIPC::shouldAcceptNewConnection(IpcListener&,
                                                 const std::shared_ptr<IpcConnection>& connection) {
  std::weak_ptr<VorlenFlusherIPC> weak = weak_from_this();
  std::weak_ptr<IpcConnection> weakTool = connection;
  connection->setProxyErrorHandler(
      [](const std::string& reason) { log().error("remote proxy error: {}", reason); });
  // Each handler removes the proxy it was made for; removing one that is already gone does nothing.
  auto remover = [weak, weakTool](const char* line) {
    return [weak, weakTool, line] {
      log().notice("{}", line);
      auto self = weak.lock();
      auto tool = weakTool.lock();
      if (!self || !tool) return;
      self->flusheripcQueue_->async([self, tool] { self->_removeProxy(tool); });
    };
  };
  connection->setInterruptionHandler(remover("listener interrupted"));
  connection->setInvalidationHandler(remover("listener invalidated"));
  // The calling tool is the one an intent acts on, so each connection gets an interface bound to it.
  auto exported = std::make_shared<IpcExportedInterface>(op::kFlusherInterface);
  exported->add(op::kInitiateConnectionWithIntent, {IpcExportedInterface::Arg::unsignedInteger()},
                [weak, weakTool](const IpcMessage& call, IpcReplier) {
                  auto self = weak.lock();
                  auto tool = weakTool.lock();
                  if (!self || !tool) return;
                  const uint64_t intent = *call.arg(0).getUInt();
                  self->flusheripcQueue_->async(
                      [self, tool, intent] { self->initiateConnectionWithIntent(intent, tool); });
                });
  connection->setExportedInterface(std::move(exported));
  flusheripcQueue_->async([weak, connection] {
    if (auto self = weak.lock()) self->remoteObject_ = connection;
  });
  return true;
}

void VorlenFlusherIPC::initiateConnectionWithIntent(uint64_t intent,
                                                    const std::shared_ptr<IpcConnection>& tool) {
  flusheripcQueue_->assertCurrent();
  switch (intent) {
    case kIntentSendingStream:
      sendingStreamListener_ = tool;
      log().notice("new listener for flusher client sessions, delegate: {}", describe(tool));
      break;
    case kIntentReceivingStream:
      _setReceiving(tool);
      log().notice("new listener for client feedbacks, delegate: {}", describe(tool));
      break;
    case kIntentStopFlushing:
      if (auto assembly = assembly_.lock(); assembly && assembly->backgroundFlusher)
        assembly->backgroundFlusher->setStopFlushing(true);
      log().notice("flushing stopped; dump command will start flushing again");
      tool->send(op::kWorkDone, {});
      break;
    case kIntentDump:
      _dump(tool);
      break;
    default:
      log().notice("Unsupported command yet: {}", intent);
      break;
  }
}

void VorlenFlusherIPC::_dump(const std::shared_ptr<IpcConnection>& tool) {
  flusheripcQueue_->assertCurrent();
  if (!sendingStreamListener_) {
    log().notice("no listener for sending stream setting this client as remote");
    sendingStreamListener_ = tool;
  }
  log().notice("new listener for flusher client sessions, delegate: {}", describe(tool));
  auto assembly = assembly_.lock();
  std::weak_ptr<IpcConnection> weakTool = tool;
  if (!assembly || !getClientConnections_) {
    _workDone(weakTool);
    return;
  }
  std::shared_ptr<BackgroundFlusher> background = assembly->backgroundFlusher;
  std::weak_ptr<VorlenFlusherIPC> weak = weak_from_this();
  auto drainThenWorkDone = [weak, weakTool, background] {
    auto done = [weak, weakTool] {
      if (auto self = weak.lock()) self->_workDone(weakTool);
    };
    if (background) {
      background->insertFlushActivity(done);
    } else {
      done();
    }
  };
  std::vector<FlusherClientConnection> connections = getClientConnections_();
  // The tool's own connection is normally among them; without any, storage is still drained.
  if (connections.empty()) drainThenWorkDone();
  for (const FlusherClientConnection& connection : connections) {
    connection.flushSession([agent = connection.userAgent, drainThenWorkDone] {
      sessionLog().notice("session flushed because of dump command {}", agent);
      drainThenWorkDone();
    });
    // One session serves every client: flushing it through the first connection flushes it for all.
    if (assembly->sharedSession) break;
  }
}

void VorlenFlusherIPC::_workDone(const std::weak_ptr<IpcConnection>& tool) {
  if (auto assembly = assembly_.lock(); assembly && assembly->backgroundFlusher)
    assembly->backgroundFlusher->setStopFlushing(false);
  flusheripcQueue_->async([tool] {
    if (auto connection = tool.lock()) connection->send(op::kWorkDone, {});
  });
}

void VorlenFlusherIPC::_setReceiving(std::shared_ptr<IpcConnection> tool) {
  flusheripcQueue_->assertCurrent();
  receivingStreamListener_ = std::move(tool);
  receivingGeneration_.fetch_add(1);
  hasReceivingListener_.store(receivingStreamListener_ != nullptr);
}

void VorlenFlusherIPC::_removeProxy(const std::shared_ptr<IpcConnection>& proxy) {
  flusheripcQueue_->assertCurrent();
  if (receivingStreamListener_ == proxy) {
    _setReceiving(nullptr);
    log().notice("Removed receiving stream listener");
  }
  if (sendingStreamListener_ == proxy) {
    sendingStreamListener_.reset();
    log().notice("Removed sending stream listener");
  }
  if (remoteObject_ == proxy) {
    remoteObject_.reset();
    log().notice("Removed remote listener");
  }
}

void VorlenFlusherIPC::sendDataToSendingStreamListener(std::vector<MappedFile> payloads) {
  if (payloads.empty()) return;
  auto held = std::make_shared<std::vector<MappedFile>>(std::move(payloads));
  std::weak_ptr<VorlenFlusherIPC> weak = weak_from_this();
  flusheripcQueue_->async([weak, held] {
    auto self = weak.lock();
    if (!self || !self->sendingStreamListener_) return;
    if (!self->sendingStreamListener_->isValid()) {
      self->_removeProxy(self->sendingStreamListener_);
      return;
    }
    Value::Array items;
    items.reserve(held->size());
    for (const MappedFile& payload : *held)
      items.emplace_back(Value::Data(payload.bytes().begin(), payload.bytes().end()));
    self->sendingStreamListener_->send(op::kFlushedData, {Value(std::move(items))});
  });
}

void VorlenFlusherIPC::sendDataToReceivingStreamListener(const VorlenFeedback& feedback) {
  if (!hasReceivingListener_.load(std::memory_order_relaxed)) return;
  if (pendingDescriptions_.fetch_add(1) >= kMaxPendingDescriptions) {
    pendingDescriptions_.fetch_sub(1);
    // Only the first refusal of an episode cuts the tool off; the stream is gone until a tool asks again.
    if (hasReceivingListener_.exchange(false)) {
      log().error("receiving stream listener cut off: {} events wait for it", kMaxPendingDescriptions);
      // Only the listener of now is cut off, not one that a tool sets before this runs.
      const uint64_t generation = receivingGeneration_.load();
      std::weak_ptr<VorlenFlusherIPC> weak = weak_from_this();
      flusheripcQueue_->async([weak, generation] {
        auto self = weak.lock();
        if (!self || !self->receivingStreamListener_ || self->receivingGeneration_.load() != generation)
          return;
        self->receivingStreamListener_->invalidate();
        self->_setReceiving(nullptr);
      });
    }
    return;
  }
  // The copy must not hold the sender's backlog: a client's events wait for storage, never for a tool.
  VorlenFeedback copy = feedback;
  copy.untilStored.reset();
  std::weak_ptr<VorlenFlusherIPC> weak = weak_from_this();
  flusheripcQueue_->async([weak, copy = std::move(copy)] {
    auto self = weak.lock();
    if (!self) return;
    self->pendingDescriptions_.fetch_sub(1);
    if (!self->receivingStreamListener_) return;
    // A tool cut off meanwhile is removed here, before its invalidation handler runs, so that the events
    // still queued for it are not each reported as unsendable.
    if (!self->receivingStreamListener_->isValid()) {
      self->_removeProxy(self->receivingStreamListener_);
      return;
    }
    std::optional<std::string> text = describeForTool(copy);
    if (!text || text->empty()) return;
    // A tool that does not read is closed by its connection (one error line) when too much waits for it.
    self->receivingStreamListener_->send(op::kReceivedFeedbackDescription, {Value(std::move(*text))});
  });
}

}  // namespace vorlen
