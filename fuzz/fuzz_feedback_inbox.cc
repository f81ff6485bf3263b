// Fuzz target for the reference service's upload check: any body must be refused with a reason or
// accepted as a session record, never crash. The first byte picks the path: 0 hands the rest over as the
// compressed body (the inflater's path; the digest cannot match), anything else deflates the rest and
// digests it correctly first (the JSON parser's and the record validator's path).

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "base/Log.h"
#include "support/Deflate.h"
#include "vorlen-refserver/FeedbackInbox.h"

using vorlen::test::sha512Hex;

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
    body = vorlen::test::deflateText(rest);
    digest = sha512Hex(rest);
  }
  const auto check = vorlen::FeedbackInbox::check("feedback", std::string("2"), "deflate", digest, body);
  if (check.valid && !vorlen::FeedbackInbox::validateRecord(check.record).empty()) std::abort();
  if (check.valid != check.reason.empty()) std::abort();
  return 0;
}
