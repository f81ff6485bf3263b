#include "platform/Platform.h"

#include <cstdlib>

#include "base/Counters.h"
#include "base/Log.h"
#include "base/Preferences.h"
#include "platform/DataDetectorStore.h"
#include "platform/DevicePowerState.h"
#include "platform/DeviceProperties.h"
#include "platform/DeviceRestrictions.h"
#include "platform/FileSystem.h"
#include "platform/GeoConfiguration.h"
#include "platform/GeoSession.h"
#include "platform/InProcessActivityScheduler.h"
#include "platform/InstalledApplications.h"
#include "platform/InteractionDonor.h"
#include "platform/LocaleProvider.h"
#include "platform/LocationProvider.h"
#include "platform/MediaStore.h"
#include "platform/PlatformChangeMonitor.h"
#include "platform/SubscriptionRegistry.h"
#include "platform/SystemNotifier.h"

namespace vorlen {

Platform Platform::forLinux(const Paths& paths) {
  Platform p;
  p.paths = paths;
  p.clock = Clock::system();
  p.device =
      std::make_shared<LinuxDeviceProperties>(std::make_shared<Preferences>(paths.configDir, kServiceName));
  p.counters = std::make_shared<Counters>(paths.cachesDir / Counters::kFileName, p.clock);
  p.notificationCenter = NotificationCenter::create();
  p.interactionDonor = std::make_shared<InteractionDonor>(paths.cachesDir / "interactions.jsonl", p.clock);
  p.systemNotifier = SystemNotifier::create();
  p.fileSystem = linuxFileSystem();
  {
    auto power = std::make_shared<DevicePowerState>();
    // VORLEND_ACTIVITY_TIMESCALE (a positive number) shortens every activity delay and interval by that
    // factor: tests of the real program and developers see drains without waiting minutes.
    double timeScale = 1.0;
    if (const char* scale = std::getenv("VORLEND_ACTIVITY_TIMESCALE")) timeScale = std::atof(scale);
    p.activityScheduler = InProcessActivityScheduler::create(
        p.clock, {[power] { return power->onBattery(); }, [power] { return power->screenAsleep(); }},
        timeScale);
  }
  {
    auto defaults = std::make_shared<Preferences>(paths.configDir, kServiceName);
    auto locale = std::make_shared<LinuxLocaleProvider>(defaults, p.notificationCenter);
    auto location = std::make_shared<LinuxLocationProvider>(defaults, p.notificationCenter);
    auto geo = std::make_shared<LinuxGeoConfiguration>(defaults, locale, p.notificationCenter);
    auto restrictions = std::make_shared<LinuxDeviceRestrictions>(defaults, p.notificationCenter);
    p.locale = locale;
    p.location = location;
    p.geoSession = std::make_shared<LinuxGeoSession>();
    p.geo = geo;
    p.restrictions = restrictions;
    auto apps = std::make_shared<XdgInstalledApplications>(
        XdgInstalledApplications::dataDirsFromEnvironment(), p.notificationCenter);
    auto subscriptions = std::make_shared<FileSubscriptionRegistry>(
        paths.configDir / FileSubscriptionRegistry::kFileName, p.notificationCenter);
    auto mediaStore = std::make_shared<PreferencesMediaStore>(defaults, p.notificationCenter);
    p.installedApplications = apps;
    p.subscriptionRegistry = subscriptions;
    p.mediaStore = mediaStore;
    p.dataDetectors = std::make_shared<FileDataDetectorStore>(paths.cachesDir / "datadetectors");
    p.changeMonitor = PlatformChangeMonitor::create(
        p.clock,
        {[locale] { locale->checkForChanges(); }, [geo] { geo->checkForChanges(); },
         [location] { location->checkForChanges(); }, [restrictions] { restrictions->checkForChanges(); },
         [apps] { apps->checkForChanges(); }, [subscriptions] { subscriptions->checkForChanges(); },
         [mediaStore] { mediaStore->checkForChanges(); }});
    p.changeMonitor->start();
  }
  return p;
}

}  // namespace vorlen
