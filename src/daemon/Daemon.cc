#include "daemon/Daemon.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

#ifdef VORLEN_HAVE_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

#include "base/Counters.h"
#include "base/Log.h"
#include "base/Preferences.h"
#include "base/Transaction.h"
#include "cache/EngagedCompletionCache.h"
#include "cache/Lookup.h"
#include "download/VorlenDownloadManager.h"
#include "feedback/ClientSessionManager.h"
#include "ipc/IpcListener.h"
#include "network/AppWhitelistController.h"
#include "network/HttpSessions.h"
#include "network/LocationManager.h"
#include "network/VORNetworkRequestFactory.h"
#include "network/VorlenBagController.h"
#include "network/VorlenSubscriptionManager.h"
#include "platform/PlatformChangeMonitor.h"
#include "service/ClientStateManager.h"
#include "service/VorlenService.h"
#include "storage/BackgroundActivitiesManager.h"
#include "storage/UploadManager.h"
#include "storage/VorlenCustomFeedbackFlusher.h"
#include "storage/VorlenFeedbackFlusher.h"
#include "storage/VorlenPersistentStorage.h"

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
  // What the user typed reaches the log only when asked for (here or by VORLEND_LOG_PRIVATE=1).
  if (defaults->boolForKey("VORLogPrivateData")) Log::setPrivateDataEnabled(true);

  // 3. The container and the platform-level services.
  if (platform_.counters) Counters::install(platform_.counters);
  auto assembly = std::make_shared<Assembly>(platform_);
  assembly->userDefaults = defaults;
  assembly->notificationCenter =
      platform_.notificationCenter ? platform_.notificationCenter : NotificationCenter::create();
  // The HTTP sessions are made on first use; the completion database opens lazily on its own queues.
  assembly->httpSessions = std::make_shared<HttpSessions>(defaults, platform_.clock, platform_.paths.tempDir);
  assembly->engagedCompletionCache =
      EngagedCompletionCache::create(platform_.paths.cachesDir, platform_.clock, defaults);

  // 4. Location, then requests. Subscriptions, downloads, uploads, storage, flushers and background
  //    activities join here, in that order, as their components are built. Their slots stay empty until
  //    then, and every user tolerates an empty slot.
  assembly->locationManager = LocationManager::create(*assembly);
  assembly->requestFactory = VORNetworkRequestFactory::create(*assembly);
  assembly->subscriptionManager = VorlenSubscriptionManager::create(*assembly, assembly->requestFactory);
  // Resource files. Look-up hints are fetched only while the look-up component allows it; that component
  // joins the graph later (step 6), so the hooks read its slot when they are asked.
  VorlenDownloadManager::Settings downloads;
  std::weak_ptr<Assembly> weakAssembly = assembly;
  downloads.lookupEnabled = [weakAssembly] {
    auto a = weakAssembly.lock();
    return a && a->lookup && a->lookup->lookupEnabled();
  };
  downloads.signatureFromURL = [](const std::string& url) { return Lookup::signatureFromURL(url); };
  assembly->downloadManager = VorlenDownloadManager::create(assembly, std::move(downloads));
  // Uploads: the upload session takes the upload manager as its delegate at first use, so it exists first.
  assembly->uploadManager = UploadManager::create(*assembly);
  // The session files: every file's first record is the daemon's own user agent. The scan of files left
  // by earlier runs happens here, before any client can open a session.
  assembly->persistentStorage = VorlenPersistentStorage::create(
      *assembly, ClientSessionManager::vorlendUserAgent(*assembly).value_or(""));
  // The crowdsourcing flusher, then the background flusher that drains storage in scheduled periods.
  assembly->crowdsourcingFeedbackFlusher =
      VorlenFeedbackFlusher::create(assembly, VorlenFeedbackFlusher::kCrowdsourcing);
  assembly->backgroundFlusher = BackgroundActivitiesManager::create(assembly);

  // 5. One launch per process start.
  VorlenDiagnosticDataReporter::addValue(1, "com.velmo.vorlend.launch");

  // 6. Look-up; then the bag controller (which installs the disk bag at once), the client states and the
  //    app allow-list controller (which reads the allow-list through the download manager).
  assembly->lookup = Lookup::create(*assembly);
  bagController_ = VorlenBagController::create(assembly);
  assembly->bagController = bagController_;
  assembly->clientStateManager = ClientStateManager::create(assembly);
  assembly->appWhitelistController = AppWhitelistController::create(*assembly);
  // 7. Silhouette topics, any property-list value, handed over unchanged. The custom flusher joins here as
  //    it is built.
  if (Value silhouette = defaults->object("silhouette"); !silhouette.isNull())
    assembly->requestFactory->setSilhouetteTopics(silhouette);

  // 8. The custom feedback flusher and its maintenance task (every 12 hours).
  customFeedbackFlusher_ = VorlenCustomFeedbackFlusher::create(assembly);
  customFeedbackFlusher_->scheduleMaintenance();

  // 9. The service completes the object graph.
  service_ = VorlenService::create(assembly);

  // 10. The service socket. Under systemd the socket passed in is used instead of binding one.
  IpcListenerOptions listenerOptions;
  listenerOptions.socketActivation = true;
  std::string error;
  listener_ = IpcListener::named(platform_.paths.serviceSocket, listenerOptions, &error);
  if (listener_) {
    listener_->setDelegate(service_);
    listener_->resume();
  } else {
    // A daemon that cannot take connections serves nobody: say why once and stop here.
    VorlenDefaultLog().fault("cannot listen on {}: {}", platform_.paths.serviceSocket.string(), error);
    return nullptr;
  }

  // 11. Launch-event streams: on Linux systemd socket activation is the launch-on-demand path; the
  //     handler only logs which event launched us.
  ipcEventQueue_ = Queue::serial("com.velmo.vorlend.ipc_event", QueuePriority::Default, platform_.clock);
  if (const char* fds = std::getenv("LISTEN_FDS"); fds && *fds) {
    ipcEventQueue_->async([] { VorlenDefaultLog().info("launch event for {}", kServiceName); });
  }

  // 12. Load or fetch the bag early, off the main thread.
  std::weak_ptr<BagController> bags = bagController_;
  Queue::global(QueuePriority::Background)->async([bags] {
    if (auto controller = bags.lock()) controller->currentBag();
  });

  // 13. Announce start-up from a default-priority concurrent queue.
  auto center = assembly->notificationCenter;
  Queue::global(QueuePriority::Default)->async([center] { center->post("VORStartup"); });

  VorlenDefaultLog().info("vorlend started (pid {}), caches {}, socket {}", ::getpid(),
                          platform_.paths.cachesDir.string(), platform_.paths.serviceSocket.string());
