#include "storage/FileDescriptorOutputStream.h"

#include <errno.h>
#include <unistd.h>

namespace vorlen {

ssize_t FileDescriptorOutputStream::write(const uint8_t* buffer, size_t length) {
  if (error_) return -1;
  if (closed_) {
    error_ = EBADF;
    return -1;
  }
  size_t done = 0;
  while (done < length) {
    ssize_t n = ::write(fd_, buffer + done, length - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      error_ = errno;
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

}  // namespace vorlen
