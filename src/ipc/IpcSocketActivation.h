// IpcSocketActivation: takes over the listening socket that the service manager passes to a process
// started on demand (LISTEN_PID naming this process and LISTEN_FDS >= 1; the first passed descriptor is
// number 3).
//
// Threading: call once at start-up, before other threads read the environment.
#pragma once

#include "base/UniqueFd.h"

namespace vorlen {

class IpcSocketActivation {
 public:
  static constexpr int kFirstDescriptor = 3;

  // The passed socket, or an invalid descriptor when the process was not started that way. LISTEN_PID,
  // LISTEN_FDS and LISTEN_FDNAMES are removed from the environment either way, so that child processes do
  // not take them for their own. A passed descriptor that is not a listening Unix stream socket is left
  // alone and reported with one error line. `firstDescriptor` is injectable for tests.
  static UniqueFd takeListeningSocket(int firstDescriptor = kFirstDescriptor);
};

}  // namespace vorlen
