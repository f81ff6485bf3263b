// PlistPrecheck: bounds the shape of property-list bytes before they are parsed (binary by
// BinaryPlistReader or libplist, XML by libplist).
//
// libplist 2.2 builds and frees its trees recursively, one stack frame per nesting level and with no
// limit of its own, and its binary reader expands every shared reference into a separate copy. Untrusted
// input could therefore exhaust the stack (a few hundred thousand nested arrays suffice) or memory
// (a small file whose objects reference each other exponentially). These checks look only at structure:
//
//   binary: header, trailer and offset table are consistent; every reachable object has a known marker
//           and lies inside the object area; there are no reference cycles; and the tree libplist would
//           build has at most `maxDepth` nested containers, `maxNodes` nodes (values and dictionary keys)
//           and `maxBytes` bytes of string and data payload, and its decoded size (kDecodedNodeBytes per
//           node plus the payload bytes) stays within `maxDecodedBytes`. Every count is taken on the
//           expanded tree: an object referenced a million times counts a million times. Integers wider than 8
//           bytes must fit in 64 bits unsigned (libplist would silently drop their upper half). Dictionary
//           keys are strings without NUL characters (libplist asserts on those when handing a key out).
//   XML:    no NUL characters; array and dict elements nest at most `maxDepth` deep and there are at
//           most `maxNodes` elements. The scan follows libplist's tokenizer (comments, CDATA, processing
//           instructions, DOCTYPE) and errs only towards overcounting, so libplist never nests deeper
//           than counted.
//
// A document that passes may still be rejected by libplist; one that fails is never handed to it.
//
// Threading: stateless; safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace vorlen {

class PlistPrecheck {
 public:
  struct Limits {
    int maxDepth;
    size_t maxNodes;
    size_t maxBytes;
    size_t maxDecodedBytes = SIZE_MAX;
  };
  // What one node costs once decoded: libplist's node and its data, then the Value made from it, with the
  // allocator's overhead. An estimate on the high side; it only has to keep the budget honest.
  static constexpr size_t kDecodedNodeBytes = 160;

  // True when the bytes may go to libplist; otherwise false with a short reason in *error.
  static bool binary(std::span<const uint8_t> bytes, const Limits& limits, std::string* error);
  static bool xml(std::string_view text, const Limits& limits, std::string* error);
};

}  // namespace vorlen
