#include "feedback/ClientSession.h"

#include <algorithm>
#include <chrono>
#include <ctime>

#include "base/Counters.h"
#include "base/JsonValue.h"
#include "base/Log.h"
#include "download/DownloadManager.h"
#include "feedback/ClientCounterName.h"
#include "feedback/ClientSessionManager.h"
#include "feedback/SessionProcessingHelper.h"
#include "feedback/VorlenSessionEndFeedback.h"
#include "model/QXFeedbackFactory.h"
#include "network/GUIDController.h"
#include "platform/Assembly.h"
#include "storage/PersistentStorage.h"

namespace vorlen {

namespace {

const Logger& sessionLog() {
  return VorlenLogForCategory(VorlenLogCategorySession);
}
const Logger& feedbackLog() {
  return VorlenLogForCategory(VorlenLogCategoryFeedback);
}
const Logger& storageLog() {
  return VorlenLogForCategory(VorlenLogCategoryFeedbackStorage);
}

constexpr const char* kFirstUsePrefix = "VorlenFirstUseOfTheDay_";

constexpr const char* kArchiveClassName = "ClientSession";
constexpr const char* kAgentKey = "agent";
constexpr const char* kUserGuidKey = "user_guid";
constexpr const char* kResourceVersionsKey = "resource_versions";
constexpr const char* kBaseTimeKey = "base_time";
constexpr const char* kPreviousReasonKey = "previous_session_end_reason";
constexpr const char* kFirstUseKey = "first_use";
constexpr const char* kRemoveTimestampsKey = "remove_timestamps";

std::string lowered(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
  return out;
}

std::optional<std::string> firstContained(std::string_view text, std::initializer_list<const char*> words) {
  const std::string lower = lowered(text);
  for (const char* word : words) {
    if (lower.find(word) != std::string::npos) return std::string(word);
  }
  return std::nullopt;
}

// The calendar day of `t` in the local time zone, counted in days since the epoch: two times share a day
// number exactly when they fall on the same local calendar date.
int64_t localDayNumber(Time t) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(t);
  std::tm local{};
  localtime_r(&seconds, &local);
  const std::chrono::year_month_day date{std::chrono::year(local.tm_year + 1900),
                                         std::chrono::month(static_cast<unsigned>(local.tm_mon + 1)),
                                         std::chrono::day(static_cast<unsigned>(local.tm_mday))};
  return std::chrono::sys_days(date).time_since_epoch().count();
}

}  // namespace

ClientSession::Context ClientSession::contextOf(const Assembly& assembly) {
  return Context{assembly.userDefaults, assembly.persistentStorage, assembly.clock(), assembly.testFeedbacks,
                 assembly.downloadManager};
}

std::optional<std::string> ClientSession::firstUseWordForAgent(std::string_view agent) {
  return firstContained(agent, {"voyant", "norvanta", "lookup", "messages", "news", "zeva"});
}

ClientSession::ClientSession(Context context) : context_(std::move(context)) {
  sessionQueue_ =
      Queue::serial("com.velmo.vorlend.clientSessionQueue", QueuePriority::Default, context_.clock);
  dateQueue_ = Queue::serial("com.velmo.vorlend.firstUseQueue", QueuePriority::Default, context_.clock);
}

std::shared_ptr<ClientSession> ClientSession::create(const Assembly& assembly, VorlenFeedback feedback,
                                                     int64_t previousSessionEndReason) {
  return create(contextOf(assembly), std::move(feedback), previousSessionEndReason);
}

std::shared_ptr<ClientSession> ClientSession::create(Context context, VorlenFeedback feedback,
                                                     int64_t previousSessionEndReason) {
  auto session = std::shared_ptr<ClientSession>(new ClientSession(std::move(context)));
  session->_start(std::move(feedback), previousSessionEndReason);
  return session;
}

