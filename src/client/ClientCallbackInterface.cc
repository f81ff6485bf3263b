#include "client/ClientCallbackInterface.h"

#include "base/Log.h"
#include "model/Operations.h"

namespace vorlen {

namespace {

// The record when it decodes, nothing when absent; false (after one error line) when present but bad.
template <class R>
bool decodeOptional(const Value& v, const char* op, std::optional<R>* out) {
  if (v.isNull()) return true;
  std::string error;
  std::optional<R> r = R::fromRecord(v, &error);
  if (!r) {
    VorlenLogForCategory(VorlenLogCategoryConnection).error("ignoring {} from the daemon: {}", op, error);
    return false;
  }
  out->emplace(std::move(*r));
  return true;
}

}  // namespace

std::shared_ptr<IpcExportedInterface> ClientCallbackInterface::make(Handlers handlers) {
  using Arg = IpcExportedInterface::Arg;
  auto shared = std::make_shared<const Handlers>(std::move(handlers));
  auto iface = std::make_shared<IpcExportedInterface>(op::kClientInterface);
  iface->add(op::kBagDidLoad,
             {Arg::record({VORBag::kClassName}).orNull(), Arg::record({VORError::kClassName}).orNull()},
             [shared](const IpcMessage& call, IpcReplier) {
               std::optional<VORBag> bag;
               std::optional<VORError> error;
               if (!decodeOptional(call.arg(0), op::kBagDidLoad, &bag) ||
                   !decodeOptional(call.arg(1), op::kBagDidLoad, &error)) {
                 return;
               }
               if (shared->bagDidLoad) shared->bagDidLoad(std::move(bag), std::move(error));
             });
  iface->add(op::kDidDownloadResource, {Arg::string()}, [shared](const IpcMessage& call, IpcReplier) {
    if (shared->didDownloadResource) shared->didDownloadResource(*call.arg(0).getString());
  });
  iface->add(op::kDidDeleteResource, {Arg::string()}, [shared](const IpcMessage& call, IpcReplier) {
    if (shared->didDeleteResource) shared->didDeleteResource(*call.arg(0).getString());
  });
  return iface;
}

}  // namespace vorlen
