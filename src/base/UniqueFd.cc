#include "base/UniqueFd.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace vorlen {

void UniqueFd::reset(int fd) {
  int old = std::exchange(fd_, fd);
  if (old >= 0) {
    // close() may clobber errno, which callers read after a failed operation on another descriptor.
    int saved = errno;
    ::close(old);
    errno = saved;
  }
}

UniqueFd UniqueFd::duplicate(int fd) {
  if (fd < 0) {
    errno = EBADF;
    return UniqueFd();
  }
  return UniqueFd(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
}

}  // namespace vorlen
