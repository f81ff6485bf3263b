#include "platform/InProcessActivityScheduler.h"

#include <algorithm>

#include "base/Log.h"

namespace vorlen {

namespace {

int64_t intCriterion(const Value::Dict& criteria, const char* key, int64_t fallback) {
  auto it = criteria.find(key);
  if (it == criteria.end()) return fallback;
  return it->second.getInt().value_or(fallback);
}

bool boolCriterion(const Value::Dict& criteria, const char* key) {
  auto it = criteria.find(key);
  return it != criteria.end() && it->second.getBool().value_or(false);
}

}  // namespace

struct InProcessActivityScheduler::Registration final : BackgroundActivity {
  Registration(std::string id, ActivityHandler h) : identifier_(std::move(id)), handler(std::move(h)) {}
  const std::string& identifier() const override { return identifier_; }

  const std::string identifier_;
  const ActivityHandler handler;
  // Guarded by the scheduler's mu_:
  std::optional<Value::Dict> criteria;
  int64_t state = kActivityStateWait;
  Time due{};
  std::shared_ptr<ScheduledCall> call;
};

std::shared_ptr<InProcessActivityScheduler> InProcessActivityScheduler::create(std::shared_ptr<Clock> clock,
                                                                               Probes probes,
                                                                               double timeScale) {
  return std::shared_ptr<InProcessActivityScheduler>(
      new InProcessActivityScheduler(std::move(clock), std::move(probes), timeScale));
}

InProcessActivityScheduler::InProcessActivityScheduler(std::shared_ptr<Clock> clock, Probes probes,
                                                       double timeScale)
    : clock_(clock ? std::move(clock) : Clock::system()),
      probes_(std::move(probes)),
      timeScale_(timeScale > 0 ? timeScale : 1.0),
      // The queue takes no clock: calls armed on the clock hold the queue, so a queue holding the clock
      // would keep both alive for as long as a call is pending.
      queue_(Queue::serial("com.velmo.vorlend.activityscheduler", QueuePriority::Utility)) {}

void InProcessActivityScheduler::registerActivity(const std::string& identifier,
                                                  std::optional<Value::Dict> criteria,
                                                  ActivityHandler handler) {
  auto reg = std::make_shared<Registration>(identifier, std::move(handler));
  std::lock_guard lock(mu_);
  if (auto it = activities_.find(identifier); it != activities_.end() && it->second->call)
    it->second->call->cancel();
  activities_[identifier] = reg;
  if (criteria) {
    reg->criteria = std::move(criteria);
    _scheduleFirst(reg);
    return;
  }
  // Check-in only: the handler is told once and may give criteria.
  reg->state = kActivityStateCheckIn;
  std::weak_ptr<Registration> weak = reg;
  queue_->async([weak] {
    if (auto r = weak.lock(); r && r->handler) r->handler(r);
  });
}

void InProcessActivityScheduler::unregisterActivity(const std::string& identifier) {
  std::lock_guard lock(mu_);
  auto it = activities_.find(identifier);
  if (it == activities_.end()) return;
  if (it->second->call) it->second->call->cancel();
  activities_.erase(it);
}

bool InProcessActivityScheduler::setCriteria(const std::shared_ptr<BackgroundActivity>& activity,
                                             const Value::Dict& criteria) {
  std::lock_guard lock(mu_);
  auto reg = _current(activity);
  if (!reg) return false;
  reg->criteria = criteria;
  if (reg->state == kActivityStateCheckIn || reg->state == kActivityStateWait) {
    reg->state = kActivityStateWait;
    _scheduleFirst(reg);
  }
  return true;
}

bool InProcessActivityScheduler::setState(const std::shared_ptr<BackgroundActivity>& activity,
                                          int64_t state) {
  std::lock_guard lock(mu_);
  auto reg = _current(activity);
  if (!reg) return false;
  const int64_t from = reg->state;
  const bool running = from == kActivityStateRun || from == kActivityStateContinue;
  const bool accepted = (running && (state == kActivityStateDone || state == kActivityStateDefer)) ||
                        (from == kActivityStateRun && state == kActivityStateContinue);
  if (!accepted) return false;
  reg->state = state;
  if (state == kActivityStateDone) {
    _finish(reg);
  } else if (state == kActivityStateDefer) {
    // Tried again once the conditions allow, checked at the usual pace.
    _scheduleAt(reg, clock_->now() + _span(kConditionRecheckSeconds));
  }
  return true;
}

int64_t InProcessActivityScheduler::getState(const std::shared_ptr<BackgroundActivity>& activity) {
  std::lock_guard lock(mu_);
  auto reg = _current(activity);
  return reg ? reg->state : kActivityStateDone;
}

bool InProcessActivityScheduler::shouldDefer(const std::shared_ptr<BackgroundActivity>& activity) {
  Value::Dict criteria;
  {
    std::lock_guard lock(mu_);
    auto reg = _current(activity);
    if (!reg || !reg->criteria) return false;
    if (reg->state != kActivityStateRun && reg->state != kActivityStateContinue) return false;
    criteria = *reg->criteria;
  }
  return !_conditionsMet(criteria);
}

Duration InProcessActivityScheduler::_span(double s) const {
  return seconds(s / timeScale_);
}

std::shared_ptr<InProcessActivityScheduler::Registration> InProcessActivityScheduler::_current(
    const std::shared_ptr<BackgroundActivity>& activity) const {
  if (!activity) return nullptr;
  auto it = activities_.find(activity->identifier());
  if (it == activities_.end() || it->second.get() != activity.get()) return nullptr;
  return it->second;
}

void InProcessActivityScheduler::_scheduleAt(const std::shared_ptr<Registration>& reg, Time when) {
  if (reg->call) reg->call->cancel();
  std::weak_ptr<InProcessActivityScheduler> self = weak_from_this();
  std::weak_ptr<Registration> weak = reg;
  reg->call = clock_->schedule(when, queue_, [self, weak] {
    auto s = self.lock();
    auto r = weak.lock();
    if (s && r) s->_due(r);
  });
}

void InProcessActivityScheduler::_scheduleFirst(const std::shared_ptr<Registration>& reg) {
  const Value::Dict& c = *reg->criteria;
  const Time now = clock_->now();
  if (c.contains(kActivityDelay))
    reg->due = now + _span(static_cast<double>(std::max<int64_t>(0, intCriterion(c, kActivityDelay, 0))));
  else if (boolCriterion(c, kActivityRepeating))
    reg->due = now + _span(static_cast<double>(std::max<int64_t>(1, intCriterion(c, kActivityInterval, 1))));
  else
    reg->due = now;
  _scheduleAt(reg, reg->due);
}

void InProcessActivityScheduler::_finish(const std::shared_ptr<Registration>& reg) {
  if (!reg->criteria || !boolCriterion(*reg->criteria, kActivityRepeating)) {
    reg->state = kActivityStateDone;
    if (reg->call) reg->call->cancel();
    return;
  }
  const Duration interval =
      _span(static_cast<double>(std::max<int64_t>(1, intCriterion(*reg->criteria, kActivityInterval, 1))));
  const Time now = clock_->now();
  Time next = reg->due + interval;
  if (next <= now) next += interval * ((now - next) / interval + 1);
  reg->due = next;
  reg->state = kActivityStateWait;
  _scheduleAt(reg, next);
}

void InProcessActivityScheduler::_due(const std::shared_ptr<Registration>& reg) {
  queue_->assertCurrent();
  Value::Dict criteria;
  {
    std::lock_guard lock(mu_);
    auto it = activities_.find(reg->identifier());
    if (it == activities_.end() || it->second != reg || !reg->criteria) return;
    if (reg->state != kActivityStateWait && reg->state != kActivityStateDefer) return;
    criteria = *reg->criteria;
  }
  const bool met = _conditionsMet(criteria);
  {
    std::lock_guard lock(mu_);
    if (activities_.find(reg->identifier()) == activities_.end() || activities_[reg->identifier()] != reg)
      return;
    if (!met) {
      const Time now = clock_->now();
      const int64_t grace = intCriterion(criteria, kActivityGracePeriod, -1);
      if (grace >= 0 && boolCriterion(criteria, kActivityRepeating) &&
          now >= reg->due + _span(static_cast<double>(grace))) {
        VorlenDefaultLog().debug(
            "activity {} skipped a run: its conditions did not hold within its grace period",
            reg->identifier());
        _finish(reg);
      } else {
        _scheduleAt(reg, now + _span(kConditionRecheckSeconds));
      }
      return;
    }
    reg->state = kActivityStateRun;
  }
  if (reg->handler) reg->handler(reg);
  std::lock_guard lock(mu_);
  // Returning in state run ends the period.
  if (reg->state == kActivityStateRun && _current(reg)) _finish(reg);
}

bool InProcessActivityScheduler::_conditionsMet(const Value::Dict& criteria) const {
  if (!boolCriterion(criteria, kActivityAllowBattery) && probes_.onBattery && probes_.onBattery())
    return false;
  if (boolCriterion(criteria, kActivityRequireScreenSleep) && probes_.screenAsleep && !probes_.screenAsleep())
    return false;
  return true;
}

}  // namespace vorlen
