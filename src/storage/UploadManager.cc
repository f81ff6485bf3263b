#include "storage/UploadManager.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ostream>

#include "base/Counters.h"
#include "base/Log.h"
#include "base/Transaction.h"
#include "model/Constants.h"
#include "network/BagController.h"
#include "network/HttpSession.h"
#include "network/HttpSessions.h"
#include "network/HttpTask.h"
#include "network/UrlComponents.h"
#include "network/VORNetworkRequestFactory.h"
#include "platform/Assembly.h"
#include "storage/CompressedOutputStream.h"
#include "storage/FileDescriptorOutputStream.h"
#include "storage/OutputStreamBuffer.h"

namespace vorlen {
namespace {

const Logger& log() {
  return VorlenLogForCategory(VorlenLogCategoryUploadManager);
}

constexpr const char* kFeedbackSent = "com.velmo.vorlend.feedbacksent";
constexpr const char* kFeedbackNotSent = "com.velmo.vorlend.feedbacknotsent";
constexpr const char* kRequestTimedOut = "com.velmo.vorlend.fbrequesttimedout";

// A leftover temporary file younger than this may belong to an upload being prepared.
constexpr time_t kLeftoverAgeSeconds = 600;

std::optional<std::string> appendingQueryItem(const std::string& url, const std::string& name,
                                              const std::string& value) {
  auto components = UrlComponents::parse(url);
  if (!components) return std::nullopt;
  std::vector<QueryItem> items = components->queryItems();
  items.push_back(QueryItem{name, value});
  components->setQueryItems(items);
  return components->string();
}

std::string headersText(const std::map<std::string, std::string>& headers) {
  std::string out = "{";
  for (const auto& [name, value] : headers) {
    if (out.size() > 1) out += ", ";
    out += name + ": " + value;
  }
  return out + "}";
}

// Copies `from` into `stream` in chunks of `chunk` bytes; false on a read or write failure.
bool copyFile(int from, OutputStream& stream, size_t chunk) {
  std::vector<uint8_t> buffer(chunk);
  for (;;) {
    ssize_t n = ::read(from, buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    if (stream.write(buffer.data(), static_cast<size_t>(n)) != n) return false;
  }
}

}  // namespace

std::shared_ptr<UploadManager> UploadManager::create(const Assembly& assembly) {
  return create(assembly, Settings{});
}

std::shared_ptr<UploadManager> UploadManager::create(const Assembly& assembly, Settings settings) {
  std::shared_ptr<UploadManager> manager(new UploadManager(assembly, settings));
  manager->start();
  return manager;
}

UploadManager::UploadManager(const Assembly& assembly, Settings settings)
    : settings_(settings),
      temporaryDirectory_(assembly.fileManager().tempDir.empty() ? std::filesystem::path("/tmp")
                                                                 : assembly.fileManager().tempDir),
      notificationCenter_(assembly.notificationCenter ? assembly.notificationCenter
                                                      : assembly.platform.notificationCenter),
      bagController_(assembly.bagController),
      requestFactory_(assembly.requestFactory),
      httpSessions_(assembly.httpSessions),
      queue(Queue::serial("com.velmo.vorlend.uploadmanager")) {}

UploadManager::~UploadManager() {
  // Uploads still running go on reading their open files, but nobody will see them end: their paths go now.
  std::lock_guard lock(inFlightMutex_);
  for (auto& [id, upload] : inFlight_) {
    if (upload.file) upload.file->removePath();
  }
}

void UploadManager::start() {
  if (notificationCenter_) {
    bagObserver_ = notificationCenter_->addObserver<UploadManager>(
        kVORBagChangeNotification, nullptr, shared_from_this(),
        [](UploadManager& m, const Notification& n) { m.bagChangeNotification(n); });
  }
  if (httpSessions_) uploadSession_ = httpSessions_->uploadURLSession(shared_from_this());
  _removeLeftoverTempFiles();
  if (bagController_) {
    if (std::optional<VORBag> bag = bagController_->currentBag()) {
      queue->sync([&] { _fetchEndpointsFromBag(*bag); });
    }
  }
}

void UploadManager::_removeLeftoverTempFiles() {
  DIR* dir = ::opendir(temporaryDirectory_.c_str());
  if (!dir) return;
  const time_t now = ::time(nullptr);
  const size_t prefixLength = std::strlen(UploadFile::kNamePrefix);
  while (dirent* entry = ::readdir(dir)) {
    if (std::strncmp(entry->d_name, UploadFile::kNamePrefix, prefixLength) != 0) continue;
    struct stat st {};
    // Only regular files of this user, never through a link.
    if (::fstatat(::dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode) ||
        st.st_uid != ::getuid() || now - st.st_mtime < kLeftoverAgeSeconds)
      continue;
    if (::unlinkat(::dirfd(dir), entry->d_name, 0) == 0)
      log().info("removed leftover upload file {}", (temporaryDirectory_ / entry->d_name).string());
  }
  ::closedir(dir);
}

// ---- Endpoints -----------------------------------------------------------------------------------

void UploadManager::bagChangeNotification(const Notification& notification) {
  log().debug("bag change notification received");
  std::optional<VORBag> bag;
  if (auto typed = std::static_pointer_cast<const VORBag>(notification.object)) {
    bag = *typed;
  } else if (const Value* record = notification.userInfo.find(kVORBagKey)) {
    bag = VORBag::fromRecord(*record);
  }
  if (!bag) return;
  std::weak_ptr<UploadManager> weak = weak_from_this();
  queue->async([weak, bag = std::move(*bag)] {
    if (auto self = weak.lock()) self->_fetchEndpointsFromBag(bag);
  });
}

void UploadManager::_fetchEndpointsFromBag(const VORBag& bag) {
  queue->assertCurrent();
  const bool enabled = bag.feedbackEnabled();
  feedbackEndpoint_.reset();
  if (enabled) {
    if (std::optional<std::string> url = bag.feedbackURL())
      feedbackEndpoint_ = appendingQueryItem(*url, "v", "2");
  }
  crowdsourcingEndpoint_ = enabled ? bag.crowdsourcingURL() : std::nullopt;
}

std::optional<std::string> UploadManager::feedbackEndpoint() {
  std::optional<std::string> out;
  queue->sync([&] { out = feedbackEndpoint_; });
  return out;
}

void UploadManager::setFeedbackEndpoint(std::optional<std::string> url) {
  std::weak_ptr<UploadManager> weak = weak_from_this();
  queue->async([weak, url = std::move(url)] {
    if (auto self = weak.lock()) self->feedbackEndpoint_ = url;
  });
}

std::optional<std::string> UploadManager::crowdsourcingEndpoint() {
  std::optional<std::string> out;
  queue->sync([&] { out = crowdsourcingEndpoint_; });
  return out;
}

void UploadManager::setCrowdsourcingEndpoint(std::optional<std::string> url) {
  std::weak_ptr<UploadManager> weak = weak_from_this();
  queue->async([weak, url = std::move(url)] {
    if (auto self = weak.lock()) self->crowdsourcingEndpoint_ = url;
  });
}

std::optional<std::string> UploadManager::_urlForEndpoint(uint32_t endpointType, const std::string& type) {
  std::optional<std::string> endpoint =
      endpointType == kCrowdsourcingEndpoint ? crowdsourcingEndpoint() : feedbackEndpoint();
  if (!endpoint || endpoint->empty()) return std::nullopt;
  if (type.empty()) return endpoint;
  return appendingQueryItem(*endpoint, "type", type);
}

// ---- Uploads -------------------------------------------------------------------------------------

std::shared_ptr<UploadFile> UploadManager::makeTempFile() {
  std::shared_ptr<UploadFile> file = UploadFile::create(temporaryDirectory_);
  if (!file)
    log().debug("cannot create a temporary file in {}: {}", temporaryDirectory_.string(),
                std::strerror(errno));
  return file;
}

std::shared_ptr<UploadFile> UploadManager::uploadJSONFeedback(const nlohmann::ordered_json& record,
                                                              uint32_t endpointType) {
  std::shared_ptr<UploadFile> file = makeTempFile();
  if (!file) {
    log().error("Error getting temp file.");
    return nullptr;
  }
  log().debug("Compressing data for upload to {}", file->path().value_or("").string());
  CompressedOutputStream stream(std::make_shared<FileDescriptorOutputStream>(file->fd()));
  stream.open();
  std::optional<std::string> serialisationError;
  bool written = true;
  {
    OutputStreamBuffer buffer(stream);
    std::ostream out(&buffer);
    try {
      out << record;  // compact form: no options
      out.flush();
      written = static_cast<bool>(out);
    } catch (const nlohmann::json::exception& e) {
      serialisationError = e.what();
      VorlenDiagnosticDataReporter::addValue(1, kFeedbackNotSent);
    }
  }
  stream.close();
  if (serialisationError) {
    log().error("Invalid JSON Object {} error {}",
                Private(record.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace)),
                *serialisationError);
    file->removePath();
    return nullptr;
  }
  if (!written || stream.streamError()) {
    const int code = stream.streamError().value_or(0);
    log().error("cannot compress into {}: {}", file->path().value_or("").string(),
                code ? std::strerror(code) : "encoder failure");
    file->removePath();
    return nullptr;
  }
  if (!_enqueue(file, _urlForEndpoint(endpointType, ""), stream.dataDigestForStream(), record.size()))
    return nullptr;
  return file;
}

void UploadManager::uploadFeedback(const std::filesystem::path& path, const std::string& type,
                                   uint32_t endpointType) {
  std::optional<std::string> url = _urlForEndpoint(endpointType, type);
  if (!url) {
    log().error("Server feedback endpoint not set, data can't be sent to server");
    return;
  }
  log().debug("uploadFile: {}", path.string());
  UniqueFd input(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  struct stat st {};
  if (!input || ::fstat(input.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    log().error("Error getting reading file for upload: {}.", path.string());
    return;
  }
  std::shared_ptr<UploadFile> file = makeTempFile();
  if (!file) {
    log().error("Error getting temp file.");
    return;
  }
  log().debug("Compressing data for upload to {}", file->path().value_or("").string());
  CompressedOutputStream stream(std::make_shared<FileDescriptorOutputStream>(file->fd()));
  stream.open();
  const bool copied = copyFile(input.get(), stream, kFileCopyChunkBytes);
  stream.close();
  if (!copied || stream.streamError()) {
    log().error("cannot compress {} into {}", path.string(), file->path().value_or("").string());
    file->removePath();
    return;
  }
  _enqueue(file, url, stream.dataDigestForStream(), std::nullopt);
}

bool UploadManager::_enqueue(const std::shared_ptr<UploadFile>& file, const std::optional<std::string>& url,
                             const std::string& digest, std::optional<uint64_t> numberOfFeedbacks) {
  std::optional<std::filesystem::path> path = file->path();
  if (!path || !file->pathExists()) {
    log().error("Couldn't find file {} after compression.", path.value_or("").string());
    file->removePath();
    return false;
  }
  if (!url) {
    log().debug("no endpoint: upload of {} abandoned", path->string());
    file->removePath();
    return false;
  }
  std::optional<HttpRequest> request;
  if (requestFactory_)
    request = requestFactory_->flusherUploadRequest(*url, settings_.requestTimeoutSeconds, digest);
  if (!request || !uploadSession_) {
    log().error("cannot make the upload request for {}", Private(*url));
    file->removePath();
    return false;
  }
  log().debug("Enqueuing for upload: {}, headers {}", Private(request->url),
              Private(headersText(request->headers)));
  std::shared_ptr<HttpTask> task = uploadSession_->uploadTask(std::move(*request), *path);
  if (numberOfFeedbacks) task->setNumberOfFeedbacks(numberOfFeedbacks);
  {
    std::lock_guard lock(inFlightMutex_);
    inFlight_[task->taskIdentifier()] =
        InFlight{file, std::make_shared<Transaction>("com.velmo.vorlend.uploadmanager.upload")};
  }
  task->resume();
  return true;
}

// ---- Session delegate ----------------------------------------------------------------------------

void UploadManager::didCompleteWithError(HttpSession& /*session*/, const std::shared_ptr<HttpTask>& task,
                                         const std::optional<HttpError>& error) {
  if (error && error->code == HttpError::kTimedOut)
    VorlenDiagnosticDataReporter::addValue(1, kRequestTimedOut);
  const uint64_t n = task->numberOfFeedbacks().value_or(1);
  task->setNumberOfFeedbacks(0);
  const std::optional<HttpResponse> response = task->response();
  const long status = response ? response->status : 0;
  if (status != 200) {
    log().fault("response error {}", response ? fmt::format("status {}", status)
                                              : fmt::format("no response ({} {})", error ? error->code : 0,
                                                            error ? error->message : ""));
    VorlenDiagnosticDataReporter::addValue(static_cast<int64_t>(n), kFeedbackNotSent);
  } else {
    VorlenDiagnosticDataReporter::addValue(static_cast<int64_t>(n), kFeedbackSent);
  }
  log().debug("URLSession:task:didCompleteWithError: id={}, error={}, statusCode={}", task->taskIdentifier(),
              error ? fmt::format("{} {}", error->code, error->message) : std::string("(null)"), status);
  _ended(task->taskIdentifier());
}

void UploadManager::didSendBodyData(HttpSession& /*session*/, const std::shared_ptr<HttpTask>& task,
                                    int64_t /*bytesSent*/, int64_t totalBytesSent,
                                    int64_t totalBytesExpectedToSend) {
  const double fraction = totalBytesExpectedToSend > 0 ? static_cast<double>(totalBytesSent) /
                                                             static_cast<double>(totalBytesExpectedToSend)
                                                       : 0.0;
  log().debug("task {}, transfer {:f} complete", task->taskIdentifier(), fraction);
}

void UploadManager::_ended(uint64_t taskIdentifier) {
  std::shared_ptr<UploadFile> file;
  {
    std::lock_guard lock(inFlightMutex_);
    auto it = inFlight_.find(taskIdentifier);
    if (it == inFlight_.end()) return;
    file = it->second.file;
  }
  // The path goes before the upload counts as ended, so whoever waits for the end finds it gone.
  if (file) file->removePath();
  {
    std::lock_guard lock(inFlightMutex_);
    inFlight_.erase(taskIdentifier);
    ++endedCount_;
  }
  inFlightChanged_.notify_all();
}

size_t UploadManager::uploadsInFlight() const {
  std::lock_guard lock(inFlightMutex_);
  return inFlight_.size();
}

uint64_t UploadManager::uploadsEnded() const {
  std::lock_guard lock(inFlightMutex_);
  return endedCount_;
}

bool UploadManager::waitForUploadsToEnd(std::chrono::milliseconds timeout) const {
  std::unique_lock lock(inFlightMutex_);
  return inFlightChanged_.wait_for(lock, timeout, [this] { return inFlight_.empty(); });
}

}  // namespace vorlen
