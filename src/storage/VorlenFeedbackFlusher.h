// VorlenFeedbackFlusher: the feedback pipeline's last stage for one destination. It buffers finished
// sessions (restored from their files) and, when told to send, turns each into its JSON session record
// and hands it to the upload manager: one compressed POST per session, no outer batch. A send never
// retries and never keeps a session: the buffer is empty afterwards whatever the uploads did.
//
// Destinations (also the upload manager's endpoint type): 0 "crowdsourcing" (the crowdsourcing endpoint),
// 1 "feedback", 2 "last_" (both the feedback endpoint); any other code is named "(unknown: N)" and goes to
// the feedback endpoint too.
//
// flushToWireAsync() adds the number of payloads it returns to "com.velmo.vorlend.clientconnection": that
// counter is reused here on purpose, so that the count of payloads handed to a tool stays comparable
// with the connection layer's.
//
// Threading: the buffer lives on the serial queue "com.velmo.vorlend.vorlenDataBufferQueue"; buffer
// operations queue onto it in call order, the readers and flushToWireSync() wait for it. The counter is
// added on "com.velmo.vorlend.feedbackCountQueue", which then calls the async callback.
// REQUIRES: the waiting operations are not called from the buffer queue.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/Queue.h"
#include "storage/FeedbackFlusher.h"

namespace vorlen {

class Assembly;

class VorlenFeedbackFlusher final : public FeedbackFlusher,
                                    public std::enable_shared_from_this<VorlenFeedbackFlusher> {
 public:
  static constexpr uint32_t kCrowdsourcing = 0;
  static constexpr uint32_t kFeedback = 1;
  static constexpr uint32_t kLast = 2;

  // Reads the Assembly's upload manager at each send (an empty slot abandons the uploads). `background`
  // changes nothing.
  static std::shared_ptr<VorlenFeedbackFlusher> create(std::shared_ptr<Assembly> assembly,
                                                       uint32_t identifier, bool background = false);
  ~VorlenFeedbackFlusher() override;

  static std::string nameForIdentifier(uint32_t identifier);

  // FeedbackFlusher.
  void flush(std::shared_ptr<ClientSession> session, std::function<void()> callback) override;
  void flushSyncFromArray(std::vector<std::shared_ptr<ClientSession>> sessions) override;
  void dropFeedbacks() override;
  void flushToWireAsync(std::function<void(std::vector<MappedFile>)> callback) override;
  void flushToWireSync(std::vector<MappedFile>* payloads) override;
  // flushToWireAsync() without a callback.
  void flushAllToWire() { flushToWireAsync({}); }

  size_t countOfDatabuffer() const;
  std::vector<std::shared_ptr<ClientSession>> sessionBuffer() const;
  uint32_t identifier() const { return identifier_; }

 private:
  VorlenFeedbackFlusher(std::shared_ptr<Assembly> assembly, uint32_t identifier);
  // Sends the buffer and empties it; the mapped payloads when `wantPayloads`. REQUIRES: on the buffer queue.
  std::vector<MappedFile> _flushToWireWithObjectsReturned(bool wantPayloads);

  const std::weak_ptr<Assembly> assembly_;
  const uint32_t identifier_;
  const std::shared_ptr<Queue> queueBuffer_;
  const std::shared_ptr<Queue> feedbackCountQueue_;
  std::vector<std::shared_ptr<ClientSession>> sessionBuffer_;  // queueBuffer_ only
};

}  // namespace vorlen
