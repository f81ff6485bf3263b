// BinaryPlistReader: reads a binary property list ("bplist00") straight into a Value.
//
// Reading by hand saves building libplist's node tree and converting it afterwards: the IPC transport
// decodes every frame, so on the event and typing paths this halves what a decode allocates. The values
// come out as libplist's reader and the converter in Archive make them: integers of 1, 2 and 4 bytes are
// unsigned, of 8 bytes signed, of 16 bytes unsigned (Int when they fit in 63 bits, else UInt); 4-byte reals
// widen to doubles; sets read as arrays; ASCII strings end at their first NUL and must be UTF-8, and UTF-16
// strings are converted (an unpaired surrogate is refused); of duplicate dictionary keys the first wins;
// every use of a shared object is a copy of its own.
//
// REQUIRES: `bytes` passed PlistPrecheck::binary, which bounds depth, node count, payload and decoded size,
// and rules out cycles and objects outside the object area; the reader still checks every position it
// reads, so bytes that did not pass are refused, never read out of bounds. Node and payload counts are kept
// as Archive states them (UTF-8 bytes after conversion).
//
// Threading: stateless; safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "base/Value.h"

namespace vorlen {

class BinaryPlistReader {
 public:
  // The value, or nullopt with a short reason in *error.
  static std::optional<Value> read(std::span<const uint8_t> bytes, std::string* error);
  // Property-list seconds since 2001 as Time, rounded to whole microseconds (what a double holds exactly
  // for dates within decades of 2001) and clamped to what Time can represent; nullopt for NaN and infinity.
  static std::optional<Time> timeFromSeconds2001(double seconds);
};

}  // namespace vorlen
