// HttpSessions: the four process-wide HTTP sessions, each made on first use and shared afterwards:
//
//   urlSession          queries: 4 MiB in-memory response cache; idle connections dropped after 10 s;
//                       TCP fast open and TLS session reuse unless the preference "VORNoParallax" is true
//                       (read once, when the session is made); HTTP/2 multiplexing.
//   bagSession          the bag fetch: no response cache; idle connections dropped after 10 s.
//   downloadURLSession  resource files, background identifier "com.velmo.vorlend"; no response cache; a
//                       body larger than 64 MiB fails the task (-1103); the delegate given at the first
//                       call (the download manager) receives every event.
//   uploadURLSession    feedback upload, background identifier "com.velmo.vorlend.flusher.httpsession";
//                       no response cache; request time-out 300 s, resource time-out 604800 s (7 days);
//                       the delegate given at the first call (the upload manager).
//
// No session stores cookies. Every session collects the timing data of its tasks.
//
// Threading: every accessor is safe from any thread; creation happens once (std::call_once).
#pragma once

#include <filesystem>
#include <memory>
#include <mutex>

#include "base/Clock.h"
#include "network/HttpSession.h"
#include "network/HttpSessionSettings.h"

namespace vorlen {

class Preferences;

class HttpSessions {
 public:
  // `defaults` may be null (then "VORNoParallax" reads as false); `clock` null means the system clock;
  // `temporaryDirectory` empty means $TMPDIR, else /tmp.
  HttpSessions(std::shared_ptr<const Preferences> defaults, std::shared_ptr<Clock> clock,
               std::filesystem::path temporaryDirectory);

  std::shared_ptr<HttpSession> urlSession();
  std::shared_ptr<HttpSession> bagSession();
  // REQUIRES: the first call passes the delegate; later calls' delegates are ignored.
  std::shared_ptr<HttpSession> downloadURLSession(const std::shared_ptr<HttpSessionDelegate>& delegate);
  std::shared_ptr<HttpSession> uploadURLSession(const std::shared_ptr<HttpSessionDelegate>& delegate);

  // The settings each session is made with (callback queue unset).
  HttpSessionSettings urlSessionSettings(bool noParallax) const;
  HttpSessionSettings bagSessionSettings() const;
  HttpSessionSettings downloadSessionSettings() const;
  HttpSessionSettings uploadSessionSettings() const;

  static constexpr size_t kQueryCacheBytes = 4194304;
  static constexpr double kIdleConnectionSeconds = 10.0;
  // Largest body a download task of downloadURLSession may receive (64 MiB).
  static constexpr uint64_t kMaxResourceDownloadBytes = 64u << 20;

 private:
  HttpSessionSettings base(std::string name) const;

  const std::shared_ptr<const Preferences> defaults_;
  const std::shared_ptr<Clock> clock_;
  const std::filesystem::path temporaryDirectory_;

  std::once_flag urlOnce_, bagOnce_, downloadOnce_, uploadOnce_;
  std::shared_ptr<HttpSession> url_, bag_, download_, upload_;
};

}  // namespace vorlen
