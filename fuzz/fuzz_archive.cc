// Fuzz target for the property-list decoder: any bytes must decode or be refused, never crash, and
// whatever decodes must come back the same after being written in binary and read again. (XML is only
// written and read: XML cannot carry every string, e.g. one holding NUL.) A binary document that both the
// hand-written reader and libplist's reader accept must read the same through both.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "base/Archive.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string error;
  std::optional<vorlen::Value> value = vorlen::Archive::decode({data, size}, &error);
  if (!value) return 0;
  if (size >= 8 && std::memcmp(data, "bplist00", 8) == 0) {
    std::optional<vorlen::Value> viaLibplist =
        vorlen::Archive::decodeBinaryWithLibplistForTesting({data, size});
    if (viaLibplist && viaLibplist->describe() != value->describe()) std::abort();
  }
  std::optional<vorlen::Value> again =
      vorlen::Archive::decodeBinary(vorlen::Archive::encodeBinary(*value), &error);
  // describe() rather than ==, so that NaN compares equal to itself.
  if (!again || again->describe() != value->describe()) std::abort();
  vorlen::Archive::decodeXML(vorlen::Archive::encodeXML(*value), &error);
  return 0;
}
