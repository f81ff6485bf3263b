#include "base/BinaryPlistReader.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

#include <fmt/format.h>

#include "base/Archive.h"
#include "base/BinaryPlistWriter.h"
#include "base/Utf8.h"

namespace vorlen {

namespace {

constexpr size_t kHeaderSize = 8;
constexpr size_t kTrailerSize = 32;

void appendUtf8(uint32_t c, std::string& out) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

class Reader {
 public:
  explicit Reader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

  std::optional<Value> run() {
    if (bytes_.size() < kHeaderSize + kTrailerSize + 1 || std::memcmp(bytes_.data(), "bplist00", 8) != 0) {
      fail("not a binary property list");
      return std::nullopt;
    }
    const size_t t = bytes_.size() - kTrailerSize;
    offsetWidth_ = bytes_[t + 6];
    refWidth_ = bytes_[t + 7];
    numObjects_ = be(t + 8, 8);
    const uint64_t top = be(t + 16, 8);
    tableOffset_ = be(t + 24, 8);
    if (offsetWidth_ < 1 || offsetWidth_ > 8 || refWidth_ < 1 || refWidth_ > 8 || top >= numObjects_ ||
        tableOffset_ <= kHeaderSize || tableOffset_ > t || numObjects_ > (t - tableOffset_) / offsetWidth_) {
      fail("bad trailer");
      return std::nullopt;
    }
    Value v;
    if (!object(top, 0, v)) return std::nullopt;
    return v;
  }

  std::string error;

 private:
  bool fail(std::string why) {
    if (error.empty()) error = std::move(why);
    return false;
  }

  // REQUIRES: pos + width <= bytes_.size(), width <= 8.
  uint64_t be(uint64_t pos, size_t width) const {
    uint64_t v = 0;
    for (size_t i = 0; i < width; ++i) v = (v << 8) | bytes_[pos + i];
    return v;
  }

  bool within(uint64_t pos, uint64_t length) const {
    return pos <= tableOffset_ && length <= tableOffset_ - pos;
  }

  bool count(size_t payloadBytes) {
    if (++nodes_ > Archive::kMaxNodes) return fail(fmt::format("more than {} nodes", Archive::kMaxNodes));
    bytes_out_ += payloadBytes;
    if (bytes_out_ > Archive::kMaxBytes) {
      return fail(fmt::format("more than {} bytes of strings and data", Archive::kMaxBytes));
    }
    return true;
  }

  // The position of object `index` and its marker.
  bool locate(uint64_t index, uint64_t& pos) {
    if (index >= numObjects_) return fail("object reference out of range");
    pos = be(tableOffset_ + index * offsetWidth_, offsetWidth_);
    if (pos < kHeaderSize || pos >= tableOffset_) return fail("object offset out of range");
    return true;
  }

  // The count of a sized object whose marker is at `pos`; leaves `pos` at its contents.
  bool sizedCount(uint64_t& pos, uint8_t marker, uint64_t& n) {
    ++pos;
    if ((marker & 0x0F) != 0x0F) {
      n = marker & 0x0F;
      return true;
    }
    if (pos >= tableOffset_) return fail("object runs past its area");
    const uint8_t m = bytes_[pos];
    if ((m >> 4) != 0x1 || (m & 0x0F) > 3) return fail("bad object count");
    const uint64_t width = uint64_t{1} << (m & 0x0F);
    if (!within(pos + 1, width)) return fail("object runs past its area");
    n = be(pos + 1, width);
    pos += 1 + width;
    return true;
  }

  bool string(uint64_t pos, uint8_t marker, std::string& out) {
    uint64_t n;
    if (!sizedCount(pos, marker, n)) return false;
    if ((marker >> 4) == 0x5) {
      if (!within(pos, n)) return fail("object runs past its area");
      // An ASCII string ends at its first NUL, as every reader of this project has always taken it (the
      // writer uses UTF-16 for a string holding NUL).
      const char* text = reinterpret_cast<const char*>(bytes_.data() + pos);
      out.assign(text, std::find(text, text + n, '\0'));
      if (!isValidUtf8(out)) return fail("string is not UTF-8");
      return count(out.size());
    }
    if (n > tableOffset_ / 2 || !within(pos, n * 2)) return fail("object runs past its area");
    out.clear();
    out.reserve(n);
    for (uint64_t i = 0; i < n; ++i) {
      uint32_t c = static_cast<uint32_t>(be(pos + 2 * i, 2));
      if (c >= 0xD800 && c <= 0xDBFF && i + 1 < n) {
        const uint32_t low = static_cast<uint32_t>(be(pos + 2 * (i + 1), 2));
        if (low >= 0xDC00 && low <= 0xDFFF) {
          c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
          ++i;
        }
      }
      if (c >= 0xD800 && c <= 0xDFFF) return fail("string is not UTF-8");
      appendUtf8(c, out);
    }
    return count(out.size());
  }

