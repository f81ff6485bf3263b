#include "base/NotificationCenter.h"

#include <algorithm>

namespace vorlen {

NotificationCenter::Token::~Token() {
  remove();
}

void NotificationCenter::Token::remove() {
  if (auto c = center_.lock()) c->remove(id_);
  center_.reset();
}

std::shared_ptr<NotificationCenter> NotificationCenter::create() {
  std::shared_ptr<NotificationCenter> c(new NotificationCenter);
  c->self_ = c;
  return c;
}

std::unique_ptr<NotificationCenter::Token> NotificationCenter::addObserver(std::string name,
                                                                           const void* sender,
                                                                           Handler handler) {
  auto token = std::make_unique<Token>();
  std::lock_guard lock(mu_);
  token->center_ = self_;
  token->id_ = nextId_++;
  observers_.push_back(
      Observer{token->id_, std::move(name), sender, std::make_shared<Handler>(std::move(handler))});
  return token;
}

void NotificationCenter::remove(uint64_t id) {
  std::lock_guard lock(mu_);
  std::erase_if(observers_, [id](const Observer& o) { return o.id == id; });
}

void NotificationCenter::post(const Notification& n) {
  std::vector<std::pair<uint64_t, std::shared_ptr<Handler>>> targets;
  {
    std::lock_guard lock(mu_);
    for (auto& o : observers_)
      if (o.name == n.name && (!o.sender || o.sender == n.sender)) targets.emplace_back(o.id, o.handler);
  }
  for (auto& [id, handler] : targets) {
    // An observer removed by an earlier handler of this same post is not called.
    bool live;
    {
      std::lock_guard lock(mu_);
      live = std::any_of(observers_.begin(), observers_.end(),
                         [id = id](const Observer& o) { return o.id == id; });
    }
    if (live) (*handler)(n);
  }
}

void NotificationCenter::post(std::string name, const void* sender, Value userInfo) {
  post(Notification{std::move(name), sender, std::move(userInfo), nullptr});
}

size_t NotificationCenter::observerCountForTesting(const std::string& name) const {
  std::lock_guard lock(mu_);
  return std::count_if(observers_.begin(), observers_.end(),
                       [&](const Observer& o) { return o.name == name; });
}

}  // namespace vorlen
