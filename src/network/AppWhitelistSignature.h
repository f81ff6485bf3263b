// AppWhitelistSignature: the installed-apps signature, computed from the allow-list file and the installed
// applications. Pure functions; AppWhitelistController decides when to run them.
//
// Allow-list file (JSON): {"apps": "<inner JSON text>", "compression": "RLE", "encoding": "bitmap"}; the
// inner text is {"version": "<even number of hex digits>", "apps": {"<bundle id>": [..., {"encoding_id":
// n}]}}. Every installed app found in the inner map sets bit (0x80 >> (id % 8)) of byte id / 8 of a bitmap of
// L = ceil(M / 8) bytes (M the largest id). When M is a multiple of 8 its bit falls one byte past the
// bitmap and is lost: servers decode signatures with that rule, so it is kept on purpose.
//
// Signature record (base64 without line breaks of):
//   0  4  CRC-32 (zlib) of bytes 4.., big-endian
//   4  1  second-to-last version byte, top bit = 1 when the payload is run-length coded
//   5  1  last version byte
//   6  2  L, big-endian (16 bits; ids are bounded so that it fits)
//   8  4  bytes 12..15 of the MD5 digest of the bitmap
//   12 n  run-length payload, or the bitmap itself when the code would not be smaller
// Run-length payload: N (2 bytes, big-endian), N bytes of run length - 1, then ceil(N / 8) bytes of run
// values (1 bit per run, MSB first). A run is at most 256 bits; a longer stretch becomes several runs.
//
// Bad input (wrong types at any level, other compression or encoding, odd-length or non-hex versions,
// nesting deeper than kMaxJsonDepth, ids that are not integers in [0, kMaxEncodingId]) gives no signature,
// or skips the one app, with a log line; nothing here trusts the file.
//
// Threading: stateless; safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/InstalledApplications.h"

namespace vorlen {

// Containers nested deeper than this make the file invalid (a real allow-list nests four levels).
inline constexpr int kAppWhitelistMaxJsonDepth = 32;
// The largest id whose bitmap length still fits the record's 16-bit length field.
inline constexpr uint64_t kMaxEncodingId = 65535 * 8;

// The signature of `file` (the allow-list's bytes) for the installed applications, or nothing.
std::optional<std::string> processWhitelist(std::span<const uint8_t> file,
                                            const std::vector<InstalledApplication>& installed);

// Encoding ids, sorted ascending, of the installed applications (those with a bundle identifier and a
// version) that the inner "apps" map lists; entries whose value is not an array ending in an object with a
// valid numeric "encoding_id" are skipped (counted in *skipped when given).
std::vector<uint64_t> findWhitelistedApplications(const nlohmann::json& apps,
                                                  const std::vector<InstalledApplication>& installed,
                                                  size_t* skipped = nullptr);

// The bitmap of sorted `ids` (see the top of this file).
std::vector<uint8_t> makeBitmap(const std::vector<uint64_t>& ids);

// Replaces `output` by the MD5 tail of `bitmap` followed by encodeRun's output; returns the compression flag.
bool rle_compress(std::span<const uint8_t> bitmap, std::vector<uint8_t>& output);
// Replaces `output` by the run-length payload of `bitmap` when it is smaller than the bitmap (true), else by
// the bitmap itself (false).
bool encodeRun(std::span<const uint8_t> bitmap, std::vector<uint8_t>& output);
// The length byte of a run (its length - 1) as the run's length in bits minus one.
inline unsigned getRunLength(uint8_t byte) {
  return byte;
}

// Decodes `record` (rle_compress's output: the 4-byte digest tail, then the payload) into `output`, whose
// size is the bitmap length. Not compressed: copies output.size() bytes from record + 4. Compressed: reads
// N at `offset`; `length` (the bytes from `offset` to the end) must be exactly 2 + N + ceil(N / 8). The
// output byte position is 8 bits wide, as in the decoders that read these records: past 256 bytes it wraps to
// the start. A run that reaches past the output (shorter than 256 bytes) or a record too short for what it
// claims fails instead of writing out of bounds.
bool rle_expand(std::span<const uint8_t> record, std::span<uint8_t> output, size_t offset, size_t length,
                bool compressed);

// The base64 signature text, or nothing for an odd-length or non-hexadecimal version. A version shorter
// than two bytes gives 0 for the missing bytes.
std::optional<std::string> makeSignature(uint16_t bitmapLength, std::span<const uint8_t> compressed,
                                         bool compressedFlag, std::string_view version);

// Whether `text` nests JSON containers at most `maxDepth` deep (strings are skipped properly). A linear
// scan that runs before the parser, so a megabyte of brackets costs nothing but the scan.
bool jsonNestingWithin(std::string_view text, int maxDepth);

}  // namespace vorlen
