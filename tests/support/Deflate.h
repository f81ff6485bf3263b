// Raw DEFLATE and SHA-512 helpers for tests of the upload path, written straight on zlib and OpenSSL so
// that they share no code with what they check. Header-only: a suite that includes it links zlib and
// OpenSSL through the libraries it tests.
#pragma once

#include <openssl/evp.h>
#include <zlib.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include <fmt/format.h>

namespace vorlen::test {

// The inflated bytes of a raw DEFLATE stream; nullopt unless the stream is whole and finished with
// nothing after it.
inline std::optional<std::string> inflateRaw(std::span<const uint8_t> in) {
  z_stream s{};
  if (inflateInit2(&s, -15) != Z_OK) return std::nullopt;
  s.next_in = const_cast<Bytef*>(in.data());
  s.avail_in = static_cast<uInt>(in.size());
  std::string out;
  char chunk[65536];
  int rc = Z_OK;
  while (rc == Z_OK) {
    s.next_out = reinterpret_cast<Bytef*>(chunk);
    s.avail_out = sizeof chunk;
    rc = inflate(&s, Z_NO_FLUSH);
    out.append(chunk, sizeof chunk - s.avail_out);
  }
  const bool whole = rc == Z_STREAM_END && s.avail_in == 0;
  inflateEnd(&s);
  return whole ? std::optional(out) : std::nullopt;
}

// `in` compressed in one go; windowBits -15 is raw DEFLATE, 15 the zlib-wrapped form.
inline std::string deflateText(const std::string& in, int windowBits = -15) {
  z_stream s{};
  deflateInit2(&s, Z_DEFAULT_COMPRESSION, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&s, in.size()) + 16, '\0');
  s.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
  s.avail_in = static_cast<uInt>(in.size());
  s.next_out = reinterpret_cast<Bytef*>(out.data());
  s.avail_out = static_cast<uInt>(out.size());
  deflate(&s, Z_FINISH);
  out.resize(s.total_out);
  deflateEnd(&s);
  return out;
}

// Lowercase hexadecimal SHA-512.
inline std::string sha512Hex(const std::string& in) {
  unsigned char d[64];
  unsigned int n = 0;
  EVP_Digest(in.data(), in.size(), d, &n, EVP_sha512(), nullptr);
  std::string out;
  for (unsigned i = 0; i < n; ++i) out += fmt::format("{:02x}", d[i]);
  return out;
}

}  // namespace vorlen::test
