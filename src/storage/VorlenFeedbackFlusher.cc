#include "storage/VorlenFeedbackFlusher.h"

#include <fmt/format.h>

#include "base/Counters.h"
#include "base/Log.h"
#include "feedback/ClientSession.h"
#include "feedback/SessionProcessingHelper.h"
#include "platform/Assembly.h"
#include "storage/UploadManager.h"

namespace vorlen {

namespace {

const Logger& log() {
  return VorlenLogForCategory(VorlenLogCategoryFlusher);
}

}  // namespace

std::shared_ptr<VorlenFeedbackFlusher> VorlenFeedbackFlusher::create(std::shared_ptr<Assembly> assembly,
                                                                     uint32_t identifier,
                                                                     bool /*background*/) {
  return std::shared_ptr<VorlenFeedbackFlusher>(new VorlenFeedbackFlusher(std::move(assembly), identifier));
}

VorlenFeedbackFlusher::VorlenFeedbackFlusher(std::shared_ptr<Assembly> assembly, uint32_t identifier)
    : assembly_(assembly),
      identifier_(identifier),
      queueBuffer_(Queue::serial("com.velmo.vorlend.vorlenDataBufferQueue", QueuePriority::Utility,
                                 assembly ? assembly->clock() : nullptr)),
      feedbackCountQueue_(Queue::serial("com.velmo.vorlend.feedbackCountQueue", QueuePriority::Utility,
                                        assembly ? assembly->clock() : nullptr)) {
  log().debug("Initialize flusher for {}", nameForIdentifier(identifier));
}

VorlenFeedbackFlusher::~VorlenFeedbackFlusher() {
  log().debug("Vorlen Feedback Flusher {} deallocated", nameForIdentifier(identifier_));
}

std::string VorlenFeedbackFlusher::nameForIdentifier(uint32_t identifier) {
  switch (identifier) {
    case kCrowdsourcing:
      return "crowdsourcing";
    case kFeedback:
      return "feedback";
    case kLast:
      return "last_";
    default:
      return fmt::format("(unknown: {})", static_cast<int>(identifier));
  }
}

void VorlenFeedbackFlusher::flush(std::shared_ptr<ClientSession> session, std::function<void()> callback) {
  std::weak_ptr<VorlenFeedbackFlusher> weak = weak_from_this();
  queueBuffer_->async([weak, session = std::move(session)] {
    if (auto self = weak.lock(); self && session) self->sessionBuffer_.push_back(session);
  });
  if (callback) callback();
}

void VorlenFeedbackFlusher::flushSyncFromArray(std::vector<std::shared_ptr<ClientSession>> sessions) {
  std::weak_ptr<VorlenFeedbackFlusher> weak = weak_from_this();
  queueBuffer_->async([weak, sessions = std::move(sessions)] {
    auto self = weak.lock();
    if (!self) return;
    for (const auto& s : sessions)
      if (s) self->sessionBuffer_.push_back(s);
  });
}

void VorlenFeedbackFlusher::dropFeedbacks() {
  std::weak_ptr<VorlenFeedbackFlusher> weak = weak_from_this();
  queueBuffer_->async([weak] {
    if (auto self = weak.lock()) self->sessionBuffer_.clear();
  });
}

void VorlenFeedbackFlusher::flushToWireAsync(std::function<void(std::vector<MappedFile>)> callback) {
  auto self = shared_from_this();
  queueBuffer_->async([self, callback = std::move(callback)]() mutable {
    auto payloads = std::make_shared<std::vector<MappedFile>>(self->_flushToWireWithObjectsReturned(true));
    self->feedbackCountQueue_->async([payloads, callback = std::move(callback)] {
      VorlenDiagnosticDataReporter::addValue(static_cast<int64_t>(payloads->size()),
                                             "com.velmo.vorlend.clientconnection");
      if (callback) callback(std::move(*payloads));
    });
  });
}

void VorlenFeedbackFlusher::flushToWireSync(std::vector<MappedFile>* payloads) {
  queueBuffer_->sync([&] {
    std::vector<MappedFile> sent = _flushToWireWithObjectsReturned(payloads != nullptr);
    if (payloads)
      for (MappedFile& m : sent) payloads->push_back(std::move(m));
  });
}

size_t VorlenFeedbackFlusher::countOfDatabuffer() const {
  size_t n = 0;
  queueBuffer_->sync([&] { n = sessionBuffer_.size(); });
  return n;
}

std::vector<std::shared_ptr<ClientSession>> VorlenFeedbackFlusher::sessionBuffer() const {
  std::vector<std::shared_ptr<ClientSession>> copy;
  queueBuffer_->sync([&] { copy = sessionBuffer_; });
  return copy;
}

std::vector<MappedFile> VorlenFeedbackFlusher::_flushToWireWithObjectsReturned(bool wantPayloads) {
  queueBuffer_->assertCurrent();
  log().debug("Sessions Flushed {}", sessionBuffer_.size());
  std::vector<MappedFile> payloads;
  std::shared_ptr<UploadManager> uploads;
  if (auto assembly = assembly_.lock()) uploads = assembly->uploadManager;
  for (const auto& session : sessionBuffer_) {
    // One helper per session: replacement identifiers are session-local.
    SessionProcessingHelper helper;
    nlohmann::ordered_json record = session->getFeedbacksToSend(helper);
    if (!uploads) continue;
    std::shared_ptr<UploadFile> file = uploads->uploadJSONFeedback(record, identifier_);
    if (!wantPayloads || !file) continue;
    const off_t size = file->size();
    std::optional<MappedFile> mapped =
        size >= 0 ? MappedFile::map(file->fd(), static_cast<size_t>(size)) : std::nullopt;
    if (!mapped) {
      log().error("error mapping tmp file {}",
                  file->path().value_or(std::filesystem::path("(removed)")).string());
      continue;
    }
    payloads.push_back(std::move(*mapped));
  }
  sessionBuffer_.clear();
  return payloads;
}

}  // namespace vorlen
