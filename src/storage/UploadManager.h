// UploadManager: turns one feedback payload (a JSON session record, or a file already written) into a
// raw-DEFLATE temporary file (UploadFile) and uploads that file with one POST to the feedback or the
// crowdsourcing endpoint of the bag. It is the delegate of the Assembly's uploadURLSession.
//
// Endpoints: the feedback endpoint is the bag's feedbackURL with the query item "v" = "2", set only when
// the bag has that URL and feedbackEnabled is true; the crowdsourcing endpoint is the bag's
// crowdsourcingURL when feedbackEnabled is true. Both are read from the current bag at creation and again
// on every "VORBagChangeNotification". Endpoint type 0 means the crowdsourcing endpoint, any other value
// the feedback endpoint. A non-empty type string adds the query item "type".
//
// Upload: the request comes from the request factory's flusherUploadRequest() (POST, "Content-Encoding:
// deflate", "X-Velmo-Digest" = lowercase hex SHA-512 of the uncompressed bytes, time-out 300 s). The body
// is the temporary file; the payload is never held compressed in memory. The temporary file's PATH is
// removed when its upload ends, whatever the outcome, or at once when the upload is abandoned before it
// started; a caller holding the returned UploadFile keeps its open descriptor. Nothing is retried.
//
// Counters on completion: a time-out (-1001) adds 1 to "com.velmo.vorlend.fbrequesttimedout"; then the
// task's numberOfFeedbacks (1 when never set) is added to "com.velmo.vorlend.feedbacksent" for status 200
// and to "com.velmo.vorlend.feedbacknotsent" otherwise (a transport error has no status). For a session
// record that count is its number of top-level keys, not of events: kept on purpose.
//
// Threading: every public method is safe from any thread. The endpoints live on the serial queue
// "com.velmo.vorlend.uploadmanager" (reads wait on it, writes are queued); compression runs on the
// caller's thread; completions arrive on the upload session's callback queue.
// REQUIRES: no endpoint reader is called from the upload manager's own queue.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "base/NotificationCenter.h"
#include "base/Queue.h"
#include "model/VORBag.h"
#include "network/HttpSessionDelegate.h"
#include "storage/UploadFile.h"

namespace vorlen {

class Assembly;
class BagController;
class HttpSession;
class HttpSessions;
class Transaction;
class VORNetworkRequestFactory;

class UploadManager final : public HttpSessionDelegate, public std::enable_shared_from_this<UploadManager> {
 public:
  struct Settings {
    // Idle time-out of each upload request (no bytes moved for this long ends it with -1001).
    double requestTimeoutSeconds = 300.0;
  };

  // Endpoint types.
  static constexpr uint32_t kCrowdsourcingEndpoint = 0;
  static constexpr uint32_t kFeedbackEndpoint = 1;

  static constexpr size_t kFileCopyChunkBytes = 8192;

  // Takes from the Assembly: the temporary folder, the notification centre, the bag controller (may be
  // empty: the endpoints then wait for the first bag change), the request factory and httpSessions
  // (either missing: every upload is abandoned after its log line). It binds itself as the delegate of
  // uploadURLSession at once, and removes temporary upload files that an earlier process left behind
  // (unchanged for 10 minutes: a file that young may belong to an upload being prepared right now).
  static std::shared_ptr<UploadManager> create(const Assembly& assembly);
  static std::shared_ptr<UploadManager> create(const Assembly& assembly, Settings settings);
  ~UploadManager() override;

  // Compresses the record straight into a new temporary file and starts its upload. Returns the file
  // (its descriptor open, its bytes the compressed payload), or null when the upload was abandoned (no
  // temporary file, serialisation failed, no endpoint, no request).
  std::shared_ptr<UploadFile> uploadJSONFeedback(const nlohmann::ordered_json& record, uint32_t endpointType);
  // Compresses an existing file (copied in 8192-byte chunks) and uploads it; `type` becomes the query item
  // "type" when not empty.
  void uploadFeedback(const std::filesystem::path& file, const std::string& type, uint32_t endpointType);

  // A new temporary file in the temporary folder; null when none can be made.
  std::shared_ptr<UploadFile> makeTempFile();

  std::optional<std::string> feedbackEndpoint();
  void setFeedbackEndpoint(std::optional<std::string> url);
  std::optional<std::string> crowdsourcingEndpoint();
  void setCrowdsourcingEndpoint(std::optional<std::string> url);

  // Uploads started and not yet ended.
  size_t uploadsInFlight() const;
  // Uploads that have ended since creation (any outcome).
  uint64_t uploadsEnded() const;
  // Waits (on a condition, no polling) until no upload is in flight; false when `timeout` passed first.
  bool waitForUploadsToEnd(std::chrono::milliseconds timeout) const;

  // HttpSessionDelegate: on the upload session's callback queue.
  void didCompleteWithError(HttpSession& session, const std::shared_ptr<HttpTask>& task,
                            const std::optional<HttpError>& error) override;
  void didSendBodyData(HttpSession& session, const std::shared_ptr<HttpTask>& task, int64_t bytesSent,
                       int64_t totalBytesSent, int64_t totalBytesExpectedToSend) override;

 private:
  UploadManager(const Assembly& assembly, Settings settings);
  void start();
  void _removeLeftoverTempFiles();

  void bagChangeNotification(const Notification& notification);
  void _fetchEndpointsFromBag(const VORBag& bag);  // on the queue
  std::optional<std::string> _urlForEndpoint(uint32_t endpointType, const std::string& type);
  // The end of every upload: the file must exist and there must be an endpoint URL; then the request is
  // made and the task started. Returns false (the path removed) when the upload was abandoned.
  bool _enqueue(const std::shared_ptr<UploadFile>& file, const std::optional<std::string>& url,
                const std::string& digest, std::optional<uint64_t> numberOfFeedbacks);
  void _ended(uint64_t taskIdentifier);

  const Settings settings_;
  const std::filesystem::path temporaryDirectory_;
  const std::shared_ptr<NotificationCenter> notificationCenter_;
  const std::shared_ptr<BagController> bagController_;
  const std::shared_ptr<VORNetworkRequestFactory> requestFactory_;
  const std::shared_ptr<HttpSessions> httpSessions_;
  std::shared_ptr<HttpSession> uploadSession_;  // set in start()
  const std::shared_ptr<Queue> queue;
  std::unique_ptr<NotificationCenter::Token> bagObserver_;

  // On `queue`.
  std::optional<std::string> feedbackEndpoint_;
  std::optional<std::string> crowdsourcingEndpoint_;

  // Uploads in flight by task identifier: the file whose path goes when the task ends, and the
  // keep-alive transaction that holds the process while it runs.
  struct InFlight {
    std::shared_ptr<UploadFile> file;
    std::shared_ptr<Transaction> transaction;
  };
  mutable std::mutex inFlightMutex_;
  mutable std::condition_variable inFlightChanged_;
  std::map<uint64_t, InFlight> inFlight_;
  uint64_t endedCount_ = 0;
};

}  // namespace vorlen
