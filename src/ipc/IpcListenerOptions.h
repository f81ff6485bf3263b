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
  // Connections of one peer process open at once, well below maxConnections so that one process can never
  // lock the others out; one more is closed at once (one error line until that process drops below it).
  size_t maxConnectionsPerProcess = 32;
  // When accepting fails for want of descriptors or memory, accepting pauses this long (one error line
  // for the whole episode) instead of spinning on a socket that stays readable.
  Duration acceptBackoff = seconds(1);
  // Named listeners only: take the socket the service manager passed, when there is one.
  bool socketActivation = false;
  int activationDescriptorForTesting = IpcSocketActivation::kFirstDescriptor;
  // The queue the delegate runs on.
  std::string queueLabel = "com.velmo.vorlend.ipc.listener";
};

}  // namespace vorlen