#ifdef VORLEN_HAVE_SYSTEMD
  // The listener is resumed: tell the service manager (Type=notify) that connections are served now.
  sd_notify(0, "READY=1");
#endif
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
  sigaddset(&set, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  // A client that vanishes mid-write must be an error code on that connection, not a process death.
  signal(SIGPIPE, SIG_IGN);
}

void Daemon::run() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGHUP);
  // Idle exit applies only when the service manager can start us again on the next connection.
  const bool idleExit = options_.idleExitSeconds && listener_ && listener_->isSocketActivated();
  auto idleSince = std::chrono::steady_clock::now();
  for (;;) {
    int sig = 0;
    if (idleExit) {
      timespec tick{1, 0};
      sig = sigtimedwait(&set, nullptr, &tick);
      if (sig < 0) {
        // Every client connection and every piece of background work holds a transaction.
        auto now = std::chrono::steady_clock::now();
        if (Transaction::openCount() > 0) idleSince = now;
        if (now - idleSince >= std::chrono::duration<double>(*options_.idleExitSeconds)) {
          VorlenDefaultLog().info("idle for {} s, exiting", *options_.idleExitSeconds);
          if (platform_.counters) platform_.counters->flush();
          std::_Exit(0);
        }
        continue;
      }
    } else if (sigwait(&set, &sig) != 0) {
      continue;
    }
    if (sig == SIGHUP) {
      // The locale, time zone or another platform setting changed: re-read them and announce changes.
      VorlenDefaultLog().info("SIGHUP: re-reading platform settings");
      Preferences::recheckAll();
      if (platform_.changeMonitor) platform_.changeMonitor->checkNow();
      continue;
    }
    VorlenDefaultLog().debug("{}", sig == SIGINT ? "SIGINT" : "SIGTERM");
    // Counters are this platform's aggregate-counter service: hand them over before leaving.
    if (platform_.counters) platform_.counters->flush();
    std::_Exit(0);
  }
}

}  // namespace vorlen
