// ClientSession: one feedback session of one client agent: its events in arrival order plus a small
// header (agent, user GUID, resource versions, start time, first use of the day, why the previous session
// ended). Each event is also appended to the session's file as it arrives; completing the session hands
// that file to the persistent storage for upload. A session restored from its file header (fromArchive)
// carries the header only; its events are read from the records that follow it.
//
// Opening a session counts "com.velmo.vorlend.<client>.sessions" for a known client, and the first
// session of a calendar day of a client that keeps a first-use record counts
// "com.velmo.vorlend.<client>.dailyactiveusers" and stores the date under "VorlenFirstUseOfTheDay_<word>".
// An envelope whose GUID differs from the session's is kept, followed by an "error" event saying so.
//
// Threading: every method is safe from any thread. The event list and the file writes are serialised on
// the session's queue "com.velmo.vorlend.clientSessionQueue". Adds hop onto it synchronously (an idle
// queue runs the append in place, so no worker is woken per event; file writes themselves must not
// block); readers and sessionComplete() wait on it too, so everyone sees every add made before. First-use
// state has its own queue "com.velmo.vorlend.firstUseQueue". The header fields are fixed at construction.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "base/Clock.h"
#include "base/Preferences.h"
#include "base/Queue.h"
#include "base/Uuid.h"
#include "base/Value.h"
#include "feedback/FeedbackEventType.h"
#include "feedback/ManagedClientSession.h"
#include "feedback/VorlenFeedback.h"
#include "model/VORError.h"

namespace vorlen {

class Assembly;
class DownloadManager;
class FileContainerProtocol;
class PersistentStorage;

class ClientSession final : public ManagedClientSession, public std::enable_shared_from_this<ClientSession> {
 public:
  // The event type that marks a session of custom result features: such sessions carry no base time.
  static constexpr int kRemoveTimestampsEventType = kEventCustomNorvantaResultFeatures;

  // What a session takes from the Assembly: the preferences store, the persistent storage, the clock, the
  // testFeedbacks switch and the download manager (the versions of the resource files held at the start).
  struct Context {
    std::shared_ptr<Preferences> userDefaults;
    std::shared_ptr<PersistentStorage> persistentStorage;
    std::shared_ptr<Clock> clock;
    bool testFeedbacks = false;
    std::shared_ptr<DownloadManager> downloadManager;
  };
  static Context contextOf(const Assembly& assembly);

  // A session started with `feedback` as its first event (the header and the file are made first).
  static std::shared_ptr<ClientSession> create(const Assembly& assembly, VorlenFeedback feedback,
                                               int64_t previousSessionEndReason = 0);
  static std::shared_ptr<ClientSession> create(Context context, VorlenFeedback feedback,
                                               int64_t previousSessionEndReason = 0);
  // A one-off session holding an error event: query id 0, the current user GUID, the daemon's own agent.
  static std::shared_ptr<ClientSession> createFeedbackSessionFromError(const VORError& error,
                                                                       const Assembly& assembly);
  // A session header read back from a session file; nothing after a log line when it is not one.
  static std::shared_ptr<ClientSession> fromArchive(const Value& archive, const Assembly& assembly);

  // The first-use preference word of an agent: the first of "voyant", "norvanta", "lookup", "messages",
  // "news", "zeva" that the lowercased agent contains.
  static std::optional<std::string> firstUseWordForAgent(std::string_view agent);

  // ClientSessionProtocol / ManagedClientSession.
  void addFeedback(VorlenFeedback feedback) override;
  // Appends the events read back from the session's file, in file order: no checks and no file write,
  // since each event was checked when it first arrived. For sessions restored with fromArchive().
  void addRestoredFeedbacks(std::vector<VorlenFeedback> feedbacks);
  void sessionComplete() override;
  std::optional<Uuid> userGuid() const override { return userGuid_; }
  void enumerateSessions(const std::function<void(ClientSession& session, bool last)>& block) override;
  std::vector<VorlenFeedback> getSessionFeedbacks() override;
  // The number of events held (waits for the adds queued before it).
  size_t feedbackCount() const;
  nlohmann::ordered_json feedbacksWithRelativeTimestamp() override;
  Value::Array feedbackValuesWithRelativeTimestamp() override;
  nlohmann::ordered_json privacyFilteredFeedbacksWithRelativeTimestamp(
      SessionProcessingHelper& helper) override;

  // The JSON session record: "fb", "agent", "user_guid", "resource_versions", "first_use", "base_time",
  // "previous_session_end_reason", in this order.
  nlohmann::ordered_json getFeedbacksToSend(SessionProcessingHelper& helper);
  // The header record of the session file: "agent", "user_guid", "resource_versions", "base_time",
  // "previous_session_end_reason", "first_use", "remove_timestamps".
  Value toArchive() const;

  const std::string& agent() const { return agent_; }
  const Value::Dict& resourceVersions() const { return resourceVersions_; }
  std::optional<Time> sessionStart() const { return sessionStart_; }
  int64_t previousSessionEndReason() const { return previousSessionEndReason_; }
  bool firstUseOfTheDay() const { return firstUseOfTheDay_; }
  bool removeTimestamps() const { return removeTimestamps_; }
  std::shared_ptr<FileContainerProtocol> storageHandle() const;
  void setStorageHandle(std::shared_ptr<FileContainerProtocol> handle);
  std::optional<Time> firstUseDate() const;

 private:
  explicit ClientSession(Context context);
  void _start(VorlenFeedback feedback, int64_t previousSessionEndReason);
  bool _recordFirstUseOfTheDay();
  void _append(VorlenFeedback feedback);
  // The events in time order with their relative times set.
  std::vector<VorlenFeedback> _sortedWithRelativeTimestamps();
  // The sorted events with relative times; each event is processed with `helper` first when given.
  nlohmann::ordered_json _relativeDictionaries(SessionProcessingHelper* helper);

  const Context context_;
  std::shared_ptr<Queue> sessionQueue_;
  std::shared_ptr<Queue> dateQueue_;

  // Header: set before the session is shared, read-only afterwards.
  std::string agent_;
  std::optional<Uuid> userGuid_;
  Value::Dict resourceVersions_;
  std::optional<Time> sessionStart_;
  int64_t previousSessionEndReason_ = 0;
  bool firstUseOfTheDay_ = false;
  bool removeTimestamps_ = false;

  std::vector<VorlenFeedback> sessionFeedbacks_;          // sessionQueue_ only
  std::shared_ptr<FileContainerProtocol> storageHandle_;  // sessionQueue_ only (after construction)
  std::optional<Time> firstUseDate_;                      // dateQueue_ only
};

}  // namespace vorlen
