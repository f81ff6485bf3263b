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

void usage(std::FILE* out) {
  std::fprintf(
      out,
      "usage: vorlend [--idle-exit SECONDS]\n"
      "       vorlend --version | --help\n"
      "\n"
      "The on-device search daemon. It serves the client library and vorlenctl on a Unix socket,\n"
      "keeps the bag and the search caches, and sends feedback in the background. Normally started\n"
      "on demand by the systemd user units vorlend.socket and vorlend.service.\n"
      "\n"
      "  --idle-exit SECONDS  exit after SECONDS without clients (socket activation starts it again)\n"
      "  --version            print the version and exit\n"
      "  -h, --help           print this help and exit\n"
      "\n"
      "Environment:\n"
      "  XDG_RUNTIME_DIR, XDG_CONFIG_HOME, XDG_CACHE_HOME, TMPDIR  where its folders are\n"
      "  VORLEND_SOCKET     the service socket (default $XDG_RUNTIME_DIR/vorlend/com.velmo.vorlend)\n"
      "  VORLEND_LOG_LEVEL  debug, info, default, error or fault (default info)\n"
      "  VORLEND_LOG_PRIVATE=1  write user data in log lines instead of <private>\n"
      "\n"
      "Exit status: 0 after a clean stop, 1 when it cannot start, 2 for bad arguments.\n"
      "See vorlend(8) and vorlenctl(1).\n");
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
      usage(stdout);
      return 0;
    } else if (a == "--version") {
      std::printf("vorlend %s\n", VORLEN_VERSION);
      return 0;
    } else {
      std::fprintf(stderr, "vorlend: unknown argument '%s'\n", argv[i]);
      usage(stderr);
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
