// BinaryPlistWriter: writes a Value as a binary property list ("bplist00").
//
// This is written by hand rather than through libplist because libplist 2.2 writes every integer as at
// most 8 bytes, so an unsigned value above 2^63-1 comes out negative for every other reader. Here such a
// value is a 16-byte integer, as the format defines. Everything else follows the common layout:
// non-negative integers in the fewest of 1, 2, 4 or 8 bytes, negative ones in 8; reals and dates as 8-byte
// doubles (dates in seconds since 2001-01-01); strings as ASCII when they are (and hold no NUL, which
// libplist would stop at), else UTF-16 (invalid UTF-8 becomes U+FFFD); equal strings (dictionary keys
// above all) written once.
//
// Null has no property-list form: null dictionary entries and null array items are left out, and a null
// root is written as an empty dictionary.
//
// Threading: stateless; safe from any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "base/Value.h"

namespace vorlen {

class BinaryPlistWriter {
 public:
  static std::vector<uint8_t> write(const Value& root);

  // Seconds between 1970-01-01 and 2001-01-01, the epoch of property-list dates.
  static constexpr int64_t kDateEpochOffset = 978307200;
  static double secondsSince2001(Time t);
};

}  // namespace vorlen
