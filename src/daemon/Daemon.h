// Daemon: the start-up of vorlend. Builds the Assembly in its fixed order (later components read earlier
// ones from it in their constructors), starts the client listener, posts "VORStartup", and then waits for
// SIGINT or SIGTERM, either of which ends the process at once with status 0: everything persistent is
// written as it changes, so nothing needs flushing on the way out. SIGHUP re-reads the platform settings
// (locale, time zone, location and restriction preferences) and announces what changed.
//
// Threading: start() and run() are called once, on the main thread, before any other thread of ours
// exists (signals must be blocked before threads are spawned so that every thread inherits the mask).
#pragma once

#include <memory>
#include <optional>

#include "base/Queue.h"
#include "platform/Assembly.h"

namespace vorlen {

class IpcListener;
class VorlenService;
class VorlenCustomFeedbackFlusher;
class BagController;

struct DaemonOptions {
  // Exit after this many seconds without connections or open transactions (socket activation only).
  std::optional<double> idleExitSeconds;
};

class Daemon {
 public:
  Daemon(Platform platform, DaemonOptions options = {});
  ~Daemon();

  // The six registered preference defaults.
  static Value::Dict registeredDefaults();

  // Start-up up to and including the "VORStartup" post. Returns the Assembly it built, or null (after a
  // fault line) when the service socket can be neither bound nor taken from the service manager.
  std::shared_ptr<Assembly> start();

  // Blocks SIGINT and SIGTERM in the calling thread; call before start() so every thread inherits it.
  static void blockTerminationSignals();
  // Waits for SIGINT or SIGTERM, logs "SIGINT" / "SIGTERM" at debug level and exits the process with 0.
  [[noreturn]] void run();

  const std::shared_ptr<Assembly>& assembly() const { return assembly_; }
  const std::shared_ptr<VorlenService>& service() const { return service_; }
  const std::shared_ptr<IpcListener>& listener() const { return listener_; }

 private:
  Platform platform_;
  DaemonOptions options_;
  std::shared_ptr<Assembly> assembly_;
  std::shared_ptr<Queue> ipcEventQueue_;
  std::shared_ptr<VorlenService> service_;
  std::shared_ptr<IpcListener> listener_;
  std::shared_ptr<BagController> bagController_;
  // Not an Assembly slot: kept alive here for its periodic task.
  std::shared_ptr<VorlenCustomFeedbackFlusher> customFeedbackFlusher_;
};

}  // namespace vorlen
