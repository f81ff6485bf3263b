// AppWhitelistController: keeps the installed-apps signature (see AppWhitelistSignature) current and hands
// it to the request factory, which sends it as "X-Velmo-Whitelisted-App-Signature".
//
// Generation reads the allow-list resource ("installed_app_whitelist") through the download manager, maps
// it, and computes the signature for the platform's installed applications. It runs:
//   - at construction when the preferences hold no signature yet;
//   - when the download manager announces a new allow-list file (kVORFileDownloadCompletedNotification whose
//     "identifier" is the allow-list's; other resources are ignored);
//   - 60 s after the last applications-changed notification of the installed-apps registry (each change
//     re-arms the one-shot timer on the Assembly's clock, so a burst of installs gives one generation).
// Its result is stored under the preference "VORAppWhitelistSignature", or the preference is removed when
// there is none; every failure yields none, so a broken file stops the header rather than sending a stale
// one.
//
// Generations run on one serial background-priority queue, so two of them never overlap and the stored
// signature is always the latest one's. Every queued block, the timer and the observers hold the controller
// weakly. A missing download manager, registry or request factory is tolerated (no signature, no header).
//
// Threading: whitelistSignature() and setWhitelistSignature() are safe from any thread.
// REQUIRES: _generateWhitelistSignature() and _generate() run on the controller's queue (asserted).
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "base/Clock.h"
#include "base/NotificationCenter.h"
#include "base/Queue.h"
#include "base/Timer.h"

namespace vorlen {

class Assembly;
class DownloadManager;
class InstalledApplications;
class Preferences;
class VORNetworkRequestFactory;

class AppWhitelistController : public std::enable_shared_from_this<AppWhitelistController> {
 public:
  static constexpr const char* kSignaturePreference = "VORAppWhitelistSignature";
  static constexpr Duration kDebounce = std::chrono::seconds(60);

  // Reads from the Assembly: userDefaults, notificationCenter, downloadManager, requestFactory, the clock
  // and the platform's installed applications.
  static std::shared_ptr<AppWhitelistController> create(const Assembly& assembly);
  ~AppWhitelistController();

  std::optional<std::string> whitelistSignature() const;
  // Stores the signature and hands it to the request factory.
  void setWhitelistSignature(const std::optional<std::string>& signature);

  // Observer of kVORFileDownloadCompletedNotification: queues a generation for the allow-list's file.
  void _handleNewWhitelistFile(const Notification& notification);
  // One generation: computes, stores (or removes) the preference, sets the signature.
  void _generateWhitelistSignature();
  std::optional<std::string> _generate();

  // Waits until every generation queued so far has run.
  void drainForTesting();
  bool debounceArmedForTesting() const { return timer_ && timer_->isArmed(); }

 private:
  explicit AppWhitelistController(const Assembly& assembly);
  void _start();

  std::shared_ptr<Preferences> defaults_;
  std::shared_ptr<NotificationCenter> center_;
  std::shared_ptr<DownloadManager> downloadManager_;
  std::shared_ptr<InstalledApplications> installed_;
  std::weak_ptr<VORNetworkRequestFactory> requestFactory_;
  std::shared_ptr<Clock> clock_;
  std::shared_ptr<Queue> backgroundQueue_;
  std::shared_ptr<Timer> timer_;
  std::unique_ptr<NotificationCenter::Token> registerToken_;
  std::unique_ptr<NotificationCenter::Token> downloadToken_;

  mutable std::mutex mu_;
  std::optional<std::string> whitelistSignature_;  // guarded by mu_
};

}  // namespace vorlen
