#include "feedback/ClientSessionShared.h"

namespace vorlen {

std::shared_ptr<ClientSessionShared> ClientSessionShared::create(const Assembly& assembly,
                                                                 VorlenFeedback feedback,
                                                                 int64_t previousSessionEndReason) {
  auto shared = std::shared_ptr<ClientSessionShared>(
      new ClientSessionShared(ClientSession::contextOf(assembly), previousSessionEndReason));
  shared->userGuid_ = feedback.userGuid;
  std::string agent = feedback.userAgent;
  shared->sessionMap_.emplace_back(
      std::move(agent),
      ClientSession::create(shared->context_, std::move(feedback), previousSessionEndReason));
  return shared;
}

ClientSessionShared::ClientSessionShared(ClientSession::Context context, int64_t previousSessionEndReason)
    : context_(std::move(context)), previousSessionEndReason_(previousSessionEndReason) {
  queue_ =
      Queue::serial("com.velmo.vorlend.clientSessionSharedQueue", QueuePriority::Default, context_.clock);
}

void ClientSessionShared::addFeedback(VorlenFeedback feedback) {
  // Synchronous for the same reason as a session's own adds: no worker is woken per event.
  queue_->sync([&] {
    for (auto& [agent, session] : sessionMap_) {
      if (agent == feedback.userAgent) {
        session->addFeedback(std::move(feedback));
        return;
      }
    }
    std::string agent = feedback.userAgent;
    sessionMap_.emplace_back(std::move(agent),
                             ClientSession::create(context_, std::move(feedback), previousSessionEndReason_));
  });
}

std::vector<std::shared_ptr<ClientSession>> ClientSessionShared::sessions() const {
  std::vector<std::shared_ptr<ClientSession>> out;
  queue_->sync([&] {
    for (const auto& entry : sessionMap_) out.push_back(entry.second);
  });
  return out;
}

void ClientSessionShared::sessionComplete() {
  for (const auto& session : sessions()) session->sessionComplete();
}

std::optional<Uuid> ClientSessionShared::userGuid() const {
  std::optional<Uuid> guid;
  queue_->sync([&] { guid = userGuid_; });
  return guid;
}

void ClientSessionShared::setUserGuid(std::optional<Uuid> guid) {
  queue_->sync([&] { userGuid_ = guid; });
}

void ClientSessionShared::enumerateSessions(
    const std::function<void(ClientSession& session, bool last)>& block) {
  const auto all = sessions();
  for (size_t i = 0; i < all.size(); ++i) block(*all[i], i + 1 == all.size());
}

std::vector<VorlenFeedback> ClientSessionShared::getSessionFeedbacks() {
  std::vector<VorlenFeedback> out;
  for (const auto& session : sessions()) {
    auto events = session->getSessionFeedbacks();
    out.insert(out.end(), std::make_move_iterator(events.begin()), std::make_move_iterator(events.end()));
  }
  return out;
}

nlohmann::ordered_json ClientSessionShared::feedbacksWithRelativeTimestamp() {
  nlohmann::ordered_json out = nlohmann::ordered_json::array();
  for (const auto& session : sessions()) {
    for (auto& event : session->feedbacksWithRelativeTimestamp()) out.push_back(std::move(event));
  }
  return out;
}

Value::Array ClientSessionShared::feedbackValuesWithRelativeTimestamp() {
  Value::Array out;
  for (const auto& session : sessions()) {
    for (Value& event : session->feedbackValuesWithRelativeTimestamp()) out.push_back(std::move(event));
  }
  return out;
}

nlohmann::ordered_json ClientSessionShared::privacyFilteredFeedbacksWithRelativeTimestamp(
    SessionProcessingHelper& helper) {
  nlohmann::ordered_json out = nlohmann::ordered_json::array();
  for (const auto& session : sessions()) {
    for (auto& event : session->privacyFilteredFeedbacksWithRelativeTimestamp(helper))
      out.push_back(std::move(event));
  }
  return out;
}

}  // namespace vorlen
