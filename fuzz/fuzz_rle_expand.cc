// Fuzz target for the run-length decoder. Input: [flags][output length, 2 bytes][record...]. Bit 0 of
// flags says whether the record is run-length coded. rle_expand must never read or write out of bounds;
// in addition the record bytes, taken as a bitmap of at most 256 bytes, must survive an encode/decode
// round trip.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "network/AppWhitelistSignature.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const bool compressed = data[0] & 1;
  const size_t outputLength = (size_t{data[1]} << 8 | data[2]) % 4096;
  std::span<const uint8_t> record(data + 3, size - 3);
  std::vector<uint8_t> output(outputLength);
  if (record.size() >= 4) vorlen::rle_expand(record, output, 4, record.size() - 4, compressed);

  std::span<const uint8_t> bitmap = record.first(std::min<size_t>(record.size(), 256));
  std::vector<uint8_t> encoded;
  const bool flag = vorlen::rle_compress(bitmap, encoded);
  std::vector<uint8_t> decoded(bitmap.size());
  if (!vorlen::rle_expand(encoded, decoded, 4, encoded.size() - 4, flag)) std::abort();
  if (!std::equal(decoded.begin(), decoded.end(), bitmap.begin())) std::abort();
  return 0;
}
