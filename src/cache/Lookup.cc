#include "cache/Lookup.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "base/Log.h"
#include "base/Preferences.h"
#include "base/Transaction.h"
#include "base/UniqueFd.h"
#include "cache/LookupResultFilter.h"
#include "download/DownloadManager.h"
#include "model/Constants.h"
#include "model/VORRequest.h"
#include "network/UrlComponents.h"
#include "platform/Assembly.h"
#include "platform/DataDetectorStore.h"
#include "platform/LocaleProvider.h"

namespace vorlen {

namespace {

const Logger& log() {
  return VorlenLogForCategory(VorlenLogCategoryLookUp);
}

const char* identifierForKind(int kind) {
  return kind == Lookup::kMonthlySourceKind ? kVORLookupHintsMonthlyResource : kVORLookupHintsWeeklyResource;
}

}  // namespace

Lookup::Lookup(const Assembly& assembly)
    : center_(assembly.notificationCenter),
      downloadManager_(assembly.downloadManager),
      dataDetectors_(assembly.platform.dataDetectors),
      locale_(assembly.platform.locale),
      shared_(std::make_shared<Preferences>(assembly.platform.paths.configDir, kSharedDomain)),
      queue_(Queue::serial("com.velmo.vorlen.Lookup", QueuePriority::Utility, assembly.clock())) {}

std::shared_ptr<Lookup> Lookup::create(const Assembly& assembly) {
  std::shared_ptr<Lookup> lookup(new Lookup(assembly));
  lookup->_start();
  return lookup;
}

void Lookup::_start() {
  if (!center_) return;
  auto self = shared_from_this();
  auto hints = [](Lookup& l, const Notification& n) { l._handleHintsFile(n); };
  observers_.push_back(
      center_->addObserver<Lookup>(kVORFileDownloadCompletedNotification, nullptr, self, hints));
  observers_.push_back(center_->addObserver<Lookup>(kVORFileDeletedNotification, nullptr, self, hints));
  observers_.push_back(center_->addObserver<Lookup>(
      kVORStartup, nullptr, self, [](Lookup& l, const Notification& n) { l._reprocessHintsFiles(n); }));
}

bool Lookup::lookupEnabled() const {
  return !shared_->boolForKey(kDisabledKey);
}

std::string Lookup::signatureFromURL(const std::string& url) {
  auto components = UrlComponents::parse(url);
  std::string path = components ? components->path() : std::string();
  std::vector<std::string> parts;
  for (size_t start = 0;;) {
    size_t slash = path.find('/', start);
    parts.push_back(path.substr(start, slash == std::string::npos ? std::string::npos : slash - start));
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
  if (parts.size() > 4) return parts[3] + "-" + parts[4] + "-" + parts[2];
  log().error("invalid lookup hints url when processing signature: {}", Private(url));
  return "";
}

std::optional<nlohmann::json> Lookup::filterLookupResultsWithRequest(const VORLookupRequest& request,
                                                                     nlohmann::json response) const {
  LookupResultFilter filter(locale_ ? locale_->localeIdentifier() : std::string("en_US"));
  return filter.filter(request.lookupContext, std::move(response));
}

void Lookup::_handleHintsFile(const Notification& notification) {
  const Value* id = notification.userInfo.find(kVORIdentifierKey);
  const std::string* identifier = id ? id->getString() : nullptr;
  if (!identifier ||
      (*identifier != kVORLookupHintsWeeklyResource && *identifier != kVORLookupHintsMonthlyResource))
    return;
  const int kind = *identifier == kVORLookupHintsMonthlyResource ? kMonthlySourceKind : kWeeklySourceKind;
  std::optional<std::string> location;
  if (const Value* url = notification.userInfo.find(kVORURLKey); url && url->getString())
    location = *url->getString();
  std::weak_ptr<Lookup> weak = weak_from_this();
  queue_->async([weak, kind, location, identifier = *identifier] {
    auto self = weak.lock();
    if (!self) return;
    Transaction transaction("_handleHintsFile");
    self->_push(kind, location, identifier);
  });
}

void Lookup::_push(int kind, const std::optional<std::string>& location, const std::string& identifier) {
  queue_->assertCurrent();
  log().notice("processing lookup hints for location: {} sourceKind: {}", location.value_or("(null)"), kind);
  UniqueFd file;
  if (location) {
    std::string path = location->rfind("file://", 0) == 0 ? location->substr(7) : *location;
    file.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) log().error("error trying to open hints file: {} at location: {}", std::strerror(errno), path);
  }
  std::string signature;
  if (file && downloadManager_) {
    auto versions = downloadManager_->resourceVersions();
    if (auto it = versions.find(identifier); it != versions.end()) signature = it->second;
  }
  if (!dataDetectors_ || !dataDetectors_->pushSource(kind, file ? file.get() : -1, signature))
    log().error("failed to push data to data detectors");
}

void Lookup::_reprocessHintsFiles(const Notification&) {
  log().notice("reprocessing lookup hints files");
  std::weak_ptr<Lookup> weak = weak_from_this();
  queue_->async([weak] {
    auto self = weak.lock();
    if (!self) return;
    Transaction transaction("_reprocessHintsFiles");
    std::map<std::string, std::string> versions;
    if (self->downloadManager_) versions = self->downloadManager_->resourceVersions();
    self->_reprocessKind(kMonthlySourceKind, versions);
    self->_reprocessKind(kWeeklySourceKind, versions);
  });
}

void Lookup::_reprocessKind(int kind, const std::map<std::string, std::string>& versions) {
  queue_->assertCurrent();
  const std::string identifier = identifierForKind(kind);
  std::optional<std::string> version;
  if (auto it = versions.find(identifier); it != versions.end()) version = it->second;
  std::optional<std::string> signature =
      dataDetectors_ ? dataDetectors_->signatureForSourceKind(kind) : std::nullopt;
  if (signature == version) return;
  log().info("signature ({}) does not match version ({}), DD for kind: {} requires reprocessing",
             signature.value_or("(null)"), version.value_or("(null)"), kind);
  VORError error;
  UniqueFd file =
      downloadManager_ ? downloadManager_->fileHandleForResource(identifier, nullptr, &error) : UniqueFd();
  if (!file) {
    log().info("reprocess file doesn't exist or there was an error. file: {} error: {}", identifier,
               downloadManager_ ? error.describe() : std::string("no download manager"));
    return;
  }
  if (!dataDetectors_ || !dataDetectors_->pushSource(kind, file.get(), version.value_or("")))
    log().error("failed to push data to data detectors");
}

void Lookup::_drainQueue() {
  queue_->sync([] {});
}

}  // namespace vorlen
