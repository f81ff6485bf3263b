// vorlend: the on-device search daemon.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "base/FileUtil.h"
#include "base/Log.h"
#include "daemon/Daemon.h"
#include "daemon/DaemonLock.h"

namespace {

void usage() {
  std::fprintf(stderr,
               "usage: vorlend [--idle-exit SECONDS]\n"
               "  Folders come from XDG_RUNTIME_DIR, XDG_CONFIG_HOME, XDG_CACHE_HOME and TMPDIR;\n"
               "  the service socket from VORLEND_SOCKET; the log level from VORLEND_LOG_LEVEL.\n");
}

}  // namespace

int main(int argc, char** argv) {
  vorlen::DaemonOptions options;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--idle-exit" && i + 1 < argc) {
      char* end = nullptr;
      double v = std::strtod(argv[++i], &end);
      if (!end || *end || v <= 0) {
        std::fprintf(stderr, "vorlend: --idle-exit needs a positive number of seconds\n");
        return 2;
      }
      options.idleExitSeconds = v;
    } else if (a == "-h" || a == "--help") {
      usage();
      return 0;
    } else {
      std::fprintf(stderr, "vorlend: unknown argument '%s'\n", argv[i]);
      usage();
      return 2;
    }
  }

  // Before any thread exists, so that every thread inherits the mask.
  vorlen::Daemon::blockTerminationSignals();

  vorlen::Paths paths = vorlen::Paths::fromEnvironment();
  std::string error;
  // One daemon per user: the lock comes before anything under the config or caches folders is touched.
  if (!vorlen::ensureDirectory(paths.runtimeDir, 0700, &error)) {
    vorlen::VorlenDefaultLog().fault("cannot create the daemon's folders: {}", error);
    return 1;
  }
  std::optional<vorlen::DaemonLock> lock = vorlen::DaemonLock::acquire(paths.runtimeDir, &error);
  if (!lock) {
    vorlen::VorlenDefaultLog().fault("{}", error);
    return 1;
  }
  if (!paths.create(&error)) {
    vorlen::VorlenDefaultLog().fault("cannot create the daemon's folders: {}", error);
    return 1;
  }
  vorlen::DaemonLock::removeStaleSockets(paths.runtimeDir, paths.serviceSocket);
  vorlen::DaemonLock::removeLeftovers({paths.configDir, paths.cachesDir});
  vorlen::Daemon daemon(vorlen::Platform::forLinux(paths), options);
  if (!daemon.start()) return 1;
  daemon.run();
}
