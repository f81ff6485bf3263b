#include "daemon/Daemon.h"

#include <signal.h>
#include <unistd.h>

#include <cstdlib>

#include "base/Counters.h"
#include "base/Log.h"

namespace vorlen {

Daemon::Daemon(Platform platform, DaemonOptions options)
    : platform_(std::move(platform)), options_(std::move(options)) {}

Daemon::~Daemon() = default;

Value::Dict Daemon::registeredDefaults() {
  return Value::Dict{
      {"VORSharedSession", Value(true)},
      {"VORSessionSizeLimit", Value(uint64_t{2097152})},
      {"VORSessionMaxAge", Value(uint64_t{172800})},
      {"VORUseQuintara", Value(true)},
      {"VORSessionSoftLimitOverride", Value(int64_t{600})},
      {"VORSessionIdleTimeOverride", Value(int64_t{180})},
  };
}

std::shared_ptr<Assembly> Daemon::start() {
  auto defaults = std::make_shared<Preferences>(platform_.paths.configDir, kServiceName);
  // 1. The trace switch is read once per process.
  VORTracingSetup(*defaults);
  // 2. Registered, never written: a value the user set wins.
  defaults->registerDefaults(registeredDefaults());

  // 3. The container and the platform-level services.
  if (platform_.counters) Counters::install(platform_.counters);
  auto assembly = std::make_shared<Assembly>(platform_);
  assembly->userDefaults = defaults;
  assembly->notificationCenter = platform_.notificationCenter ? platform_.notificationCenter : NotificationCenter::create();

  // 4. Location, requests, subscriptions, downloads, uploads, storage, flushers and background
  //    activities come here, in that order, as their components are built. Their slots stay empty until
  //    then, and every user tolerates an empty slot.

  // 5. One launch per process start.
  VorlenDiagnosticDataReporter::addValue(1, "com.velmo.vorlend.launch");

  // 6-9. Look-up, bag controller, client state manager, allow-list, silhouette topics, the custom
  //      flusher and the service itself join here as they are built.

  // 11. Launch-event streams: on Linux systemd socket activation is the launch-on-demand path; the
  //     handler only logs which event launched us.
  ipcEventQueue_ = Queue::serial("com.velmo.vorlend.ipc_event", QueuePriority::Default, platform_.clock);
  if (const char* fds = std::getenv("LISTEN_FDS"); fds && *fds) {
    ipcEventQueue_->async([] { VorlenDefaultLog().info("launch event for {}", kServiceName); });
  }

  // 13. Announce start-up from a default-priority concurrent queue.
  auto center = assembly->notificationCenter;
  Queue::global(QueuePriority::Default)->async([center] { center->post("VORStartup"); });

  VorlenDefaultLog().info("vorlend started (pid {}), caches {}, socket {}", ::getpid(),
                          platform_.paths.cachesDir.string(), platform_.paths.serviceSocket.string());
  assembly_ = assembly;
  return assembly;
}

void Daemon::blockTerminationSignals() {
  // Blocking both signals in every thread replaces their default disposition: they are only ever
  // consumed by run(), so a signal can never kill the process half-way through a write.
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  // A client that vanishes mid-write must be an error code on that connection, not a process death.
  signal(SIGPIPE, SIG_IGN);
}

void Daemon::run() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  for (;;) {
    int sig = 0;
    if (sigwait(&set, &sig) != 0) continue;
    VorlenDefaultLog().debug("{}", sig == SIGINT ? "SIGINT" : "SIGTERM");
    // Counters are this platform's aggregate-counter service: hand them over before leaving.
    if (platform_.counters) platform_.counters->flush();
    std::_Exit(0);
  }
}

}  // namespace vorlen
