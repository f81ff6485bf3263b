// IpcPeer: who is on the other end of a Unix socket: process, user and group ids from SO_PEERCRED (as
// they were when the peer connected) and the peer's executable name, the last path component of
// /proc/<pid>/exe.
//
// The executable can be unreadable (the process is gone, or belongs to another user); then
// executableName is empty and executableErrno holds the errno of the failed readlink, for the caller's
// log line.
//
// Threading: a plain value.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace vorlen {

struct IpcPeer {
  pid_t pid = 0;  // 0 when the credentials could not be read
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
  std::optional<std::string> executableName;
  int executableErrno = 0;

  static IpcPeer fromSocket(int fd);
  // Last path component of the executable of `pid`; nullopt with *errorNumber set when unreadable.
  static std::optional<std::string> executableNameForPid(pid_t pid, int* errorNumber);
};

}  // namespace vorlen