void ClientSession::_start(VorlenFeedback feedback, int64_t previousSessionEndReason) {
  agent_ = feedback.userAgent;
  userGuid_ = feedback.userGuid;
  previousSessionEndReason_ = previousSessionEndReason;
  removeTimestamps_ = feedback.type() == kRemoveTimestampsEventType;
  sessionStart_ = context_.clock ? context_.clock->now() : std::chrono::system_clock::now();

  const std::optional<std::string> word = firstUseWordForAgent(agent_);
  if (word && context_.userDefaults) {
    std::optional<Time> stored = context_.userDefaults->dateForKey(kFirstUsePrefix + *word);
    dateQueue_->sync([&] { firstUseDate_ = stored; });
  }
  if (auto client = extractClientNameFromString(agent_)) {
    VorlenDiagnosticDataReporter::addValue(1, createTallydKey(*client, "sessions"));
  }
  firstUseOfTheDay_ = _recordFirstUseOfTheDay();
  resourceVersions_ = Value::Dict{};
  if (context_.downloadManager) {
    for (auto& [identifier, version] : context_.downloadManager->resourceVersions())
      resourceVersions_.emplace(identifier, Value(std::move(version)));
  }

  if (context_.persistentStorage) {
    auto handle = context_.persistentStorage->createFileContainerForWriting();
    if (handle) handle->writeSessionHeader(*this);
    sessionQueue_->sync([&] { storageHandle_ = std::move(handle); });
  }
  addFeedback(std::move(feedback));
}

bool ClientSession::_recordFirstUseOfTheDay() {
  bool answer = false;
  dateQueue_->sync([&] {
    const std::optional<std::string> word = firstUseWordForAgent(agent_);
    if (!word) {
      sessionLog().debug("user default key not found for agent: {}", agent_);
      answer = false;
      return;
    }
    const Time now = context_.clock ? context_.clock->now() : std::chrono::system_clock::now();
    if (firstUseDate_ && localDayNumber(now) == localDayNumber(*firstUseDate_)) return;
    firstUseDate_ = now;
    if (context_.userDefaults) {
      context_.userDefaults->set(kFirstUsePrefix + *word, Value(now));
      context_.userDefaults->synchronize();
    }
    if (auto client = extractClientNameFromString(agent_)) {
      VorlenDiagnosticDataReporter::addValue(1, createTallydKey(*client, "dailyactiveusers"));
    }
    answer = true;
  });
  return answer;
}

std::shared_ptr<ClientSession> ClientSession::createFeedbackSessionFromError(const VORError& error,
                                                                             const Assembly& assembly) {
  std::optional<Uuid> guid;
  if (assembly.guidController) guid = assembly.guidController->currentUserGUID();
  VorlenFeedback envelope(QXFeedbackFactory::error(error), 0, guid,
                          ClientSessionManager::vorlendUserAgent(assembly).value_or(""));
  return create(assembly, std::move(envelope));
}

void ClientSession::addFeedback(VorlenFeedback feedback) {
  const bool differentGuid = userGuid_ && feedback.userGuid != userGuid_;
  std::string agent = differentGuid ? feedback.userAgent : std::string();
  _append(std::move(feedback));
  if (differentGuid) {
    // The envelope is kept; the session says that it holds events of two GUIDs.
    _append(VorlenFeedback(QXFeedbackFactory::error(VORError::make(500, "different guid in session")), 0,
                           std::nullopt, std::move(agent)));
  }
}

void ClientSession::_append(VorlenFeedback feedback) {
  // A synchronous hop: the session's queue is idle nearly always, so the append runs in place on the
  // caller's thread instead of waking a worker for every event, and calls from one thread stay in order.
  sessionQueue_->sync([&] {
    // The sender's hold ends when the record is written (the write's completion owns it), or here.
    std::shared_ptr<void> untilStored = std::move(feedback.untilStored);
    if (!context_.testFeedbacks) {
      // The list and the file are independent: a slow or failed write does not hold the event back.
      if (storageHandle_) {
        storageHandle_->writeFeedback(feedback, [untilStored = std::move(untilStored)] {});
      }
      sessionFeedbacks_.push_back(std::move(feedback));
      return;
    }
    // Test mode: the event joins the list only once its record is written.
    if (!storageHandle_) {
      sessionFeedbacks_.push_back(std::move(feedback));
      return;
    }
    auto self = shared_from_this();
    storageHandle_->writeFeedback(feedback, [self, feedback, untilStored = std::move(untilStored)]() mutable {
      if (self->sessionQueue_->isCurrent()) {
        self->sessionFeedbacks_.push_back(std::move(feedback));
      } else {
        self->sessionQueue_->async([self, feedback = std::move(feedback)]() mutable {
          self->sessionFeedbacks_.push_back(std::move(feedback));
        });
      }
    });
  });
}

