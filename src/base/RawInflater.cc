#include "base/RawInflater.h"

#include <zlib.h>

#include <array>

#include <fmt/format.h>

namespace vorlen {

std::optional<std::string> RawInflater::inflate(std::string_view in, size_t maxBytes, Failure* failure) {
  auto fail = [&](std::string reason, bool tooLarge = false) -> std::optional<std::string> {
    if (failure) *failure = Failure{std::move(reason), tooLarge};
    return std::nullopt;
  };
  z_stream s{};
  if (inflateInit2(&s, -15) != Z_OK) return fail("cannot start the inflater");
  s.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
  s.avail_in = static_cast<uInt>(in.size());
  std::string out;
  std::array<char, 65536> chunk{};
  int rc = Z_OK;
  while (rc == Z_OK) {
    s.next_out = reinterpret_cast<Bytef*>(chunk.data());
    s.avail_out = chunk.size();
    rc = ::inflate(&s, Z_NO_FLUSH);
    if (rc != Z_OK && rc != Z_STREAM_END) break;
    out.append(chunk.data(), chunk.size() - s.avail_out);
    if (out.size() > maxBytes) {
      inflateEnd(&s);
      return fail(fmt::format("body inflates past {} bytes", maxBytes), true);
    }
  }
  const uInt left = s.avail_in;
  inflateEnd(&s);
  if (rc != Z_STREAM_END) {
    return fail(rc == Z_BUF_ERROR ? "deflate stream cut short"
                                  : fmt::format("not a raw deflate stream ({})", rc));
  }
  if (left != 0) return fail(fmt::format("{} bytes after the end of the deflate stream", left));
  return out;
}

}  // namespace vorlen
