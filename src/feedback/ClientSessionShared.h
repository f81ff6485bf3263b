// ClientSessionShared: the open feedback session when every client shares one ("VORSharedSession"): one
// ClientSession per agent, all opened under one manager session and ended together. An envelope goes to
// its agent's session, which is made on the agent's first envelope (with the end reason of the previous
// shared session); an envelope without an agent is kept under "".
//
// Per-agent sessions are listed in the order their agents first appeared; the readers concatenate the
// per-agent results in that order.
//
// Threading: every method is safe from any thread. The agent map is serialised on
// "com.velmo.vorlend.clientSessionSharedQueue"; adds, like a session's own, hop onto it synchronously.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/Queue.h"
#include "feedback/ClientSession.h"
#include "feedback/ManagedClientSession.h"

namespace vorlen {

class ClientSessionShared final : public ManagedClientSession,
                                  public std::enable_shared_from_this<ClientSessionShared> {
 public:
  static std::shared_ptr<ClientSessionShared> create(const Assembly& assembly, VorlenFeedback feedback,
                                                     int64_t previousSessionEndReason = 0);

  void addFeedback(VorlenFeedback feedback) override;
  // Completes every per-agent session.
  void sessionComplete() override;
  std::optional<Uuid> userGuid() const override;
  void enumerateSessions(const std::function<void(ClientSession& session, bool last)>& block) override;
  std::vector<VorlenFeedback> getSessionFeedbacks() override;
  nlohmann::ordered_json feedbacksWithRelativeTimestamp() override;
  Value::Array feedbackValuesWithRelativeTimestamp() override;
  nlohmann::ordered_json privacyFilteredFeedbacksWithRelativeTimestamp(
      SessionProcessingHelper& helper) override;

  void setUserGuid(std::optional<Uuid> guid);
  // The per-agent sessions, in the order their agents first appeared.
  std::vector<std::shared_ptr<ClientSession>> sessions() const;

 private:
  ClientSessionShared(ClientSession::Context context, int64_t previousSessionEndReason);

  const ClientSession::Context context_;
  const int64_t previousSessionEndReason_;
  std::shared_ptr<Queue> queue_;
  // queue_ only.
  std::optional<Uuid> userGuid_;
  std::vector<std::pair<std::string, std::shared_ptr<ClientSession>>> sessionMap_;
};

}  // namespace vorlen