void ClientSession::addRestoredFeedbacks(std::vector<VorlenFeedback> feedbacks) {
  sessionQueue_->sync([&] {
    sessionFeedbacks_.insert(sessionFeedbacks_.end(), std::make_move_iterator(feedbacks.begin()),
                             std::make_move_iterator(feedbacks.end()));
  });
}

void ClientSession::sessionComplete() {
  sessionQueue_->sync([&] {
    if (!storageHandle_) {
      storageLog().fault("Storage Handle nil major error");
      return;
    }
    if (context_.persistentStorage) context_.persistentStorage->closeSessionWithFileContainer(storageHandle_);
    storageHandle_.reset();
  });
}

void ClientSession::enumerateSessions(const std::function<void(ClientSession& session, bool last)>& block) {
  block(*this, true);
}

std::vector<VorlenFeedback> ClientSession::getSessionFeedbacks() {
  std::vector<VorlenFeedback> copy;
  sessionQueue_->sync([&] { copy = sessionFeedbacks_; });
  std::stable_sort(copy.begin(), copy.end(), VorlenFeedback::timeStampComparator);
  return copy;
}

size_t ClientSession::feedbackCount() const {
  size_t n = 0;
  sessionQueue_->sync([&] { n = sessionFeedbacks_.size(); });
  return n;
}

std::vector<VorlenFeedback> ClientSession::_sortedWithRelativeTimestamps() {
  std::vector<VorlenFeedback> events = getSessionFeedbacks();
  uint64_t base = 0;  // 0: not set yet (an event stamped 0 leaves it unset)
  for (VorlenFeedback& feedback : events) {
    const uint64_t timestamp = feedback.feedback.timestamp();
    if (base == 0) {
      feedback.relTimestamp = 0;
      base = timestamp;
    } else {
      // Events are sorted, so a later one is never earlier than the base.
      feedback.relTimestamp =
          (timestamp > base ? timestamp - base : 0) / QXFeedback::kMachineTimeUnitsPerMillisecond;
    }
  }
  return events;
}

nlohmann::ordered_json ClientSession::_relativeDictionaries(SessionProcessingHelper* helper) {
  nlohmann::ordered_json out = nlohmann::ordered_json::array();
  for (VorlenFeedback& feedback : _sortedWithRelativeTimestamps()) {
    if (helper) feedback.process(*helper);
    nlohmann::ordered_json dictionary = feedback.dictionary();
    if (dictionary.is_null()) {
      feedbackLog().error("nil feedback dictionary for type : {}", feedback.type());
      continue;
    }
    out.push_back(std::move(dictionary));
  }
  return out;
}

Value::Array ClientSession::feedbackValuesWithRelativeTimestamp() {
  Value::Array out;
  for (const VorlenFeedback& feedback : _sortedWithRelativeTimestamps())
    out.push_back(feedback.dictionaryValue());
  return out;
}

nlohmann::ordered_json ClientSession::feedbacksWithRelativeTimestamp() {
  return _relativeDictionaries(nullptr);
}

nlohmann::ordered_json ClientSession::privacyFilteredFeedbacksWithRelativeTimestamp(
    SessionProcessingHelper& helper) {
  nlohmann::ordered_json events = _relativeDictionaries(&helper);
  // Referenced but never described in full: the record starts with the missing suggestions, then the
  // missing results, then the events.
  auto lead = [&](QXFeedback missing) {
    VorlenFeedback envelope(std::move(missing), 0, userGuid_, agent_);
    envelope.relTimestamp = 0;
    events.insert(events.begin(), envelope.dictionary());
  };
  if (auto results = helper.missingResults(); !results.empty())
    lead(QXFeedbackFactory::sessionMissingResults(results));
  if (auto suggestions = helper.missingSuggestions(); !suggestions.empty())
    lead(QXFeedbackFactory::sessionMissingSuggestions(suggestions));
  return events;
}

