#include "platform/Platform.h"

#include "base/Counters.h"
#include "base/Log.h"
#include "base/Preferences.h"
#include "platform/DeviceProperties.h"
#include "platform/InteractionDonor.h"

namespace vorlen {

Platform Platform::forLinux(const Paths& paths) {
  Platform p;
  p.paths = paths;
  p.clock = Clock::system();
  p.device = std::make_shared<LinuxDeviceProperties>(
      std::make_shared<Preferences>(paths.configDir, kServiceName));
  p.counters = std::make_shared<Counters>(paths.cachesDir / Counters::kFileName, p.clock);
  p.notificationCenter = NotificationCenter::create();
  p.interactionDonor = std::make_shared<InteractionDonor>(paths.cachesDir / "interactions.jsonl", p.clock);
  return p;
}

Platform Platform::forTesting(const std::filesystem::path& root, std::shared_ptr<Clock> clock) {
  Platform p;
  p.paths = Paths::underRoot(root);
  std::string error;
  if (!p.paths.create(&error)) VorlenDefaultLog().fault("cannot create test folders: {}", error);
  p.clock = std::move(clock);
  p.device = std::make_shared<FakeDeviceProperties>();
  p.counters = std::make_shared<Counters>(std::filesystem::path(), p.clock);
  p.notificationCenter = NotificationCenter::create();
  p.interactionDonor = std::make_shared<InteractionDonor>(p.paths.cachesDir / "interactions.jsonl", p.clock);
  return p;
}

}  // namespace vorlen
