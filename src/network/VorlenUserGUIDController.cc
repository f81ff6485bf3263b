#include "network/VorlenUserGUIDController.h"

#include "base/Counters.h"
#include "platform/Assembly.h"

namespace vorlen {

std::shared_ptr<VorlenUserGUIDController> VorlenUserGUIDController::create(const Assembly& assembly) {
  return create(assembly.clock(), assembly.notificationCenter);
}

std::shared_ptr<VorlenUserGUIDController> VorlenUserGUIDController::create(
    std::shared_ptr<Clock> clock, std::shared_ptr<NotificationCenter> center) {
  return std::shared_ptr<VorlenUserGUIDController>(
      new VorlenUserGUIDController(std::move(clock), std::move(center)));
}

VorlenUserGUIDController::VorlenUserGUIDController(std::shared_ptr<Clock> clock,
                                                   std::shared_ptr<NotificationCenter> center)
    : clock_(std::move(clock)),
      center_(std::move(center)),
      queue_(Queue::serial("com.velmo.vorlen.guid", QueuePriority::Default, clock_)),
      lastKnownUserGUID_(Uuid::random()),
      lastKnownUserGUIDExpirationDate_(clock_->now() + seconds(kLifetimeSeconds)) {}

Uuid VorlenUserGUIDController::currentUserGUID() {
  Uuid out;
  queue_->sync([&] {
    if (lastKnownUserGUIDExpirationDate_ - clock_->now() <= Duration::zero()) _rollGUID();
    out = lastKnownUserGUID_;
  });
  return out;
}

void VorlenUserGUIDController::reset() {
  std::weak_ptr<VorlenUserGUIDController> weak = weak_from_this();
  queue_->async([weak] {
    if (auto self = weak.lock()) self->_rollGUID();
  });
}

void VorlenUserGUIDController::_rollGUID() {
  queue_->assertCurrent();
  lastKnownUserGUID_ = Uuid::random();
  lastKnownUserGUIDExpirationDate_ = clock_->now() + seconds(kLifetimeSeconds);
  // Announced from a later block so observers never see the notification before the change is complete.
  queue_->async([center = center_] {
    VorlenDiagnosticDataReporter::addValue(1, "com.velmo.vorlend.userguid");
    if (center) center->post("VORUserGUIDChangeNotification");
  });
}

}  // namespace vorlen
