// VorlenDownloadManager: the daemon's keeper of resource files (the DownloadManager role).
//
// On every bag change it reconciles the files it holds with the bag's "download_resources_list": it
// cancels every transfer in flight, deletes (record, file, "VORFileDeletedNotification") each resource the
// bag no longer lists, and schedules, 60 seconds later on the Assembly's clock, a download of each listed
// resource that is new ("update": no address yet, or another path or query), missing on disk ("missing"),
// or a look-up hints file ("lookup": fetched again at every reconciliation). Addresses are compared
// without their "key" query item. A stored file posts "VORFileDownloadCompletedNotification".
//
// The records (identifier, address, redirect address) persist under the preference "download_resources".
// Nothing is read or fetched until the manager starts: at the first bag change, the first
// resourceVersions() call, a completed transfer, or a significant location change.
//
// Files: <caches>/resources/<identifier>, mode 0600, in a folder of mode 0700. Resources have a folder of
// their own so that no identifier can name one of the daemon's other files (bag.plist, Cache.db,
// session.N). An identifier comes from the server: one that is empty, contains "/" or NUL, starts with
// ".", or is longer than 255 bytes is refused with one error line before anything touches the disk.
// Files are opened, replaced and removed relative to the opened folder, never through a symbolic link
// (O_NOFOLLOW, renameat), and a transfer larger than maxFileBytes (64 MiB) is abandoned.
//
// A scheduled or running download holds a keep-alive transaction, so the daemon does not leave on idle
// while one is waiting out its delay or in flight.
//
// Transfers run on the Assembly's download session (downloadURLSession; this object is its delegate):
// into a temporary file, redirects followed, each request allowed a start window of 86,400 seconds. The
// in-process session starts a request as soon as its window opens (no delay), which every window allows.
//
// Look-up hints: whether they may be downloaded, and the version of a hints file (a signature derived
// from its redirect address), are asked of the look-up component through Settings. Without those hooks
// the hints files are not downloaded and have no version.
//
// Threading: every public method is safe from any thread. All state lives on the serial queue
// "com.velmo.vorlen.DownloadManager" (background priority); the public reads hop onto it synchronously.
// Notifications are posted from the serial queue "com.velmo.vorlen.DownloadManager.notifications", never
// from the manager's own queue, so observers may call back into the manager.
// REQUIRES: the public methods are not called on the manager's queue.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/Clock.h"
#include "base/NotificationCenter.h"
#include "base/Queue.h"
#include "download/DownloadManager.h"
#include "network/HttpSessionDelegate.h"
#include "network/HttpSessions.h"

