#include "ipc/IpcSocketActivation.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>

#include "base/Log.h"

namespace vorlen {

namespace {

std::optional<long> envNumber(const char* name) {
  const char* text = std::getenv(name);
  if (!text || !*text) return std::nullopt;
  std::string_view s(text);
  long value = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
  if (ec != std::errc() || end != s.data() + s.size()) return std::nullopt;
  return value;
}

}  // namespace

UniqueFd IpcSocketActivation::takeListeningSocket(int firstDescriptor) {
  std::optional<long> pid = envNumber("LISTEN_PID");
  std::optional<long> count = envNumber("LISTEN_FDS");
  ::unsetenv("LISTEN_PID");
  ::unsetenv("LISTEN_FDS");
  ::unsetenv("LISTEN_FDNAMES");
  if (!pid || *pid != static_cast<long>(::getpid()) || !count || *count < 1) return UniqueFd();

  const Logger& log = VorlenLogForCategory(VorlenLogCategoryConnection);
  int fd = firstDescriptor;
  struct stat st {};
  int type = 0, domain = 0, accepting = 0;
  socklen_t len = sizeof(int);
  bool ok = ::fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode);
  ok = ok && ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len) == 0 && type == SOCK_STREAM;
  len = sizeof(int);
  ok = ok && ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &len) == 0 && domain == AF_UNIX;
  len = sizeof(int);
  ok = ok && ::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &accepting, &len) == 0 && accepting == 1;
  if (!ok) {
    log.error("descriptor {} passed by the service manager is not a listening Unix stream socket", fd);
    return UniqueFd();
  }
  ::fcntl(fd, F_SETFD, FD_CLOEXEC);
  int flags = ::fcntl(fd, F_GETFL);
  if (flags >= 0) ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  return UniqueFd(fd);
}

}  // namespace vorlen
