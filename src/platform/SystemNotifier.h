// SystemNotifier: system-wide notifications, the ones other processes may wait for (for example
// "com.velmo.vorlen.news.enabled"). post() logs the name and hands it to every registered observer; the
// connection layer registers one that forwards the name to the connected clients that asked for it.
// A notification carries nothing but its name.
//
// Observers are called synchronously on the posting thread, in registration order, and never under the
// notifier's lock, so an observer may post, add or remove observers. Dropping an observer's token stops
// its delivery; a token may outlive the notifier.
//
// Threading: every method is safe from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vorlen {

class SystemNotifier : public std::enable_shared_from_this<SystemNotifier> {
 public:
  using Handler = std::function<void(const std::string& name)>;

  // Removes its observer when destroyed.
  class Token {
   public:
    ~Token();
    void remove();

   private:
    friend class SystemNotifier;
    std::weak_ptr<SystemNotifier> notifier_;
    uint64_t id_ = 0;
  };

  static std::shared_ptr<SystemNotifier> create();

  // `name` empty observes every notification.
  std::unique_ptr<Token> addObserver(std::string name, Handler handler);
  void post(const std::string& name);

 private:
  SystemNotifier() = default;
  void remove(uint64_t id);

  struct Observer {
    uint64_t id;
    std::string name;
    std::shared_ptr<Handler> handler;
  };
  std::mutex mu_;
  uint64_t nextId_ = 1;
  std::vector<Observer> observers_;
};

}  // namespace vorlen
