#include "support/TestPlatform.h"

#include "base/Counters.h"
#include "base/Log.h"
#include "platform/DataDetectorStore.h"
#include "platform/FileSystem.h"
#include "platform/InProcessActivityScheduler.h"
#include "platform/InteractionDonor.h"
#include "platform/SystemNotifier.h"
#include "support/PlatformFakes.h"

namespace vorlen::test {

Platform platformForTesting(const std::filesystem::path& root, std::shared_ptr<Clock> clock) {
  Platform p;
  p.paths = Paths::underRoot(root);
  std::string error;
  if (!p.paths.create(&error)) VorlenDefaultLog().fault("cannot create test folders: {}", error);
  p.clock = std::move(clock);
  p.device = std::make_shared<FakeDeviceProperties>();
  p.counters = std::make_shared<Counters>(std::filesystem::path(), p.clock);
  p.notificationCenter = NotificationCenter::create();
  p.interactionDonor = std::make_shared<InteractionDonor>(p.paths.cachesDir / "interactions.jsonl", p.clock);
  p.systemNotifier = SystemNotifier::create();
  p.locale = std::make_shared<FakeLocaleProvider>(p.notificationCenter);
  p.location = std::make_shared<FakeLocationProvider>();
  p.geoSession = std::make_shared<FakeGeoSession>();
  p.geo = std::make_shared<FakeGeoConfiguration>(p.notificationCenter);
  p.restrictions = std::make_shared<FakeDeviceRestrictions>(p.notificationCenter);
  p.fileSystem = linuxFileSystem();
  p.activityScheduler = InProcessActivityScheduler::create(p.clock);
  p.dataDetectors = std::make_shared<FileDataDetectorStore>(p.paths.cachesDir / "datadetectors");
  return p;
}

}  // namespace vorlen::test
