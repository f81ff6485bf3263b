// NotificationCenter: in-process notifications by name, with an optional sender filter.
//
// Delivery is synchronous on the posting thread, in registration order. Observers are held by a token:
// dropping or removing the token stops delivery. An observer registered with an owner holds that owner
// weakly and is skipped (and pruned) once the owner is gone. A post never holds the centre's lock while
// handlers run, so handlers may post, add or remove observers.
//
// Threading: every method is safe from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/Value.h"

namespace vorlen {

struct Notification {
  std::string name;
  const void* sender = nullptr;  // identity only; never dereferenced
  Value userInfo;                // a dictionary or null
  // Typed in-process payloads that are not plain values (for example the bag record under "bag").
  std::shared_ptr<const void> object;
};

class NotificationCenter {
 public:
  using Handler = std::function<void(const Notification&)>;

  // Removes the observer when destroyed.
  class Token {
   public:
    ~Token();
    void remove();

   private:
    friend class NotificationCenter;
    std::weak_ptr<NotificationCenter> center_;
    uint64_t id_ = 0;
  };

  static std::shared_ptr<NotificationCenter> create();

  // `sender` null observes every sender.
  std::unique_ptr<Token> addObserver(std::string name, const void* sender, Handler handler);

  // An observer that holds `owner` weakly: after the owner is gone the handler is never called.
  template <class Owner>
  std::unique_ptr<Token> addObserver(std::string name, const void* sender,
                                     const std::shared_ptr<Owner>& owner,
                                     std::function<void(Owner&, const Notification&)> handler) {
    std::weak_ptr<Owner> w = owner;
    return addObserver(std::move(name), sender, [w, h = std::move(handler)](const Notification& n) {
      if (auto o = w.lock()) h(*o, n);
    });
  }

  void post(const Notification& notification);
  void post(std::string name, const void* sender = nullptr, Value userInfo = {});

  size_t observerCountForTesting(const std::string& name) const;

 private:
  NotificationCenter() = default;
  void remove(uint64_t id);

  struct Observer {
    uint64_t id;
    std::string name;
    const void* sender;
    std::shared_ptr<Handler> handler;
  };
  mutable std::mutex mu_;
  uint64_t nextId_ = 1;
  std::vector<Observer> observers_;
  std::weak_ptr<NotificationCenter> self_;
};

}  // namespace vorlen