namespace vorlen {

class Assembly;
class HttpSession;
class Preferences;
class Transaction;
class VORNetworkRequestFactory;

class VorlenDownloadManager final : public DownloadManager,
                                    public HttpSessionDelegate,
                                    public std::enable_shared_from_this<VorlenDownloadManager> {
 public:
  static constexpr const char* kResourcesPreference = "download_resources";
  static constexpr const char* kBagResourceListKey = "download_resources_list";
  static constexpr const char* kDownloadIdentifierHeader = "X-Velmo-Download-Identifier";
  static constexpr const char* kFetchedCounter = "com.velmo.vorlend.bag.resourcefilesfetched";
  static constexpr const char* kResourcesFolder = "resources";
  static constexpr uint64_t kDefaultMaxFileBytes = HttpSessions::kMaxResourceDownloadBytes;

  struct Settings {
    // True while look-up hints may be downloaded; empty means never.
    std::function<bool()> lookupEnabled;
    // The version signature of a hints file's redirect address; empty means hints have no version.
    std::function<std::string(const std::string& url)> signatureFromURL;
    Duration addDelay = std::chrono::seconds(60);
    double startWindowDelaySeconds = 0;
    double startWindowSeconds = 86400;
    uint64_t maxFileBytes = kDefaultMaxFileBytes;
  };

  // Observes "VORBagChangeNotification" on the Assembly's notification centre. The Assembly's request
  // factory and HTTP sessions are taken now (they come earlier in the object graph); the session manager
  // that error reports go to is looked up when a report is made.
  static std::shared_ptr<VorlenDownloadManager> create(const std::shared_ptr<const Assembly>& assembly,
                                                       Settings settings);
  static std::shared_ptr<VorlenDownloadManager> create(const std::shared_ptr<const Assembly>& assembly);
  ~VorlenDownloadManager() override;
  VorlenDownloadManager(const VorlenDownloadManager&) = delete;
  VorlenDownloadManager& operator=(const VorlenDownloadManager&) = delete;

  // DownloadManager
  std::optional<DownloadResource> resourceForKey(const std::string& identifier) override;
  UniqueFd fileHandleForResource(const std::string& identifier, Value::Dict* attributes,
                                 VORError* error) override;
  std::map<std::string, std::string> resourceVersions() override;

  // Every known resource, ordered by identifier.
  std::vector<DownloadResource> allResources();

  // After a significant move of the device: forgets the records of both look-up hints files (their files
  // stay), so the next reconciliation downloads them again for the new place.
  void handleSignificantLocationChange();

  // HttpSessionDelegate (called on the download session's callback queue).
  void didCompleteWithError(HttpSession& session, const std::shared_ptr<HttpTask>& task,
                            const std::optional<HttpError>& error) override;
  void didFinishDownloadingToFile(HttpSession& session, const std::shared_ptr<HttpTask>& task,
                                  const std::filesystem::path& file) override;

  // The comparison form of an address: every "key" query item removed, and the query dropped when no
  // item remains. Nothing when `url` is not an absolute address.
  static std::optional<std::string> urlForCompare(std::string_view url);
  // Whether an identifier from the bag can name a file (see the header comment); logs one error line
  // naming the reason when it cannot.
  static bool isValidResourceIdentifier(std::string_view identifier);
  static bool isLookupResource(std::string_view identifier);

  const std::filesystem::path& resourcesFolder() const { return folder_; }
  const std::shared_ptr<Queue>& queue() const { return queue_; }
  bool hasStartedForTesting() const { return hasStarted.load(); }

 private:
  VorlenDownloadManager(const std::shared_ptr<const Assembly>& assembly, Settings settings);

  void bagChangeNotification(const Notification& notification);
  void _start();
  void _saveResources();
  void _downloadBagResources(const Value::Dict& bag);
  void _addResource(const std::string& identifier, const std::optional<std::string>& url,
                    std::function<void(const std::string& reason)> completion);
  void _downloadResource(const std::string& identifier, const std::string& url, const std::string& reason,
                         std::shared_ptr<Transaction> keepAlive);
  std::optional<HttpRequest> _createDownloadRequest(const std::string& identifier, const std::string& url,
                                                    const std::string& reason);
  std::optional<std::string> _resourceVersion(const std::string& identifier);
  void _deleteResource(const std::string& identifier, bool removeFile);
  void _cancelAllTasks();
  bool _mayDownload(const std::string& identifier) const;
  // The comparison form of the address a request for `url` asks for. The record holds the comparison form
  // of the request as sent, whose query items the request factory orders by name (one per name), so a
  // bag address is compared in that same shape: the same items in another order are the same address.
  std::optional<std::string> _requestedForm(const std::string& url);
  // The resources folder, opened (and created when missing); invalid with one log line on failure.
  UniqueFd _openFolder(bool create);
  // Moves (or, across file systems, copies) `file` into the folder as `identifier`; true on success.
  bool _storeFile(const std::string& identifier, const std::filesystem::path& file);
  void _post(std::string name, Value userInfo);
  void _reportError(const std::string& reason);
  std::shared_ptr<HttpSession> _session();

  std::atomic<bool> hasStarted{false};
  const std::weak_ptr<const Assembly> assembly_;
  const Settings settings_;
  const std::shared_ptr<Clock> clock_;
  const std::shared_ptr<NotificationCenter> center_;
  const std::shared_ptr<Preferences> defaults_;
  const std::shared_ptr<VORNetworkRequestFactory> requestFactory_;
  const std::shared_ptr<HttpSessions> sessions_;
  const std::filesystem::path folder_;
  const std::shared_ptr<Queue> queue_;
  const std::shared_ptr<Queue> notifyQueue_;

  std::map<std::string, DownloadResource> resources_;  // on queue_
  // Keep-alives of running transfers by task identifier (on queue_): a download holds one from the moment
  // it is scheduled until its task has ended, so an idle exit never cuts it short.
  std::map<uint64_t, std::shared_ptr<Transaction>> transferKeepAlives_;
  uint64_t generation_ = 0;  // on queue_: a delayed download of an older reconciliation does nothing

  std::unique_ptr<NotificationCenter::Token> bagObservation_;
};

}  // namespace vorlen
