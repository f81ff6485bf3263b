#include "network/HttpSessions.h"

#include "base/Preferences.h"

namespace vorlen {

HttpSessions::HttpSessions(std::shared_ptr<const Preferences> defaults, std::shared_ptr<Clock> clock,
                           std::filesystem::path temporaryDirectory)
    : defaults_(std::move(defaults)),
      clock_(clock ? std::move(clock) : Clock::system()),
      temporaryDirectory_(std::move(temporaryDirectory)) {}

HttpSessionSettings HttpSessions::base(std::string name) const {
  HttpSessionSettings s;
  s.name = std::move(name);
  s.idleConnectionMaxAgeSeconds = kIdleConnectionSeconds;
  s.http2Multiplexing = true;
  s.clock = clock_;
  s.temporaryDirectory = temporaryDirectory_;
  return s;
}

HttpSessionSettings HttpSessions::urlSessionSettings(bool noParallax) const {
  HttpSessionSettings s = base("urlSession");
  s.responseCacheBytes = kQueryCacheBytes;
  s.tcpFastOpen = !noParallax;
  s.tlsSessionReuse = !noParallax;
  return s;
}

HttpSessionSettings HttpSessions::bagSessionSettings() const {
  return base("bagSession");
}

HttpSessionSettings HttpSessions::downloadSessionSettings() const {
  HttpSessionSettings s = base("downloadURLSession");
  s.background = true;
  s.backgroundIdentifier = "com.velmo.vorlend";
  // Resource files are small; a larger answer is abandoned before it fills the disk.
  s.maxDownloadBytes = kMaxResourceDownloadBytes;
  return s;
}

HttpSessionSettings HttpSessions::uploadSessionSettings() const {
  HttpSessionSettings s = base("uploadURLSession");
  s.background = true;
  s.backgroundIdentifier = "com.velmo.vorlend.flusher.httpsession";
  s.requestTimeoutSeconds = 300.0;
  s.resourceTimeoutSeconds = 604800.0;
  return s;
}

std::shared_ptr<HttpSession> HttpSessions::urlSession() {
  std::call_once(urlOnce_, [this] {
    bool noParallax = defaults_ && defaults_->boolForKey("VORNoParallax");
    url_ = HttpSession::create(urlSessionSettings(noParallax));
  });
  return url_;
}

std::shared_ptr<HttpSession> HttpSessions::bagSession() {
  std::call_once(bagOnce_, [this] { bag_ = HttpSession::create(bagSessionSettings()); });
  return bag_;
}

std::shared_ptr<HttpSession> HttpSessions::downloadURLSession(
    const std::shared_ptr<HttpSessionDelegate>& delegate) {
  std::call_once(downloadOnce_,
                 [&] { download_ = HttpSession::create(downloadSessionSettings(), delegate); });
  return download_;
}

std::shared_ptr<HttpSession> HttpSessions::uploadURLSession(
    const std::shared_ptr<HttpSessionDelegate>& delegate) {
  std::call_once(uploadOnce_, [&] { upload_ = HttpSession::create(uploadSessionSettings(), delegate); });
  return upload_;
}

}  // namespace vorlen