nlohmann::ordered_json ClientSession::getFeedbacksToSend(SessionProcessingHelper& helper) {
  nlohmann::ordered_json record = nlohmann::ordered_json::object();
  // The events go in last, into the slot that keeps their place first: an ordered object copies its
  // members whenever it grows, and the events are nearly all of the record.
  record["fb"] = nullptr;
  record["agent"] = agent_;
  record["user_guid"] = userGuid_ ? userGuid_->string() : std::string();
  record["resource_versions"] = JsonValue::toJson(Value(resourceVersions_));
  record["first_use"] = firstUseOfTheDay_;
  int64_t baseTime = 0;
  if (!removeTimestamps_ && sessionStart_) {
    baseTime = std::chrono::duration_cast<std::chrono::seconds>(sessionStart_->time_since_epoch()).count();
  }
  record["base_time"] = baseTime;
  record["previous_session_end_reason"] =
      VorlenSessionEndFeedback::triggerEventEnumToString(previousSessionEndReason_);
  record["fb"] = privacyFilteredFeedbacksWithRelativeTimestamp(helper);
  return record;
}

Value ClientSession::toArchive() const {
  Value archive = Value::record(kArchiveClassName);
  archive.set(kAgentKey, Value(agent_));
  if (userGuid_) {
    const auto& bytes = userGuid_->bytes();
    archive.set(kUserGuidKey, Value(Value::Data(bytes.begin(), bytes.end())));
  }
  archive.set(kResourceVersionsKey, Value(resourceVersions_));
  if (sessionStart_) archive.set(kBaseTimeKey, Value(*sessionStart_));
  archive.set(kPreviousReasonKey, Value(previousSessionEndReason_));
  archive.set(kFirstUseKey, Value(firstUseOfTheDay_));
  archive.set(kRemoveTimestampsKey, Value(removeTimestamps_));
  return archive;
}

std::shared_ptr<ClientSession> ClientSession::fromArchive(const Value& archive, const Assembly& assembly) {
  if (!archive.isDict()) {
    storageLog().error("session header is not a dictionary");
    return nullptr;
  }
  auto session = std::shared_ptr<ClientSession>(new ClientSession(contextOf(assembly)));
  const Value* agent = archive.find(kAgentKey);
  if (agent && agent->getString()) {
    session->agent_ = *agent->getString();
  } else {
    storageLog().error("decoder returned nil for {}", kAgentKey);
  }
  const Value* versions = archive.find(kResourceVersionsKey);
  if (versions && versions->getDict()) {
    session->resourceVersions_ = *versions->getDict();
  } else {
    storageLog().error("decoder returned nil for {}", kResourceVersionsKey);
  }
  if (const Value* start = archive.find(kBaseTimeKey)) session->sessionStart_ = start->getDate();
  if (const Value* firstUse = archive.find(kFirstUseKey); firstUse && firstUse->getBool())
    session->firstUseOfTheDay_ = *firstUse->getBool();
  if (const Value* remove = archive.find(kRemoveTimestampsKey); remove && remove->getBool())
    session->removeTimestamps_ = *remove->getBool();
  if (const Value* guid = archive.find(kUserGuidKey); guid && guid->getData())
    session->userGuid_ = Uuid::fromBytes(guid->getData()->data(), guid->getData()->size());
  if (const Value* reason = archive.find(kPreviousReasonKey); reason && reason->getInt())
    session->previousSessionEndReason_ = *reason->getInt();
  return session;
}

std::shared_ptr<FileContainerProtocol> ClientSession::storageHandle() const {
  std::shared_ptr<FileContainerProtocol> handle;
  sessionQueue_->sync([&] { handle = storageHandle_; });
  return handle;
}

void ClientSession::setStorageHandle(std::shared_ptr<FileContainerProtocol> handle) {
  sessionQueue_->sync([&] { storageHandle_ = std::move(handle); });
}

std::optional<Time> ClientSession::firstUseDate() const {
  std::optional<Time> date;
  dateQueue_->sync([&] { date = firstUseDate_; });
  return date;
}

}  // namespace vorlen
