// FakeActivityScheduler: a background activity scheduler driven by hand. It records registrations and
// criteria and calls a handler only when the test says so (checkIn(), run()), on the calling thread. State
// changes follow the accepted transitions of BackgroundActivityScheduler.h, except those the test chose
// to refuse with refuse(); every request is recorded with its answer.
//
// Threading: every method is safe from any thread; handlers run on the thread that calls checkIn()/run().
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/BackgroundActivityScheduler.h"

namespace vorlen::test {

class FakeActivityScheduler final : public BackgroundActivityScheduler {
 public:
  struct Activity final : BackgroundActivity {
    explicit Activity(std::string id) : id_(std::move(id)) {}
    const std::string& identifier() const override { return id_; }
    std::string id_;
  };
  struct Registration {
    std::optional<Value::Dict> criteria;
    ActivityHandler handler;
    std::shared_ptr<Activity> activity;
    int64_t state = kActivityStateWait;
  };

  void registerActivity(const std::string& identifier, std::optional<Value::Dict> criteria,
                        ActivityHandler handler) override {
    std::lock_guard lock(mu_);
    Registration& r = activities_[identifier];
    r.criteria = std::move(criteria);
    r.handler = std::move(handler);
    r.activity = std::make_shared<Activity>(identifier);
    r.state = r.criteria ? kActivityStateWait : kActivityStateCheckIn;
  }
  void unregisterActivity(const std::string& identifier) override {
    std::lock_guard lock(mu_);
    activities_.erase(identifier);
  }
  bool setCriteria(const std::shared_ptr<BackgroundActivity>& activity,
                   const Value::Dict& criteria) override {
    std::lock_guard lock(mu_);
    Registration* r = find(activity);
    if (!r) return false;
    r->criteria = criteria;
    return true;
  }
  bool setState(const std::shared_ptr<BackgroundActivity>& activity, int64_t state) override {
    std::lock_guard lock(mu_);
    Registration* r = find(activity);
    bool accepted = false;
    if (r && !refused_.contains(state)) {
      const bool running = r->state == kActivityStateRun || r->state == kActivityStateContinue;
      accepted = (running && (state == kActivityStateDone || state == kActivityStateDefer)) ||
                 (r->state == kActivityStateRun && state == kActivityStateContinue);
      if (accepted) r->state = state;
    }
    requests_.emplace_back(state, accepted);
    return accepted;
  }
  int64_t getState(const std::shared_ptr<BackgroundActivity>& activity) override {
    std::lock_guard lock(mu_);
    Registration* r = find(activity);
    return r ? r->state : kActivityStateDone;
  }
  bool shouldDefer(const std::shared_ptr<BackgroundActivity>&) override { return false; }

  // Calls the handler in state check-in / run. False when nothing is registered under `identifier`.
  bool checkIn(const std::string& identifier) { return call(identifier, kActivityStateCheckIn); }
  bool run(const std::string& identifier) { return call(identifier, kActivityStateRun); }
  // Every later setState() to `state` is refused.
  void refuse(int64_t state) {
    std::lock_guard lock(mu_);
    refused_.insert(state);
  }

  bool isRegistered(const std::string& identifier) const {
    std::lock_guard lock(mu_);
    return activities_.contains(identifier);
  }
  std::optional<Value::Dict> criteria(const std::string& identifier) const {
    std::lock_guard lock(mu_);
    auto it = activities_.find(identifier);
    return it == activities_.end() ? std::nullopt : it->second.criteria;
  }
  int64_t state(const std::string& identifier) const {
    std::lock_guard lock(mu_);
    auto it = activities_.find(identifier);
    return it == activities_.end() ? -1 : it->second.state;
  }
  // (requested state, accepted) in request order.
  std::vector<std::pair<int64_t, bool>> requests() const {
    std::lock_guard lock(mu_);
    return requests_;
  }

 private:
  Registration* find(const std::shared_ptr<BackgroundActivity>& activity) {
    if (!activity) return nullptr;
    auto it = activities_.find(activity->identifier());
    return it != activities_.end() && it->second.activity.get() == activity.get() ? &it->second : nullptr;
  }
  bool call(const std::string& identifier, int64_t state) {
    ActivityHandler handler;
    std::shared_ptr<Activity> activity;
    {
      std::lock_guard lock(mu_);
      auto it = activities_.find(identifier);
      if (it == activities_.end()) return false;
      it->second.state = state;
      handler = it->second.handler;
      activity = it->second.activity;
    }
    if (handler) handler(activity);
    return true;
  }

  mutable std::mutex mu_;
  std::map<std::string, Registration> activities_;
  std::set<int64_t> refused_;
  std::vector<std::pair<int64_t, bool>> requests_;
};

}  // namespace vorlen::test
