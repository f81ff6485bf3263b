// VorlenUserGUIDController: the anonymous user GUID. A fresh random UUID that lives 900 s; it is rolled
// lazily by the first currentUserGUID() after expiry (an idle daemon rolls nothing), or by reset().
// Nothing is stored: a restarted daemon starts with a new GUID.
//
// After every roll the counter "com.velmo.vorlend.userguid" is increased and
// "VORUserGUIDChangeNotification" is posted, both from a block enqueued on the controller's queue after
// the rolling block, so the notification always follows the change. Construction rolls nothing and posts
// nothing.
//
// Threading: all state lives on the serial queue "com.velmo.vorlen.guid"; currentUserGUID() is a
// synchronous hop onto it and reset() an asynchronous one, so FIFO order makes a read after a reset see
// the new GUID.
// REQUIRES: currentUserGUID() is not called from the queue itself (including from a handler of the change
// notification, which runs there).
#pragma once

#include <memory>

#include "base/Clock.h"
#include "base/NotificationCenter.h"
#include "base/Queue.h"
#include "network/GUIDController.h"

namespace vorlen {

class Assembly;

class VorlenUserGUIDController final : public GUIDController,
                                       public std::enable_shared_from_this<VorlenUserGUIDController> {
 public:
  static constexpr double kLifetimeSeconds = 900;

  static std::shared_ptr<VorlenUserGUIDController> create(const Assembly& assembly);
  static std::shared_ptr<VorlenUserGUIDController> create(std::shared_ptr<Clock> clock,
                                                          std::shared_ptr<NotificationCenter> center);

  Uuid currentUserGUID() override;
  void reset() override;

 private:
  VorlenUserGUIDController(std::shared_ptr<Clock> clock, std::shared_ptr<NotificationCenter> center);
  void _rollGUID();

  std::shared_ptr<Clock> clock_;
  std::shared_ptr<NotificationCenter> center_;
  std::shared_ptr<Queue> queue_;
  Uuid lastKnownUserGUID_;
  Time lastKnownUserGUIDExpirationDate_;
};

}  // namespace vorlen
