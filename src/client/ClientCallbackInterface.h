// ClientCallbackInterface: the "VORClientIPC" interface a client exports on its service connection, so
// that the daemon can call it: bagDidLoad:error:, didDownloadResource:, didDeleteResource:.
//
// The exported interface checks each call's argument count and types before anything runs (a bad call
// is logged by the connection and ignored). The bag and the error are then decoded strictly through
// their fromRecord; a record that fails that check drops the call after one error line, so a handler
// only ever sees well-formed values.
//
// Threading: make() builds a read-only interface; its handlers run on the connection's queue.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "ipc/IpcExportedInterface.h"
#include "model/VORBag.h"
#include "model/VORError.h"

namespace vorlen {

class ClientCallbackInterface {
 public:
  struct Handlers {
    std::function<void(std::optional<VORBag>, std::optional<VORError>)> bagDidLoad;
    std::function<void(const std::string& identifier)> didDownloadResource;
    std::function<void(const std::string& identifier)> didDeleteResource;
  };

  // Missing handlers make the matching calls no-ops (after the checks).
  static std::shared_ptr<IpcExportedInterface> make(Handlers handlers);
};

}  // namespace vorlen
