#include "network/VorlenUserGUIDController.h"

#include "base/Counters.h"
#include "platform/Assembly.h"

namespace vorlen {

std::shared_ptr<VorlenUserGUIDController> VorlenUserGUIDController::create(const Assembly& assembly) {
  return create(assembly.clock(), assembly.notificationCenter);
}

std::shared_ptr<VorlenUserGUIDController> VorlenUserGUIDController::create(std::shared_ptr<Clock> clock,
                                                                           std::shared_ptr<NotificationCenter> center) {
  return std::shared_ptr<VorlenUserGUIDController>(new VorlenUserGUIDController(std::move(clock), std::move(center)));
}

VorlenUserGUIDController::VorlenUserGUIDController(std::shared_ptr<Clock> clock,
                                                   std::shared_ptr<NotificationCenter> center)
    : clock_(std::move(clock)),
      center_(std::move(center)),
      _queue(Queue::serial("com.velmo.vorlen.guid", QueuePriority::Default, clock_)),
      _lastKnownUserGUID(Uuid::random()),
      _lastKnownUserGUIDExpirationDate(clock_->now() + seconds(kLifetimeSeconds)) {}

Uuid VorlenUserGUIDController::currentUserGUID() {
  Uuid out;
  _queue->sync([&] {
    if (_lastKnownUserGUIDExpirationDate - clock_->now() <= Duration::zero()) _rollGUID();
    out = _lastKnownUserGUID;
  });
  return out;
}

void VorlenUserGUIDController::reset() {
  std::weak_ptr<VorlenUserGUIDController> weak = weak_from_this();
  _queue->async([weak] {
    if (auto self = weak.lock()) self->_rollGUID();
  });
}

void VorlenUserGUIDController::_rollGUID() {
  _queue->assertCurrent();
  _lastKnownUserGUID = Uuid::random();
  _lastKnownUserGUIDExpirationDate = clock_->now() + seconds(kLifetimeSeconds);
  // Announced from a later block so observers never see the notification before the change is complete.
  _queue->async([center = center_] {
    VorlenDiagnosticDataReporter::addValue(1, "com.velmo.vorlend.userguid");
    if (center) center->post("VORUserGUIDChangeNotification");
  });
}

}  // namespace vorlen
