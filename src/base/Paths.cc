#include "base/Paths.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

#include "base/FileUtil.h"

namespace vorlen {

namespace {

std::string env(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}

std::filesystem::path home() {
  std::string h = env("HOME");
  if (!h.empty()) return h;
  if (passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_dir) return pw->pw_dir;
  return "/tmp";
}

}  // namespace

Paths Paths::fromEnvironment() {
  Paths p;
  std::string runtime = env("XDG_RUNTIME_DIR");
  p.runtimeDir = runtime.empty() ? std::filesystem::path("/tmp/vorlend-" + std::to_string(::getuid()))
                                 : std::filesystem::path(runtime) / "vorlend";
  std::string config = env("XDG_CONFIG_HOME");
  p.configDir = (config.empty() ? home() / ".config" : std::filesystem::path(config)) / "vorlend";
  std::string cache = env("XDG_CACHE_HOME");
  p.cachesDir = (cache.empty() ? home() / ".cache" : std::filesystem::path(cache)) / kServiceName;
  std::string tmp = env("TMPDIR");
  p.tempDir = tmp.empty() ? "/tmp" : tmp;
  std::string sock = env("VORLEND_SOCKET");
  p.serviceSocket = sock.empty() ? p.runtimeDir / kServiceName : std::filesystem::path(sock);
  return p;
}

Paths Paths::underRoot(const std::filesystem::path& root) {
  Paths p;
  p.runtimeDir = root / "runtime";
  p.configDir = root / "config";
  p.cachesDir = root / "caches";
  p.tempDir = root / "tmp";
  p.serviceSocket = p.runtimeDir / kServiceName;
  return p;
}

bool Paths::create(std::string* error) const {
  return ensureDirectory(runtimeDir, 0700, error) && ensureDirectory(configDir, 0700, error) &&
         ensureDirectory(cachesDir, 0700, error) &&
         (tempDir.empty() || std::filesystem::exists(tempDir) || ensureDirectory(tempDir, 0700, error));
}

}  // namespace vorlen
