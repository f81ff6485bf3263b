// Fuzz target for the reference service's upload check: any body must be refused with a reason or
// accepted as a session record, never crash. The first byte picks the path: 0 hands the rest over as the
// compressed body (the inflater's path; the digest cannot match), anything else deflates the rest and
// digests it correctly first (the JSON parser's and the record validator's path).
#include <openssl/evp.h>
#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <fmt/format.h>

#include "base/Log.h"
#include "vorlen-refserver/FeedbackInbox.h"

namespace {

std::string deflateRaw(const std::string& in) {
  z_stream s{};
  deflateInit2(&s, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
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

std::string sha512Hex(const std::string& in) {
  unsigned char d[64];
  unsigned int n = 0;
  EVP_Digest(in.data(), in.size(), d, &n, EVP_sha512(), nullptr);
  std::string out;
  for (unsigned i = 0; i < n; ++i) out += fmt::format("{:02x}", d[i]);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool quiet = [] {
    vorlen::Log::setThreshold(vorlen::LogLevel::Fault);
    return true;
  }();
  (void)quiet;
  if (size == 0) return 0;
  const std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  std::string body = rest, digest = std::string(128, '0');
  if (data[0] != 0) {
    body = deflateRaw(rest);
    digest = sha512Hex(rest);
  }
  const auto check = vorlen::FeedbackInbox::check("feedback", std::string("2"), "deflate", digest, body);
  if (check.valid && !vorlen::FeedbackInbox::validateRecord(check.record).empty()) std::abort();
  if (check.valid != check.reason.empty()) std::abort();
  return 0;
}
