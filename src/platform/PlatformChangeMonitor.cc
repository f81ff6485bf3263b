#include "platform/PlatformChangeMonitor.h"

namespace vorlen {

std::shared_ptr<PlatformChangeMonitor> PlatformChangeMonitor::create(
    std::shared_ptr<Clock> clock, std::vector<std::function<void()>> checks) {
  std::shared_ptr<PlatformChangeMonitor> monitor(
      new PlatformChangeMonitor(std::move(clock), std::move(checks)));
  monitor->timer_ = Timer::weak<PlatformChangeMonitor>(monitor->clock_, monitor->queue_, monitor,
                                                       [](PlatformChangeMonitor& m) {
                                                         m._round();
                                                         m.timer_->arm(kInterval);
                                                       });
  return monitor;
}

PlatformChangeMonitor::PlatformChangeMonitor(std::shared_ptr<Clock> clock,
                                             std::vector<std::function<void()>> checks)
    : clock_(clock ? std::move(clock) : Clock::system()),
      checks_(std::move(checks)),
      queue_(Queue::serial("com.velmo.vorlend.platformchanges", QueuePriority::Utility, clock_)) {}

void PlatformChangeMonitor::start() {
  if (!timer_->isArmed()) timer_->arm(kInterval);
}

void PlatformChangeMonitor::stop() {
  timer_->cancel();
}

void PlatformChangeMonitor::checkNow() {
  std::weak_ptr<PlatformChangeMonitor> weak = weak_from_this();
  queue_->async([weak] {
    if (auto self = weak.lock()) self->_round();
  });
}

void PlatformChangeMonitor::_round() {
  queue_->assertCurrent();
  for (const auto& check : checks_) check();
}

}  // namespace vorlen
