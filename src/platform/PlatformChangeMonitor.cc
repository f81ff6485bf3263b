#include "platform/PlatformChangeMonitor.h"

namespace vorlen {

std::shared_ptr<PlatformChangeMonitor> PlatformChangeMonitor::create(std::shared_ptr<Clock> clock,
                                                                     std::vector<std::function<void()>> checks) {
  std::shared_ptr<PlatformChangeMonitor> monitor(new PlatformChangeMonitor(std::move(clock), std::move(checks)));
  monitor->_timer = Timer::weak<PlatformChangeMonitor>(monitor->clock_, monitor->_queue, monitor,
                                                       [](PlatformChangeMonitor& m) {
                                                         m._round();
                                                         m._timer->arm(kInterval);
                                                       });
  return monitor;
}

PlatformChangeMonitor::PlatformChangeMonitor(std::shared_ptr<Clock> clock, std::vector<std::function<void()>> checks)
    : clock_(clock ? std::move(clock) : Clock::system()),
      checks_(std::move(checks)),
      _queue(Queue::serial("com.velmo.vorlend.platformchanges", QueuePriority::Utility, clock_)) {}

void PlatformChangeMonitor::start() {
  if (!_timer->isArmed()) _timer->arm(kInterval);
}

void PlatformChangeMonitor::stop() { _timer->cancel(); }

void PlatformChangeMonitor::checkNow() {
  std::weak_ptr<PlatformChangeMonitor> weak = weak_from_this();
  _queue->async([weak] {
    if (auto self = weak.lock()) self->_round();
  });
}

void PlatformChangeMonitor::_round() {
  _queue->assertCurrent();
  for (const auto& check : checks_) check();
}

}  // namespace vorlen
