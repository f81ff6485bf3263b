// Archive: the property-list codec: binary documents are read and written by hand (BinaryPlistReader,
// BinaryPlistWriter), XML through libplist. One coder serves IPC payloads, session-file records,
// preferences files and the bag cache.
//
// Decoding never trusts its input: malformed bytes, unsupported node types (UID, bare keys), strings that
// are not UTF-8, nesting deeper than kMaxDepth containers, more than kMaxNodes nodes (values and
// dictionary keys) or more than kMaxBytes of string and data payload yield nullopt with a short reason in
// *error (and a debug log line; the caller logs the failure at the level its context calls for).
// Integers come out as Int, except values above 2^63-1, which come out as UInt; Value equality treats the
// two alike. Dates come out with microsecond resolution, clamped to the range of Time.
//
// Encoding writes unsigned values above 2^63-1 as 16-byte integers (binary) so that every reader sees
// them as positive, and dates as seconds since 2001-01-01 as property lists define them. Null has no
// property-list form: null dictionary entries and array items are left out, and a null root is written
// as an empty dictionary. XML dates carry whole seconds only.
//
// Threading: stateless; safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/Value.h"

namespace vorlen {

class Archive {
 public:
  static constexpr int kMaxDepth = 64;
  static constexpr size_t kMaxNodes = 1 << 20;
  static constexpr size_t kMaxBytes = size_t{64} << 20;

  static std::vector<uint8_t> encodeBinary(const Value& value);
  static std::string encodeXML(const Value& value);

  static std::optional<Value> decodeBinary(std::span<const uint8_t> bytes, std::string* error = nullptr);
  // As above, and nullopt ("decodes to more than N bytes") when the decoded tree would take more than
  // `maxDecodedBytes` of memory: shared references count once per use, so a small document cannot expand
  // into a large tree.
  static std::optional<Value> decodeBinary(std::span<const uint8_t> bytes, size_t maxDecodedBytes,
                                           std::string* error);
  // The binary decode through libplist's reader, which the XML path uses: the fuzz target checks that both
  // readers agree on every document both accept.
  static std::optional<Value> decodeBinaryWithLibplistForTesting(std::span<const uint8_t> bytes,
                                                                 std::string* error = nullptr);
  static std::optional<Value> decodeXML(std::string_view text, std::string* error = nullptr);
  // Binary when the bytes start with "bplist00", XML otherwise.
  static std::optional<Value> decode(std::span<const uint8_t> bytes, std::string* error = nullptr);
};

}  // namespace vorlen
