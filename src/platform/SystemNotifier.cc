#include "platform/SystemNotifier.h"

#include <algorithm>

#include "base/Log.h"

namespace vorlen {

SystemNotifier::Token::~Token() {
  remove();
}

void SystemNotifier::Token::remove() {
  if (auto n = notifier_.lock()) n->remove(id_);
  notifier_.reset();
}

std::shared_ptr<SystemNotifier> SystemNotifier::create() {
  return std::shared_ptr<SystemNotifier>(new SystemNotifier());
}

std::unique_ptr<SystemNotifier::Token> SystemNotifier::addObserver(std::string name, Handler handler) {
  auto token = std::make_unique<Token>();
  std::lock_guard lock(mu_);
  token->notifier_ = weak_from_this();
  token->id_ = nextId_++;
  observers_.push_back({token->id_, std::move(name), std::make_shared<Handler>(std::move(handler))});
  return token;
}

void SystemNotifier::remove(uint64_t id) {
  std::lock_guard lock(mu_);
  std::erase_if(observers_, [id](const Observer& o) { return o.id == id; });
}

void SystemNotifier::post(const std::string& name) {
  VorlenLogForCategory(VorlenLogCategoryVorlen).notice("posting system notification {}", name);
  std::vector<std::shared_ptr<Handler>> handlers;
  {
    std::lock_guard lock(mu_);
    for (const Observer& o : observers_)
      if (o.name.empty() || o.name == name) handlers.push_back(o.handler);
  }
  for (const auto& h : handlers) (*h)(name);
}

}  // namespace vorlen
