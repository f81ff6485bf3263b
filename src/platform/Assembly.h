// Assembly: the object graph. One instance per process, built once by the daemon's start-up in a fixed
// order; every long-lived component receives it in its constructor and takes what it needs from it.
//
// A slot whose component failed to initialise (or is not part of this build) stays empty, and every user
// must tolerate an empty slot. Component slots are typed by role interfaces that are only forward-declared
// here, so this header ties no subsystem to another.
//
// Threading: slots are filled during start-up on the main thread, before any client can connect, and are
// read-only afterwards. useQuintara() reads the preferences store at each call and is safe from any thread.
#pragma once

#include <functional>
#include <memory>

#include "base/NotificationCenter.h"
#include "base/Preferences.h"
#include "platform/Platform.h"

namespace vorlen {

class VORNetworkRequestFactory;
class BagController;
class DownloadManager;
class UploadManager;
class ClientStateManager;
class BackgroundFlusher;
class GUIDController;
class ClientSessionManagerProtocol;
class Lookup;
class SubscriptionManager;
class FeedbackFlusher;
class FlusherIPC;
class AppWhitelistController;
class PersistentStorage;
class LocationManager;
class HttpSessions;
class EngagedCompletionCache;
class ClientSessionProtocol;
struct VorlenFeedback;

class Assembly {
 public:
  explicit Assembly(Platform platform) : platform(std::move(platform)) {}

  Platform platform;

  // In declaration order of the object graph.
  std::shared_ptr<Preferences> userDefaults;  // standard domain "com.velmo.vorlend"
  std::shared_ptr<NotificationCenter> notificationCenter;
  std::shared_ptr<VORNetworkRequestFactory> requestFactory;
  std::shared_ptr<BagController> bagController;
  std::shared_ptr<DownloadManager> downloadManager;
  std::shared_ptr<UploadManager> uploadManager;
  std::shared_ptr<ClientStateManager> clientStateManager;
  std::shared_ptr<BackgroundFlusher> backgroundFlusher;
  std::shared_ptr<GUIDController> guidController;
  std::shared_ptr<ClientSessionManagerProtocol> clientSessionManager;
  std::shared_ptr<Lookup> lookup;
  bool sharedSession = true;
  bool testFeedbacks = false;  // nothing in the daemon sets it
  std::shared_ptr<SubscriptionManager> subscriptionManager;
  std::shared_ptr<FeedbackFlusher> crowdsourcingFeedbackFlusher;
  std::shared_ptr<FlusherIPC> flusherIPCListener;
  std::shared_ptr<AppWhitelistController> appWhitelistController;
  std::shared_ptr<PersistentStorage> persistentStorage;
  std::shared_ptr<LocationManager> locationManager;

  // The process-wide HTTP sessions (urlSession, bagSession, downloadURLSession, uploadURLSession), each
  // made once on first use by this factory.
  std::shared_ptr<HttpSessions> httpSessions;
  // The one engaged-completion database of the process.
  std::shared_ptr<EngagedCompletionCache> engagedCompletionCache;
  // Opens a feedback session of a component's own (the bag fetch); empty until feedback sessions exist,
  // and then such events are dropped.
  std::function<std::shared_ptr<ClientSessionProtocol>(const Assembly&, VorlenFeedback)> makeClientSession;
  // The bag controller writes and reads its disk cache only while this is true (it is in the daemon).
  bool diskBagCacheEnabled = true;

  // The file-system service: the daemon's folders.
  const Paths& fileManager() const { return platform.paths; }
  const std::shared_ptr<Clock>& clock() const { return platform.clock; }

  // Preference "VORUseQuintara", read at each call.
  bool useQuintara() const { return userDefaults && userDefaults->boolForKey("VORUseQuintara"); }
};

}  // namespace vorlen
