#include "client/VorlenFlusherClient.h"

#include "ipc/IpcConnection.h"
#include "ipc/IpcExportedInterface.h"
#include "model/Operations.h"

namespace vorlen {

std::shared_ptr<VorlenFlusherClient> VorlenFlusherClient::connect(const IpcEndpoint& endpoint,
                                                                  Handlers handlers, std::string* error) {
  IpcConnectionOptions options;
  options.queueLabel = "com.velmo.vorlen.flusherclient";
  std::shared_ptr<IpcConnection> connection = IpcConnection::connect(endpoint, options, error);
  if (!connection) return nullptr;
  using Arg = IpcExportedInterface::Arg;
  auto exported = std::make_shared<IpcExportedInterface>(op::kFlusherListenerInterface);
  auto shared = std::make_shared<Handlers>(std::move(handlers));
  exported->add(op::kFlushedData, {Arg::array()}, [shared](const IpcMessage& call, IpcReplier) {
    std::vector<Value::Data> payloads;
    for (const Value& item : *call.arg(0).getArray())
      if (const Value::Data* data = item.getData()) payloads.push_back(*data);
    if (shared->flushedData) shared->flushedData(std::move(payloads));
  });
  exported->add(op::kReceivedFeedbackDescription, {Arg::string()},
                [shared](const IpcMessage& call, IpcReplier) {
                  if (shared->receivedFeedbackDescription)
                    shared->receivedFeedbackDescription(*call.arg(0).getString());
                });
  exported->add(op::kWorkDone, {}, [shared](const IpcMessage&, IpcReplier) {
    if (shared->workDone) shared->workDone();
  });
  connection->setExportedInterface(std::move(exported));
  connection->setInvalidationHandler([shared] {
    if (shared->closed) shared->closed();
  });
  connection->resume();
  return std::shared_ptr<VorlenFlusherClient>(new VorlenFlusherClient(std::move(connection)));
}

VorlenFlusherClient::VorlenFlusherClient(std::shared_ptr<IpcConnection> connection)
    : connection_(std::move(connection)) {}

VorlenFlusherClient::~VorlenFlusherClient() {
  connection_->invalidate();
}

bool VorlenFlusherClient::initiateConnectionWithIntent(uint64_t intent) {
  return connection_->send(op::kInitiateConnectionWithIntent, {Value(intent)});
}

bool VorlenFlusherClient::isConnected() const {
  return connection_->isValid();
}

void VorlenFlusherClient::close() {
  connection_->invalidate();
}

}  // namespace vorlen
