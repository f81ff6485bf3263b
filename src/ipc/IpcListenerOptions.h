// IpcListenerOptions: the settings of one IpcListener. Plain settings with the production defaults.
#pragma once

#include <cstddef>
#include <string>

#include "ipc/IpcConnectionOptions.h"
#include "ipc/IpcSocketActivation.h"

namespace vorlen {

struct IpcListenerOptions {
  // Given to every accepted connection (its runtime is also the listener's).
  IpcConnectionOptions connection;
  // Connections of this listener open at once; one more is closed at once with an error line.
  size_t maxConnections = 256;
  // Named listeners only: take the socket the service manager passed, when there is one.
  bool socketActivation = false;
  int activationDescriptorForTesting = IpcSocketActivation::kFirstDescriptor;
  // The queue the delegate runs on.
  std::string queueLabel = "com.velmo.vorlend.ipc.listener";
};

}  // namespace vorlen
