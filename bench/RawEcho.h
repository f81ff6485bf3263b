// Raw Unix-socket echo helpers shared by the benchmarks that compare a daemon round trip with the bare
// transport: length-prefixed frames (4-byte big-endian length, then the payload) and blocking full
// reads and writes.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vorlen {

inline bool writeAll(int fd, const uint8_t* p, size_t n) {
  while (n > 0) {
    ssize_t w = ::write(fd, p, n);
    if (w <= 0) return false;
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}
inline bool readAll(int fd, uint8_t* p, size_t n) {
  while (n > 0) {
    ssize_t r = ::read(fd, p, n);
    if (r <= 0) return false;
    p += r;
    n -= static_cast<size_t>(r);
  }
  return true;
}
inline std::vector<uint8_t> frame(size_t payload) {
  std::vector<uint8_t> f(4 + payload, 0x5a);
  f[0] = uint8_t(payload >> 24), f[1] = uint8_t(payload >> 16), f[2] = uint8_t(payload >> 8),
  f[3] = uint8_t(payload);
  return f;
}
inline size_t frameLength(const uint8_t* h) {
  return size_t(h[0]) << 24 | size_t(h[1]) << 16 | size_t(h[2]) << 8 | h[3];
}

}  // namespace vorlen
