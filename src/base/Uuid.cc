#include "base/Uuid.h"

#include <openssl/rand.h>

#include <cstdio>
#include <random>

namespace vorlen {

Uuid Uuid::random() {
  std::array<uint8_t, 16> b{};
  if (RAND_bytes(b.data(), static_cast<int>(b.size())) != 1) {
    // The system generator is the fallback only if the library's generator is unavailable.
    std::random_device rd;
    for (auto& x : b) x = static_cast<uint8_t>(rd());
  }
  b[6] = static_cast<uint8_t>((b[6] & 0x0f) | 0x40);
  b[8] = static_cast<uint8_t>((b[8] & 0x3f) | 0x80);
  return Uuid(b);
}

std::optional<Uuid> Uuid::parse(std::string_view t) {
  if (t.size() != 36) return std::nullopt;
  std::array<uint8_t, 16> b{};
  size_t j = 0;
  auto hex = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  for (size_t i = 0; i < 36;) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (t[i] != '-') return std::nullopt;
      ++i;
      continue;
    }
    int hi = hex(t[i]), lo = hex(t[i + 1]);
    if (hi < 0 || lo < 0) return std::nullopt;
    b[j++] = static_cast<uint8_t>(hi << 4 | lo);
    i += 2;
  }
  return Uuid(b);
}

std::optional<Uuid> Uuid::fromBytes(const uint8_t* data, size_t size) {
  if (!data || size != 16) return std::nullopt;
  std::array<uint8_t, 16> b{};
  std::copy(data, data + 16, b.begin());
  return Uuid(b);
}

bool Uuid::isNil() const {
  for (auto x : bytes_)
    if (x) return false;
  return true;
}

std::string Uuid::string() const {
  char out[37];
  const auto& b = bytes_;
  std::snprintf(out, sizeof out, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", b[0],
                b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14],
                b[15]);
  return out;
}

}  // namespace vorlen
