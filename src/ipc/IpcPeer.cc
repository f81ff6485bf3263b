#include "ipc/IpcPeer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace vorlen {

std::optional<std::string> IpcPeer::executableNameForPid(pid_t pid, int* errorNumber) {
  if (pid <= 0) {
    if (errorNumber) *errorNumber = ESRCH;
    return std::nullopt;
  }
  char path[4096];
  std::string link = "/proc/" + std::to_string(pid) + "/exe";
  ssize_t n = ::readlink(link.c_str(), path, sizeof(path) - 1);
  if (n < 0) {
    if (errorNumber) *errorNumber = errno;
    return std::nullopt;
  }
  path[n] = '\0';
  std::string full(path, static_cast<size_t>(n));
  // A replaced or deleted binary reads as "<path> (deleted)"; the name is still the file's own.
  static constexpr std::string_view kDeleted = " (deleted)";
  if (full.size() > kDeleted.size() && full.ends_with(kDeleted)) full.resize(full.size() - kDeleted.size());
  size_t slash = full.rfind('/');
  if (errorNumber) *errorNumber = 0;
  return slash == std::string::npos ? full : full.substr(slash + 1);
}

IpcPeer IpcPeer::fromSocket(int fd) {
  IpcPeer peer;
  struct ucred cred {};
  socklen_t len = sizeof(cred);
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0 && len == sizeof(cred)) {
    peer.pid = cred.pid;
    peer.uid = cred.uid;
    peer.gid = cred.gid;
  }
  peer.executableName = executableNameForPid(peer.pid, &peer.executableErrno);
  return peer;
}

}  // namespace vorlen
