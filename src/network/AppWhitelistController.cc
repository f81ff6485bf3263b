#include "network/AppWhitelistController.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "base/Log.h"
#include "base/MappedFile.h"
#include "base/Preferences.h"
#include "base/Transaction.h"
#include "download/DownloadManager.h"
#include "model/Constants.h"
#include "network/AppWhitelistSignature.h"
#include "network/VORNetworkRequestFactory.h"
#include "platform/Assembly.h"
#include "platform/InstalledApplications.h"

namespace vorlen {

namespace {
const Logger& log() {
  return VorlenDefaultLog();
}
}  // namespace

AppWhitelistController::AppWhitelistController(const Assembly& assembly)
    : defaults_(assembly.userDefaults),
      center_(assembly.notificationCenter),
      downloadManager_(assembly.downloadManager),
      installed_(assembly.platform.installedApplications),
      requestFactory_(assembly.requestFactory),
      clock_(assembly.clock() ? assembly.clock() : Clock::system()) {}

AppWhitelistController::~AppWhitelistController() {
  if (timer_) timer_->cancel();
}

std::shared_ptr<AppWhitelistController> AppWhitelistController::create(const Assembly& assembly) {
  std::shared_ptr<AppWhitelistController> controller(new AppWhitelistController(assembly));
  controller->_start();
  return controller;
}

void AppWhitelistController::_start() {
  backgroundQueue_ = Queue::serial("com.velmo.vorlend.appWhitelist", QueuePriority::Background, clock_);
  std::optional<std::string> stored =
      defaults_ ? defaults_->stringForKey(kSignaturePreference) : std::nullopt;
  setWhitelistSignature(stored);

  auto self = shared_from_this();
  timer_ = Timer::weak<AppWhitelistController>(
      clock_, backgroundQueue_, self, [](AppWhitelistController& c) { c._generateWhitelistSignature(); });
  if (center_) {
    std::weak_ptr<Timer> timer = timer_;
    registerToken_ = center_->addObserver(kPlatformInstalledApplicationsDidChangeNotification, nullptr,
                                          [timer](const Notification&) {
                                            if (auto t = timer.lock()) t->arm(kDebounce);
                                          });
  }
  if (!stored) {
    std::weak_ptr<AppWhitelistController> weak = self;
    backgroundQueue_->async([weak] {
      if (auto c = weak.lock()) c->_generateWhitelistSignature();
    });
  }
  if (center_) {
    downloadToken_ = center_->addObserver<AppWhitelistController>(
        kVORFileDownloadCompletedNotification, nullptr, self,
        [](AppWhitelistController& c, const Notification& n) { c._handleNewWhitelistFile(n); });
  }
}

std::optional<std::string> AppWhitelistController::whitelistSignature() const {
  std::lock_guard lock(mu_);
  return whitelistSignature_;
}

void AppWhitelistController::setWhitelistSignature(const std::optional<std::string>& signature) {
  {
    std::lock_guard lock(mu_);
    whitelistSignature_ = signature;
  }
  if (auto factory = requestFactory_.lock()) factory->setAppWhitelistSignature(signature);
}

void AppWhitelistController::_handleNewWhitelistFile(const Notification& notification) {
  const Value* identifier = notification.userInfo.find(kVORIdentifierKey);
  const std::string* id = identifier ? identifier->getString() : nullptr;
  if (!id || *id != kVORInstalledAppWhitelistResource) return;
  std::weak_ptr<AppWhitelistController> weak = weak_from_this();
  backgroundQueue_->async([weak] {
    if (auto c = weak.lock()) c->_generateWhitelistSignature();
  });
}

void AppWhitelistController::_generateWhitelistSignature() {
  backgroundQueue_->assertCurrent();
  Transaction transaction("appWhitelist");
  std::optional<std::string> signature = _generate();
  if (defaults_) {
    if (signature)
      defaults_->set(kSignaturePreference, Value(*signature));
    else
      defaults_->remove(kSignaturePreference);
  }
  setWhitelistSignature(signature);
}

std::optional<std::string> AppWhitelistController::_generate() {
  backgroundQueue_->assertCurrent();
  log().debug("generating app whitelist");
  if (!downloadManager_) {
    log().error("error reading app whitelist {}", "no download manager");
    return std::nullopt;
  }
  VORError error;
  UniqueFd fd = downloadManager_->fileHandleForResource(kVORInstalledAppWhitelistResource, nullptr, &error);
  if (!fd) {
    log().error("error reading app whitelist {}", error.describe());
    return std::nullopt;
  }
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) {
    log().error("mmap failed {}", std::strerror(errno));
    return std::nullopt;
  }
  std::optional<MappedFile> mapped = MappedFile::map(fd.get(), static_cast<size_t>(st.st_size));
  if (!mapped) {
    log().error("mmap failed {}", std::strerror(errno));
    return std::nullopt;
  }
  std::vector<InstalledApplication> apps;
  if (installed_) apps = installed_->installedApplications();
  std::optional<std::string> signature = processWhitelist(mapped->bytes(), apps);
  log().info("installed app signature: {}", Private(signature.value_or("(none)")));
  return signature;
}

void AppWhitelistController::drainForTesting() {
  backgroundQueue_->sync([] {});
}

}  // namespace vorlen
