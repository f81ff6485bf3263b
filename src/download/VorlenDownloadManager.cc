#include "download/VorlenDownloadManager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "base/Counters.h"
#include "base/Log.h"
#include "base/Preferences.h"
#include "base/Transaction.h"
#include "feedback/ClientSessionManager.h"
#include "model/Constants.h"
#include "model/VORBag.h"
#include "network/HttpSession.h"
#include "network/HttpSessions.h"
#include "network/UrlComponents.h"
#include "network/VORNetworkRequestFactory.h"
#include "platform/Assembly.h"

namespace vorlen {

namespace {

const Logger& log() {
  return VorlenLogForCategory(VorlenLogCategoryDownloadManager);
}

constexpr size_t kMaxIdentifierBytes = 255;
constexpr size_t kCopyChunk = 64 * 1024;

std::optional<std::string> firstQueryItem(const std::string& url, std::string_view name) {
  auto parts = UrlComponents::parse(url);
  if (!parts) return std::nullopt;
  for (const QueryItem& item : parts->queryItems()) {
    if (item.name == name) return item.value;
  }
  return std::nullopt;
}

bool writeAll(int fd, const char* bytes, size_t length) {
  while (length > 0) {
    ssize_t n = ::write(fd, bytes, length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes += n;
    length -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

std::shared_ptr<VorlenDownloadManager> VorlenDownloadManager::create(
    const std::shared_ptr<const Assembly>& assembly, Settings settings) {
  std::shared_ptr<VorlenDownloadManager> manager(new VorlenDownloadManager(assembly, std::move(settings)));
  if (manager->center_) {
    manager->bagObservation_ = manager->center_->addObserver<VorlenDownloadManager>(
        kVORBagChangeNotification, nullptr, manager,
        [](VorlenDownloadManager& self, const Notification& n) { self.bagChangeNotification(n); });
  }
  return manager;
}

std::shared_ptr<VorlenDownloadManager> VorlenDownloadManager::create(
    const std::shared_ptr<const Assembly>& assembly) {
  return create(assembly, Settings{});
}

VorlenDownloadManager::VorlenDownloadManager(const std::shared_ptr<const Assembly>& assembly,
                                             Settings settings)
    : assembly_(assembly),
      settings_(std::move(settings)),
      clock_(assembly->clock()),
      center_(assembly->notificationCenter),
      defaults_(assembly->userDefaults),
      requestFactory_(assembly->requestFactory),
      sessions_(assembly->httpSessions),
      folder_(assembly->fileManager().cachesDir / kResourcesFolder),
      // The queues take no clock: a delayed download armed on the clock holds the queue, and a queue
      // holding the clock would keep both alive while one is pending.
      queue_(Queue::serial("com.velmo.vorlen.DownloadManager", QueuePriority::Background)),
      notifyQueue_(
          Queue::serial("com.velmo.vorlen.DownloadManager.notifications", QueuePriority::Background)) {}

VorlenDownloadManager::~VorlenDownloadManager() = default;

// ---- Identifiers, addresses, versions.

bool VorlenDownloadManager::isLookupResource(std::string_view identifier) {
  return identifier == kVORLookupHintsWeeklyResource || identifier == kVORLookupHintsMonthlyResource;
}

bool VorlenDownloadManager::isValidResourceIdentifier(std::string_view identifier) {
  const char* problem = nullptr;
  if (identifier.empty()) {
    problem = "it is empty";
  } else if (identifier.size() > kMaxIdentifierBytes) {
    problem = "it is longer than 255 bytes";
  } else if (identifier.find('\0') != std::string_view::npos) {
    problem = "it contains a NUL byte";
  } else if (identifier.find('/') != std::string_view::npos) {
    problem = "it contains \"/\"";
  } else if (identifier.front() == '.') {
    problem = "it starts with \".\"";
  }
  if (!problem) return true;
  // The identifier is not echoed: it may be anything, of any length.
  log().error("refusing resource identifier of {} bytes as a file name: {}", identifier.size(), problem);
  return false;
}

std::optional<std::string> VorlenDownloadManager::urlForCompare(std::string_view url) {
  auto parts = UrlComponents::parse(url);
  if (!parts) return std::nullopt;
  std::vector<QueryItem> items = parts->queryItems();
  std::erase_if(items, [](const QueryItem& item) { return item.name == "key"; });
  if (items.empty()) {
    parts->setPercentEncodedQuery(std::nullopt);
  } else {
    parts->setQueryItems(items);
  }
  return parts->string();
}

std::optional<std::string> VorlenDownloadManager::_requestedForm(const std::string& url) {
  if (!urlForCompare(url)) return std::nullopt;
  if (requestFactory_) {
    if (auto request = requestFactory_->fileDownloadRequest(url, std::nullopt, false))
      return urlForCompare(request->url);
  }
  return urlForCompare(url);
}

bool VorlenDownloadManager::_mayDownload(const std::string& identifier) const {
  if (!isLookupResource(identifier)) return true;
  return settings_.lookupEnabled && settings_.lookupEnabled();
}

std::optional<std::string> VorlenDownloadManager::_resourceVersion(const std::string& identifier) {
  queue_->assertCurrent();
  auto it = resources_.find(identifier);
  if (it == resources_.end()) return std::nullopt;
  const DownloadResource& r = it->second;
  if (isLookupResource(identifier) && r.redirectUrl) {
    if (!settings_.signatureFromURL) return std::nullopt;
    return settings_.signatureFromURL(*r.redirectUrl);
  }
  if (!r.url) return std::nullopt;
  return firstQueryItem(*r.url, "version");
}

// ---- Start and the persistent record.

void VorlenDownloadManager::_start() {
  if (hasStarted.exchange(true)) return;
  log().notice("started");
  std::weak_ptr<VorlenDownloadManager> weak = weak_from_this();
  queue_->async([weak] {
    auto self = weak.lock();
    if (!self || !self->defaults_) return;
    std::optional<Value::Dict> stored = self->defaults_->dictionaryForKey(kResourcesPreference);
    if (!stored) return;
    for (const auto& [identifier, entry] : *stored) {
      if (self->resources_.contains(identifier)) continue;
      const Value* url = entry.find("url");
      if (!url || !url->getString() || !UrlComponents::parse(*url->getString())) continue;
      // The preferences file is ours, but a file name is never made from an unchecked text.
      if (!isValidResourceIdentifier(identifier)) continue;
      DownloadResource r{identifier, *url->getString(), std::nullopt};
      if (const Value* redirect = entry.find("redirect_url"); redirect && redirect->getString())
        r.redirectUrl = *redirect->getString();
      self->resources_.emplace(identifier, std::move(r));
    }
  });
}

void VorlenDownloadManager::_saveResources() {
  queue_->assertCurrent();
  if (!defaults_) return;
  Value::Dict out;
  for (const auto& [identifier, r] : resources_) {
    Value entry = Value(Value::Dict{});
    const char* failure = nullptr;
    if (r.url) {
      if (UrlComponents::parse(*r.url)) {
        entry.set("url", *r.url);
      } else {
        failure = "url is not an absolute address";
      }
    }
    if (r.redirectUrl) {
      if (UrlComponents::parse(*r.redirectUrl)) {
        entry.set("redirect_url", *r.redirectUrl);
      } else {
        failure = "redirect url is not an absolute address";
      }
    }
    if (failure) {
      log().error("exception saving resource {}: {}", identifier, failure);
      continue;
    }
    out.emplace(identifier, std::move(entry));
  }
  defaults_->set(kResourcesPreference, Value(std::move(out)));
}

// ---- Bag changes and reconciliation.

void VorlenDownloadManager::bagChangeNotification(const Notification& notification) {
  // The bag controller attaches the installed VORBag; a poster that only sends the record is read too.
  auto bag = std::static_pointer_cast<const VORBag>(notification.object);
  if (!bag) {
    if (const Value* record = notification.userInfo.find(kVORBagKey)) {
      if (auto decoded = VORBag::fromRecord(*record))
        bag = std::make_shared<const VORBag>(std::move(*decoded));
    }
  }
  log().notice("bag change: {}", bag ? bag->version().value_or("(no version)") : "(no bag)");
  if (!bag) return;
  _start();
  std::weak_ptr<VorlenDownloadManager> weak = weak_from_this();
  queue_->async([weak, raw = bag->rawBag()] {
    if (auto self = weak.lock()) self->_downloadBagResources(raw);
  });
}

void VorlenDownloadManager::_cancelAllTasks() {
  queue_->assertCurrent();
  auto session = _session();
  if (!session) return;
  for (const auto& task : session->getAllTasks()) {
    log().notice("canceling {}", Private(task->originalRequest().url));
    task->cancel();
  }
}

void VorlenDownloadManager::_downloadBagResources(const Value::Dict& bag) {
  queue_->assertCurrent();
  ++generation_;
  _cancelAllTasks();

  std::set<std::string> wanted;
  if (auto it = bag.find(kBagResourceListKey); it != bag.end()) {
    size_t ignored = 0;
    if (const Value::Array* list = it->second.getArray()) {
      for (const Value& item : *list) {
        if (const std::string* s = item.getString()) {
          wanted.insert(*s);
        } else {
          ++ignored;
        }
      }
    } else {
      log().error("{} is a {}, not an array: no resource is wanted", kBagResourceListKey,
                  it->second.typeName());
    }
    if (ignored > 0)
      log().error("ignoring {} entries of {} that are not strings", ignored, kBagResourceListKey);
  }
  std::string listed;
  for (const auto& identifier : wanted) listed += (listed.empty() ? "" : ", ") + identifier;
  log().notice("resource files to be downloaded: {}", listed);

  std::vector<std::string> dropped;
  for (const auto& [identifier, r] : resources_) {
    if (!wanted.contains(identifier)) dropped.push_back(identifier);
  }
  for (const auto& identifier : dropped) _deleteResource(identifier, true);

  for (const auto& identifier : wanted) {
    if (!isValidResourceIdentifier(identifier)) continue;
    if (!_mayDownload(identifier)) {
      log().info("{} is disabled, not downloading", identifier);
      continue;
    }
    std::optional<std::string> url;
    if (auto it = bag.find(identifier); it != bag.end() && it->second.getString())
      url = *it->second.getString();
    log().notice("downloading file: {} at url: {}", identifier, Private(url.value_or("(none)")));
    _addResource(identifier, url, nullptr);
  }
  _saveResources();
}

void VorlenDownloadManager::_addResource(const std::string& identifier, const std::optional<std::string>& url,
                                         std::function<void(const std::string& reason)> completion) {
  queue_->assertCurrent();
  std::optional<std::string> compared = url ? _requestedForm(*url) : std::nullopt;
  if (!compared) {
    log().error("resource {} has no absolute address in the bag", identifier);
    _deleteResource(identifier, true);
    return;
  }
  DownloadResource& r =
      resources_.try_emplace(identifier, DownloadResource{identifier, {}, {}}).first->second;

  std::string reason;
  auto stored = r.url ? UrlComponents::parse(*r.url) : std::nullopt;
  auto wantedParts = UrlComponents::parse(*compared);
  struct stat st {};
  UniqueFd folder = _openFolder(false);
  bool present = folder && ::fstatat(folder.get(), identifier.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
                 S_ISREG(st.st_mode);
  if (!stored || stored->path() != wantedParts->path() ||
      stored->percentEncodedQuery() != wantedParts->percentEncodedQuery()) {
    reason = "update";
  } else if (!present) {
    reason = "missing";
  } else if (isLookupResource(identifier)) {
    reason = "lookup";
  } else {
    return;
  }

  std::weak_ptr<VorlenDownloadManager> weak = weak_from_this();
  auto keepAlive = std::make_shared<Transaction>("com.velmo.vorlen.DownloadManager.download");
  clock_->scheduleAfter(settings_.addDelay, queue_,
                        [weak, generation = generation_, identifier, url = *url, reason,
                         completion = std::move(completion), keepAlive] {
                          auto self = weak.lock();
                          if (!self || self->generation_ != generation) return;
                          self->_downloadResource(identifier, url, reason, keepAlive);
                          if (completion) completion(reason);
                        });
}

std::optional<HttpRequest> VorlenDownloadManager::_createDownloadRequest(const std::string& identifier,
                                                                         const std::string& url,
                                                                         const std::string& reason) {
  queue_->assertCurrent();
  if (!requestFactory_) return std::nullopt;
  // A version asks the server for "not modified"; with no file to keep that answer would leave the
  // resource missing for good, so a missing file is asked for in full.
  std::optional<std::string> version = reason == "missing" ? std::nullopt : _resourceVersion(identifier);
  std::optional<HttpRequest> request =
      requestFactory_->fileDownloadRequest(url, version, isLookupResource(identifier));
  if (!request) return std::nullopt;
  request->headers[kDownloadIdentifierHeader] = identifier;
  std::string headers;
  for (const auto& [name, value] : request->headers)
    headers += (headers.empty() ? "" : ", ") + name + ": " + value;
  log().info("starting download of {} reason: {} delay: {:f} headers: {}", Private(request->url), reason,
             settings_.startWindowDelaySeconds, Private(headers));
  return request;
}

void VorlenDownloadManager::_downloadResource(const std::string& identifier, const std::string& url,
                                              const std::string& reason,
                                              std::shared_ptr<Transaction> keepAlive) {
  queue_->assertCurrent();
  std::optional<HttpRequest> request = _createDownloadRequest(identifier, url, reason);
  auto session = _session();
  if (!request || !session) {
    log().error("could not create a download request for {}", identifier);
    return;
  }
  auto task = session->downloadTask(std::move(*request));
  task->setTaskDescription(identifier);
  transferKeepAlives_[task->taskIdentifier()] = std::move(keepAlive);
  task->resume();
}

void VorlenDownloadManager::_deleteResource(const std::string& identifier, bool removeFile) {
  queue_->assertCurrent();
  log().notice("deleting resource: {}", identifier);
  if (resources_.erase(identifier) > 0) {
    _saveResources();
    if (auto session = _session()) {
      for (const auto& task : session->getAllTasks()) {
        if (task->originalRequest().header(kDownloadIdentifierHeader) == identifier) task->cancel();
      }
    }
  }
  if (!removeFile) return;
  if (identifier.empty()) {
    log().error("error resource bag key is nil");
    return;
  }
  UniqueFd folder = _openFolder(false);
  if (!folder || !isValidResourceIdentifier(identifier)) {
    log().error("error trying to get path to file for deletion {}", identifier);
    return;
  }
  if (::unlinkat(folder.get(), identifier.c_str(), 0) != 0) {
    if (errno != ENOENT)
      log().error("error trying to remove file at url {}: {}", (folder_ / identifier).string(),
                  std::strerror(errno));
    return;
  }
  _post(kVORFileDeletedNotification, Value::dict({{kVORIdentifierKey, identifier}}));
}

void VorlenDownloadManager::handleSignificantLocationChange() {
  _start();
  std::weak_ptr<VorlenDownloadManager> weak = weak_from_this();
  queue_->async([weak] {
    auto self = weak.lock();
    if (!self) return;
    self->resources_.erase(kVORLookupHintsWeeklyResource);
    self->resources_.erase(kVORLookupHintsMonthlyResource);
  });
}

// ---- Reads.

std::optional<DownloadResource> VorlenDownloadManager::resourceForKey(const std::string& identifier) {
  std::optional<DownloadResource> out;
  queue_->sync([&] {
    if (auto it = resources_.find(identifier); it != resources_.end()) out = it->second;
  });
  return out;
}

std::vector<DownloadResource> VorlenDownloadManager::allResources() {
  _start();
  std::vector<DownloadResource> out;
  queue_->sync([&] {
    for (const auto& [identifier, r] : resources_) out.push_back(r);
  });
  return out;
}

std::map<std::string, std::string> VorlenDownloadManager::resourceVersions() {
  _start();
  std::map<std::string, std::string> out;
  queue_->sync([&] {
    for (const auto& [identifier, r] : resources_) {
      std::optional<std::string> version = _resourceVersion(identifier);
      if (version && !version->empty()) out.emplace(identifier, *version);
    }
  });
  return out;
}

UniqueFd VorlenDownloadManager::fileHandleForResource(const std::string& identifier, Value::Dict* attributes,
                                                      VORError* error) {
  auto fail = [&](int64_t code, std::string reason) {
    if (error) *error = VORError::make(code, std::move(reason));
    return UniqueFd();
  };
  // A client may ask for anything: an identifier that cannot name a stored file is simply not found.
  bool nameable = !identifier.empty() && identifier.size() <= kMaxIdentifierBytes &&
                  identifier.front() != '.' &&
                  identifier.find_first_of(std::string_view("/\0", 2)) == std::string::npos;
  if (!nameable) return fail(kVORResourceNotFoundCode, "not found");

  std::optional<DownloadResource> record;
  UniqueFd fd;
  int openErrno = 0;
  // Opened on the queue, so a replacement or removal of the file is either wholly before or after.
  queue_->sync([&] {
    if (auto it = resources_.find(identifier); it != resources_.end()) record = it->second;
    UniqueFd folder = _openFolder(false);
    if (!folder) {
      openErrno = ENOENT;
      return;
    }
    fd = UniqueFd(::openat(folder.get(), identifier.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!fd) openErrno = errno;
  });
  if (!fd) {
    if (openErrno == ENOENT || openErrno == ELOOP) return fail(kVORResourceNotFoundCode, "not found");
    log().error("cannot open resource file {}: {}", identifier, std::strerror(openErrno));
    return fail(500, "cannot open file");
  }
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return fail(kVORResourceNotFoundCode, "not found");
  // Readers expect ordinary blocking reads.
  ::fcntl(fd.get(), F_SETFL, ::fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK);
  if (attributes) {
    attributes->clear();
    attributes->emplace(kVORResourceAttributeSize, Value(static_cast<uint64_t>(st.st_size)));
    attributes->emplace(
        kVORResourceAttributeModified,
        Value(Time(std::chrono::duration_cast<Time::duration>(
            std::chrono::seconds(st.st_mtim.tv_sec) + std::chrono::nanoseconds(st.st_mtim.tv_nsec)))));
    if (record && record->url) attributes->emplace(kVORResourceAttributeURL, Value(*record->url));
    std::optional<std::string> version;
    queue_->sync([&] { version = _resourceVersion(identifier); });
    if (version && !version->empty()) attributes->emplace(kVORResourceAttributeVersion, Value(*version));
  }
  return fd;
}

// ---- Files.

UniqueFd VorlenDownloadManager::_openFolder(bool create) {
  const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  UniqueFd fd(::open(folder_.c_str(), flags));
  if (!fd && errno == ENOENT && create) {
    // The caches folder exists (the daemon made it at start); only the last component is made here.
    if (::mkdir(folder_.c_str(), 0700) != 0 && errno != EEXIST) {
      log().error("error getting cache directory {}", std::strerror(errno));
      log().error("error caches directory is nil");
      return UniqueFd();
    }
    fd = UniqueFd(::open(folder_.c_str(), flags));
  }
  if (!fd) {
    if (errno != ENOENT) log().error("error getting cache directory {}", std::strerror(errno));
    return UniqueFd();
  }
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0 || st.st_uid != ::geteuid()) {
    log().error("error getting cache directory {}", "the resources folder is not the daemon's own");
    return UniqueFd();
  }
  return fd;
}

bool VorlenDownloadManager::_storeFile(const std::string& identifier, const std::filesystem::path& file) {
  queue_->assertCurrent();
  UniqueFd folder = _openFolder(true);
  if (!folder) return false;

  UniqueFd source(::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  struct stat st {};
  if (!source || ::fstat(source.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    log().error("cannot read downloaded file for {}: {}", identifier, std::strerror(errno));
    return false;
  }
  if (static_cast<uint64_t>(st.st_size) > settings_.maxFileBytes) {
    log().error("abandoning download of {}: {} bytes is more than the limit of {}", identifier, st.st_size,
                settings_.maxFileBytes);
    return false;
  }
  ::fchmod(source.get(), 0600);
  // Same file system: the temporary file becomes the resource in one step. renameat replaces whatever
  // entry has the name (a planted symbolic link included) without following it.
  if (::renameat(AT_FDCWD, file.c_str(), folder.get(), identifier.c_str()) == 0) return true;
  if (errno != EXDEV) {
    log().error("cannot move downloaded file for {}: {}", identifier, std::strerror(errno));
    return false;
  }
  // Another file system: copy into a fresh hidden file of the folder (no identifier starts with "."), then
  // rename it over the resource.
  std::string temporary = "." + identifier.substr(0, 200) + ".download";
  ::unlinkat(folder.get(), temporary.c_str(), 0);
  UniqueFd target(
      ::openat(folder.get(), temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!target) {
    log().error("cannot create file for {}: {}", identifier, std::strerror(errno));
    return false;
  }
  std::vector<char> buffer(kCopyChunk);
  uint64_t copied = 0;
  bool ok = true;
  for (;;) {
    ssize_t n = ::read(source.get(), buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ok = false;
      break;
    }
    if (n == 0) break;
    copied += static_cast<uint64_t>(n);
    if (copied > settings_.maxFileBytes || !writeAll(target.get(), buffer.data(), static_cast<size_t>(n))) {
      ok = false;
      break;
    }
  }
  ok = ok && ::fsync(target.get()) == 0 &&
       ::renameat(folder.get(), temporary.c_str(), folder.get(), identifier.c_str()) == 0;
  if (!ok) {
    log().error("cannot copy downloaded file for {}: {}", identifier, std::strerror(errno));
    ::unlinkat(folder.get(), temporary.c_str(), 0);
  }
  return ok;
}

// ---- Session events.

void VorlenDownloadManager::didFinishDownloadingToFile(HttpSession& /*session*/,
                                                       const std::shared_ptr<HttpTask>& task,
                                                       const std::filesystem::path& file) {
  std::optional<HttpResponse> response = task->response();
  const long status = response ? response->status : 0;
  const std::string& url = task->originalRequest().url;
  if (status >= 400) {
    log().error("download of {} got a {} response", Private(url), status);
    return;
  }
  if (status != 200) return;  // 304 (not modified) and friends keep the stored file
  _start();
  log().notice("download of {} finished {}", Private(url), file.string());
  std::string identifier = task->originalRequest().header(kDownloadIdentifierHeader).value_or("");
  bool stored = false;
  bool known = false;
  queue_->sync([&] {
    known = resources_.contains(identifier);
    if (!known) return;
    // Records exist only for identifiers that passed the check; this one guards the path all the same.
    if (!isValidResourceIdentifier(identifier)) {
      log().error("failed getting destination URL for {}", "(invalid identifier)");
      return;
    }
    stored = _storeFile(identifier, file);
    if (!stored) log().error("error copying download {}", identifier);
  });
  if (!known) {
    log().notice("failed to find download for identifier: {} url: {}", identifier, Private(url));
    return;
  }
  if (!stored) return;
  VorlenDiagnosticDataReporter::addValue(1, kFetchedCounter);
  _post(kVORFileDownloadCompletedNotification,
        Value::dict({{kVORIdentifierKey, identifier}, {kVORURLKey, (folder_ / identifier).string()}}));
}

void VorlenDownloadManager::didCompleteWithError(HttpSession& /*session*/,
                                                 const std::shared_ptr<HttpTask>& task,
                                                 const std::optional<HttpError>& error) {
  // The transfer's keep-alive ends with this call, whatever the outcome.
  std::shared_ptr<Transaction> keepAlive;
  queue_->sync([&] {
    if (auto it = transferKeepAlives_.find(task->taskIdentifier()); it != transferKeepAlives_.end()) {
      keepAlive = std::move(it->second);
      transferKeepAlives_.erase(it);
    }
  });
  if (error && error->domain == kVORURLErrorDomain && error->code == HttpError::kCancelled) return;
  std::optional<HttpResponse> response = task->response();
  const long status = response ? response->status : 0;
  if (status != 200 && status != 304) {
    _reportError(fmt::format("status code {}", status));
    return;
  }
  const std::string& url = task->originalRequest().url;
  if (url.empty()) {
    log().error("task completed with nil url and error: {}", error ? error->message : "(null)");
    return;
  }
  if (error) {
    log().notice("download task error {}",
                 fmt::format("{} {}: {}", error->domain, error->code, error->message));
    _reportError(fmt::format("download error {} {}", error->domain, error->code));
    return;
  }
  _start();
  std::string identifier = task->originalRequest().header(kDownloadIdentifierHeader).value_or("");
  bool found = false;
  queue_->sync([&] {
    auto it = resources_.find(identifier);
    if (it == resources_.end()) return;
    found = true;
    DownloadResource& r = it->second;
    struct stat st {};
    UniqueFd folder = _openFolder(false);
    bool present = folder && ::fstatat(folder.get(), identifier.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
    if (status == 304 && !present) {
      // "Not modified" for a file that is gone: forget the address, so the next bag change asks again in
      // full instead of believing the resource is held.
      log().error("download of {} got a 304 response but no file is stored", identifier);
      r.url.reset();
      r.redirectUrl.reset();
      _saveResources();
      return;
    }
    r.url = urlForCompare(url);
    std::optional<std::string> finalUrl = response->url.empty() ? std::nullopt : urlForCompare(response->url);
    if (finalUrl && finalUrl != r.url) {
      r.redirectUrl = finalUrl;
    } else {
      r.redirectUrl.reset();
    }
    log().notice("{} url: {}", identifier, Private(r.url.value_or("")));
    VorlenDiagnosticDataReporter::addValue(1, kFetchedCounter);
    _saveResources();
  });
  if (!found) {
    log().error("could not find resource for download identifier: {} url: {}", identifier, Private(url));
    std::weak_ptr<VorlenDownloadManager> weak = weak_from_this();
    Queue::global(QueuePriority::Default)->async([weak, identifier] {
      if (auto self = weak.lock()) self->_reportError(fmt::format("can't find {}", identifier));
    });
  }
}

// ---- Plumbing.

std::shared_ptr<HttpSession> VorlenDownloadManager::_session() {
  if (!sessions_) return nullptr;
  return sessions_->downloadURLSession(shared_from_this());
}

void VorlenDownloadManager::_post(std::string name, Value userInfo) {
  if (!center_) return;
  notifyQueue_->async([center = center_, name = std::move(name), userInfo = std::move(userInfo)] {
    center->post(name, nullptr, userInfo);
  });
}

void VorlenDownloadManager::_reportError(const std::string& reason) {
  auto assembly = assembly_.lock();
  if (!assembly) return;
  ClientSessionManager::reportErrorAsVorlendFeedback(VORError::make(500, reason), *assembly);
}

}  // namespace vorlen
