// Paths: the daemon's folders.
//
//   runtime  $XDG_RUNTIME_DIR/vorlend (else /tmp/vorlend-<uid>), mode 0700: the service socket and the
//            anonymous endpoints;
//   config   $XDG_CONFIG_HOME/vorlend (else ~/.config/vorlend), mode 0700: preferences domains;
//   caches   $XDG_CACHE_HOME/com.velmo.vorlend (else ~/.cache/com.velmo.vorlend), mode 0700: bag cache,
//            completion database, session files, downloads, counters;
//   temp     $TMPDIR (else /tmp): temporary files, each created 0600.
// The service socket is $VORLEND_SOCKET when set, else <runtime>/com.velmo.vorlend.
//
// Threading: a plain value.
#pragma once

#include <filesystem>
#include <string>

namespace vorlen {

inline constexpr const char* kServiceName = "com.velmo.vorlend";

struct Paths {
  std::filesystem::path runtimeDir;
  std::filesystem::path configDir;
  std::filesystem::path cachesDir;
  std::filesystem::path tempDir;
  std::filesystem::path serviceSocket;

  // From the environment, as described above.
  static Paths fromEnvironment();
  // Everything below one root (runtime/, config/, caches/, tmp/); for tests and private runs.
  static Paths underRoot(const std::filesystem::path& root);

  // Creates runtime, config and caches folders with mode 0700. Returns false with *error on failure.
  bool create(std::string* error = nullptr) const;
};

}  // namespace vorlen
