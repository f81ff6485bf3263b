// Platform: the bundle of platform services the Assembly is built from. The daemon's start-up fills it
// with the Linux realisations; tests fill it with fakes and a ManualClock, so every component can be built
// without the operating system.
//
// Threading: a plain struct, filled once before the Assembly is built and read-only afterwards.
#pragma once

#include <memory>

#include "base/Clock.h"
#include "base/NotificationCenter.h"
#include "base/Paths.h"

namespace vorlen {

class DeviceProperties;
class Counters;
class InteractionDonor;
class SystemNotifier;
class LocaleProvider;
class LocationProvider;
class GeoSession;
class GeoConfiguration;
class DeviceRestrictions;
class PlatformChangeMonitor;
class FileSystem;
class BackgroundActivityScheduler;
class InstalledApplications;
class SubscriptionRegistry;
class MediaStore;
class DataDetectorStore;

struct Platform {
  Paths paths;
  std::shared_ptr<Clock> clock;
  std::shared_ptr<DeviceProperties> device;
  std::shared_ptr<Counters> counters;
  std::shared_ptr<NotificationCenter> notificationCenter;
  // Interaction donations: <caches>/interactions.jsonl.
  std::shared_ptr<InteractionDonor> interactionDonor;
  // System-wide notifications: logged and handed to in-process observers.
  std::shared_ptr<SystemNotifier> systemNotifier;
  // Locale, preferred languages, time zone; location; geo session; geo configuration (environment, client
  // metadata, country code); restrictions, managed account and diagnostics consent. Each posts its
  // kPlatform...DidChangeNotification on `notificationCenter`.
  std::shared_ptr<LocaleProvider> locale;
  std::shared_ptr<LocationProvider> location;
  std::shared_ptr<GeoSession> geoSession;
  std::shared_ptr<GeoConfiguration> geo;
  std::shared_ptr<DeviceRestrictions> restrictions;
  // Linux only (null in tests): re-reads the preferences behind the adapters above every few seconds, so
  // an edit of them is announced without a signal; checkNow() is what a SIGHUP should run.
  std::shared_ptr<PlatformChangeMonitor> changeMonitor;
  // The file layer under session files (the Linux one in tests too, unless a test injects faults).
  std::shared_ptr<FileSystem> fileSystem;
  // Grants background work periods, on `clock`. Linux: in-process, with the battery and idle-hint
  // conditions of the device; tests: the same on their clock, every device condition met.
  std::shared_ptr<BackgroundActivityScheduler> activityScheduler;
  // The installed-applications registry (posts kPlatformInstalledApplicationsDidChangeNotification), the
  // TV-provider subscription registry, the media store's account status and storefront, and the
  // data-detector service of look-up hints. Tests set fakes where they need them.
  std::shared_ptr<InstalledApplications> installedApplications;
  std::shared_ptr<SubscriptionRegistry> subscriptionRegistry;
  std::shared_ptr<MediaStore> mediaStore;
  std::shared_ptr<DataDetectorStore> dataDetectors;

  // Linux services for the given folders (which must exist). The counters persist to
  // <caches>/counters.plist.
  static Platform forLinux(const Paths& paths);
};

}  // namespace vorlen