  // `level` counts the containers above this object.
  bool object(uint64_t index, int level, Value& out) {
    uint64_t pos;
    if (!locate(index, pos)) return false;
    const uint8_t marker = bytes_[pos];
    switch (marker >> 4) {
      case 0x0:
        if (marker != 0x08 && marker != 0x09)
          return fail(fmt::format("unsupported object type 0x{:02x}", marker));
        out = Value(marker == 0x09);
        return count(0);
      case 0x1: {
        const unsigned log2 = marker & 0x0F;
        if (log2 > 4) return fail("integer wider than 16 bytes");
        const uint64_t width = uint64_t{1} << log2;
        if (!within(pos + 1, width)) return fail("object runs past its area");
        if (width == 16) {
          if (be(pos + 1, 8) != 0) return fail("integer out of range");
          const uint64_t u = be(pos + 9, 8);
          out = u <= uint64_t(std::numeric_limits<int64_t>::max()) ? Value(int64_t(u)) : Value(u);
        } else {
          out = Value(static_cast<int64_t>(be(pos + 1, width)));
        }
        return count(0);
      }
      case 0x2: {
        if (marker != 0x22 && marker != 0x23) return fail(fmt::format("unsupported real 0x{:02x}", marker));
        const size_t width = marker == 0x22 ? 4 : 8;
        if (!within(pos + 1, width)) return fail("object runs past its area");
        out = width == 4 ? Value(double(std::bit_cast<float>(uint32_t(be(pos + 1, 4)))))
                         : Value(std::bit_cast<double>(be(pos + 1, 8)));
        return count(0);
      }
      case 0x3: {
        if (marker != 0x33) return fail(fmt::format("unsupported date 0x{:02x}", marker));
        if (!within(pos + 1, 8)) return fail("object runs past its area");
        std::optional<Time> t = BinaryPlistReader::timeFromSeconds2001(std::bit_cast<double>(be(pos + 1, 8)));
        if (!t) return fail("invalid date");
        out = Value(*t);
        return count(0);
      }
      case 0x4: {
        uint64_t n;
        if (!sizedCount(pos, marker, n)) return false;
        if (!within(pos, n)) return fail("object runs past its area");
        if (!count(n)) return false;
        out = Value(Value::Data(bytes_.data() + pos, bytes_.data() + pos + n));
        return true;
      }
      case 0x5:
      case 0x6: {
        std::string s;
        if (!string(pos, marker, s)) return false;
        out = Value(std::move(s));
        return true;
      }
      case 0xA:
      case 0xC:
      case 0xD:
        return container(pos, marker, level, out);
      case 0x8:
        return fail("unsupported UID value");
      default:
        return fail(fmt::format("unknown object type 0x{:02x}", marker));
    }
  }

  bool container(uint64_t pos, uint8_t marker, int level, Value& out) {
    if (level + 1 > Archive::kMaxDepth)
      return fail(fmt::format("nesting deeper than {}", Archive::kMaxDepth));
    if (!count(0)) return false;
    uint64_t n;
    if (!sizedCount(pos, marker, n)) return false;
    const bool dict = (marker >> 4) == 0xD;
    if (!within(pos, 0) || n > (tableOffset_ - pos) / refWidth_ / (dict ? 2 : 1)) {
      return fail("object runs past its area");
    }
    if (!dict) {
      Value::Array items(n);
      for (uint64_t i = 0; i < n; ++i) {
        if (!object(be(pos + i * refWidth_, refWidth_), level + 1, items[i])) return false;
      }
      out = Value(std::move(items));
      return true;
    }
    Value::Dict entries;
    for (uint64_t i = 0; i < n; ++i) {
      uint64_t keyPos;
      if (!locate(be(pos + i * refWidth_, refWidth_), keyPos)) return false;
      const uint8_t keyMarker = bytes_[keyPos];
      if ((keyMarker >> 4) != 0x5 && (keyMarker >> 4) != 0x6) return fail("dictionary key is not a string");
      std::string key;
      if (!string(keyPos, keyMarker, key)) return false;
      Value v;
      if (!object(be(pos + (n + i) * refWidth_, refWidth_), level + 1, v)) return false;
      entries.emplace(std::move(key), std::move(v));  // of duplicate keys, the first wins
    }
    out = Value(std::move(entries));
    return true;
  }

  std::span<const uint8_t> bytes_;
  uint8_t offsetWidth_ = 0;
  uint8_t refWidth_ = 0;
  uint64_t numObjects_ = 0;
  uint64_t tableOffset_ = 0;
  size_t nodes_ = 0;
  size_t bytes_out_ = 0;
};

}  // namespace

std::optional<Time> BinaryPlistReader::timeFromSeconds2001(double seconds) {
  if (!std::isfinite(seconds)) return std::nullopt;
  constexpr double kLimitUs = 9e15;  // about 285 years from 1970: a Time of nanoseconds is near overflow
  double us2001 = std::round(seconds * 1e6);
  double unixUs = us2001 + double(BinaryPlistWriter::kDateEpochOffset) * 1e6;
  if (unixUs >= kLimitUs) return Time::max();
  if (unixUs <= -kLimitUs) return Time::min();
  int64_t us = static_cast<int64_t>(us2001) + BinaryPlistWriter::kDateEpochOffset * 1000000;
  return Time(std::chrono::duration_cast<Time::duration>(std::chrono::microseconds(us)));
}

std::optional<Value> BinaryPlistReader::read(std::span<const uint8_t> bytes, std::string* error) {
  Reader reader(bytes);
  std::optional<Value> v = reader.run();
  if (!v && error) *error = reader.error;
  return v;
}

}  // namespace vorlen
