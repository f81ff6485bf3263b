#include "base/PlistPrecheck.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>

#include <fmt/format.h>

namespace vorlen {

namespace {

constexpr size_t kHeaderSize = 8;
constexpr size_t kTrailerSize = 32;

// Walks the object graph of a binary property list from its top object, the way libplist's reader does,
// and adds up what the expanded tree would hold.
class BinaryScan {
 public:
  BinaryScan(std::span<const uint8_t> bytes, const PlistPrecheck::Limits& limits)
      : bytes_(bytes), limits_(limits) {}

  bool run() {
    if (bytes_.size() < kHeaderSize + kTrailerSize + 1) return fail("truncated binary property list");
    if (std::memcmp(bytes_.data(), "bplist00", kHeaderSize) != 0) return fail("not a binary property list");
    size_t t = bytes_.size() - kTrailerSize;
    offsetWidth_ = bytes_[t + 6];
    refWidth_ = bytes_[t + 7];
    numObjects_ = readBigEndian(t + 8, 8);
    uint64_t top = readBigEndian(t + 16, 8);
    tableOffset_ = readBigEndian(t + 24, 8);
    if (offsetWidth_ < 1 || offsetWidth_ > 8 || refWidth_ < 1 || refWidth_ > 8) return fail("bad trailer");
    if (numObjects_ == 0 || top >= numObjects_) return fail("bad trailer");
    if (tableOffset_ <= kHeaderSize || tableOffset_ > t) return fail("bad offset table position");
    if (numObjects_ > (t - tableOffset_) / offsetWidth_) return fail("truncated offset table");
    Stats stats;
    return visit(top, 0, stats);
  }

  const std::string& error() const { return error_; }

 private:
  struct Stats {
    int height = 0;  // nested containers, this one included
    uint64_t nodes = 0;
    uint64_t bytes = 0;
  };
  struct Memo {
    bool done = false;
    Stats stats;
  };

  bool fail(std::string why) {
    error_ = std::move(why);
    return false;
  }

  // REQUIRES: pos + width <= bytes_.size(), width <= 8.
  uint64_t readBigEndian(size_t pos, size_t width) const {
    uint64_t v = 0;
    for (size_t i = 0; i < width; ++i) v = (v << 8) | bytes_[pos + i];
    return v;
  }

  // The count of a sized object whose marker is at `pos`; advances `pos` past the marker and count.
  bool readCount(uint64_t& pos, uint8_t marker, uint64_t& count) {
    ++pos;
    if ((marker & 0x0F) != 0x0F) {
      count = marker & 0x0F;
      return true;
    }
    if (pos >= tableOffset_) return fail("object runs past its area");
    uint8_t m = bytes_[pos];
    if ((m >> 4) != 0x1 || (m & 0x0F) > 3) return fail("bad object count");
    uint64_t width = uint64_t{1} << (m & 0x0F);
    if (tableOffset_ - pos - 1 < width) return fail("object runs past its area");
    count = readBigEndian(pos + 1, width);
    pos += 1 + width;
    return true;
  }

  bool within(uint64_t pos, uint64_t length) const {
    return pos <= tableOffset_ && length <= tableOffset_ - pos;
  }

  bool addChild(Stats& parent, const Stats& child) {
    parent.height = std::max(parent.height, child.height + 1);
    parent.nodes += child.nodes;
    parent.bytes += child.bytes;
    if (parent.nodes > limits_.maxNodes) return fail(fmt::format("more than {} nodes", limits_.maxNodes));
    if (parent.bytes > limits_.maxBytes) {
      return fail(fmt::format("more than {} bytes of strings and data", limits_.maxBytes));
    }
    return checkDecodedSize(parent);
  }

  bool checkDecodedSize(const Stats& s) {
    // nodes <= maxNodes and bytes <= maxBytes here, so the sum cannot overflow.
    if (s.nodes * PlistPrecheck::kDecodedNodeBytes + s.bytes > limits_.maxDecodedBytes) {
      return fail(fmt::format("decodes to more than {} bytes", limits_.maxDecodedBytes));
    }
    return true;
  }

  // `level` counts the containers above this object.
  bool visit(uint64_t index, int level, Stats& out) {
    if (auto it = memo_.find(index); it != memo_.end()) {
      if (!it->second.done) return fail("reference cycle");
      if (level + it->second.stats.height > limits_.maxDepth) return failDepth();
      out = it->second.stats;
      return true;
    }
    uint64_t pos = readBigEndian(tableOffset_ + index * offsetWidth_, offsetWidth_);
    if (pos < kHeaderSize || pos >= tableOffset_) return fail("object offset out of range");
    const uint8_t marker = bytes_[pos];
    out = Stats{0, 1, 0};
    switch (marker >> 4) {
      case 0x0:
        if (marker != 0x08 && marker != 0x09)
          return fail(fmt::format("unsupported object type 0x{:02x}", marker));
        return true;
      case 0x1: {
        if ((marker & 0x0F) > 4) return fail("integer wider than 16 bytes");
        uint64_t width = uint64_t{1} << (marker & 0x0F);
        if (!within(pos + 1, width)) return fail("object runs past its area");
        // libplist keeps only the lower 8 bytes of a 16-byte integer: accept only what fits in them.
        if (width == 16 && readBigEndian(pos + 1, 8) != 0) return fail("integer out of range");
        return true;
      }
      case 0x2:
        if (marker != 0x22 && marker != 0x23) return fail(fmt::format("unsupported real 0x{:02x}", marker));
        if (!within(pos + 1, uint64_t{1} << (marker & 0x0F))) return fail("object runs past its area");
        return true;
      case 0x3:
        if (marker != 0x33) return fail(fmt::format("unsupported date 0x{:02x}", marker));
        if (!within(pos + 1, 8)) return fail("object runs past its area");
        return true;
      case 0x4:
      case 0x5:
      case 0x6: {
        uint64_t count;
        if (!readCount(pos, marker, count)) return false;
        uint64_t unit = (marker >> 4) == 0x6 ? 2 : 1;
        if (!within(pos, 0) || count > (tableOffset_ - pos) / unit) return fail("object runs past its area");
        out.bytes = count * unit;
        if (out.bytes > limits_.maxBytes) {
          return fail(fmt::format("more than {} bytes of strings and data", limits_.maxBytes));
        }
        return checkDecodedSize(out);
      }
      case 0xA:
      case 0xC:
      case 0xD:
        return visitContainer(index, pos, marker, level, out);
      case 0x8:
        return fail("unsupported UID object");
      default:
        return fail(fmt::format("unknown object type 0x{:02x}", marker));
    }
  }

  bool visitContainer(uint64_t index, uint64_t pos, uint8_t marker, int level, Stats& out) {
    if (level + 1 > limits_.maxDepth) return failDepth();
    uint64_t count;
    if (!readCount(pos, marker, count)) return false;
    uint64_t perEntry = (marker >> 4) == 0xD ? 2 : 1;
    if (!within(pos, 0) || count > (tableOffset_ - pos) / refWidth_ / perEntry) {
      return fail("object runs past its area");
    }
    memo_[index] = Memo{};
    out = Stats{1, 1, 0};
    for (uint64_t i = 0; i < count * perEntry; ++i) {
      uint64_t ref = readBigEndian(pos + i * refWidth_, refWidth_);
      if (ref >= numObjects_) return fail("object reference out of range");
      if (perEntry == 2 && i < count && !checkKey(ref)) return false;
      Stats child;
      if (!visit(ref, level + 1, child) || !addChild(out, child)) return false;
    }
    memo_[index] = Memo{true, out};
    return true;
  }

  // Dictionary keys must be strings without NUL characters: libplist hands keys out as C strings and
  // aborts the process (an assertion) when the length it stored disagrees with strlen().
  bool checkKey(uint64_t index) {
    uint64_t pos = readBigEndian(tableOffset_ + index * offsetWidth_, offsetWidth_);
    if (pos < kHeaderSize || pos >= tableOffset_) return fail("object offset out of range");
    const uint8_t marker = bytes_[pos];
    if ((marker >> 4) != 0x5 && (marker >> 4) != 0x6) return fail("dictionary key is not a string");
    uint64_t count;
    if (!readCount(pos, marker, count)) return false;
    uint64_t unit = (marker >> 4) == 0x6 ? 2 : 1;
    if (!within(pos, 0) || count > (tableOffset_ - pos) / unit) return fail("object runs past its area");
    for (uint64_t i = 0; i < count; ++i) {
      if (bytes_[pos + i * unit] == 0 && (unit == 1 || bytes_[pos + i * unit + 1] == 0)) {
        return fail("dictionary key holds a NUL character");
      }
    }
    return true;
  }

  bool failDepth() { return fail(fmt::format("nesting deeper than {}", limits_.maxDepth)); }

  std::span<const uint8_t> bytes_;
  PlistPrecheck::Limits limits_;
  uint8_t offsetWidth_ = 0;
  uint8_t refWidth_ = 0;
  uint64_t numObjects_ = 0;
  uint64_t tableOffset_ = 0;
  std::unordered_map<uint64_t, Memo> memo_;  // containers only
  std::string error_;
};

// Follows the tokenizer of libplist's XML reader far enough to know how deep its tree can get. Where the
// two could disagree (a quoted span holding '<' or '>', an unknown "<!" construct, a tag without '>'),
// the document is refused instead: none of these occur in a well-formed property list.
class XmlScan {
 public:
  XmlScan(std::string_view text, const PlistPrecheck::Limits& limits) : t_(text), limits_(limits) {}

  bool run() {
    // No XML text holds NUL; libplist would pass it into C strings (and abort on a key holding one).
    if (t_.find('\0') != std::string_view::npos) return fail("NUL character in XML");
    size_t pos = 0;
    while ((pos = t_.find('<', pos)) != std::string_view::npos) {
      size_t end;
      if (startsWith(pos, "<!--")) {
        if ((end = t_.find("-->", pos + 4)) == std::string_view::npos) return fail("unterminated comment");
        pos = end + 3;
      } else if (startsWith(pos, "<![CDATA[")) {
        if ((end = t_.find("]]>", pos + 9)) == std::string_view::npos) return fail("unterminated CDATA");
        pos = end + 3;
      } else if (startsWith(pos, "<?")) {
        if (!findOutsideQuotes(pos + 2, "?>", end)) return false;
        pos = end + 2;
      } else if (startsWith(pos, "<!DOCTYPE")) {
        if (!findAnyOutsideQuotes(pos + 9, "[>", end)) return false;
        if (t_[end] == '[' && !findOutsideQuotes(end, "]>", end)) return false;
        pos = end + (t_[end] == '>' ? 1 : 2);
      } else if (startsWith(pos, "<!")) {
        return fail("unsupported markup");
      } else if (!element(pos)) {
        return false;
      }
    }
    return true;
  }

  const std::string& error() const { return error_; }

 private:
  bool fail(std::string why) {
    error_ = std::move(why);
    return false;
  }

  bool startsWith(size_t pos, std::string_view s) const { return t_.substr(pos, s.size()) == s; }

  // Steps over a double-quoted span starting at `pos`; `pos` ends on the closing quote.
  bool skipQuoted(size_t& pos) {
    size_t close = t_.find('"', pos + 1);
    if (close == std::string_view::npos) return fail("unterminated quoted text");
    if (t_.substr(pos, close - pos).find_first_of("<>") != std::string_view::npos) {
      return fail("unsupported markup");
    }
    pos = close;
    return true;
  }

  bool findOutsideQuotes(size_t pos, std::string_view token, size_t& found) {
    for (; pos < t_.size(); ++pos) {
      if (startsWith(pos, token)) {
        found = pos;
        return true;
      }
      if (t_[pos] == '"' && !skipQuoted(pos)) return false;
    }
    return fail("unterminated markup");
  }

  bool findAnyOutsideQuotes(size_t pos, std::string_view chars, size_t& found) {
    for (; pos < t_.size(); ++pos) {
      if (t_[pos] == '"') {
        if (!skipQuoted(pos)) return false;
        continue;
      }
      if (chars.find(t_[pos]) != std::string_view::npos) {
        found = pos;
        return true;
      }
    }
    return fail("unterminated markup");
  }

  // An element tag at `pos`; advances `pos` past its '>'.
  bool element(size_t& pos) {
    size_t nameEnd = t_.find_first_of(" \r\n\t<>", pos + 1);
    if (nameEnd == std::string_view::npos) return fail("unterminated tag");
    size_t gt = nameEnd;
    if (t_[gt] != '>') {
      if (!findAnyOutsideQuotes(nameEnd, "<>", gt)) return false;
      if (t_[gt] == '<') return fail("unterminated tag");
    }
    bool empty = t_[gt - 1] == '/';
    std::string_view name = t_.substr(pos + 1, (empty && gt - 1 < nameEnd ? gt - 1 : nameEnd) - pos - 1);
    pos = gt + 1;
    if (name == "array" || name == "dict") {
      if (!empty && ++depth_ > limits_.maxDepth)
        return fail(fmt::format("nesting deeper than {}", limits_.maxDepth));
      return countElement();
    }
    if (name == "/array" || name == "/dict") {
      if (empty) return true;
      if (depth_ == 0) return fail("unbalanced closing tag");
      --depth_;
      return true;
    }
    if (name.empty() || name[0] == '/' || name == "plist") return true;
    return countElement();
  }

  bool countElement() {
    if (++elements_ > limits_.maxNodes) return fail(fmt::format("more than {} nodes", limits_.maxNodes));
    return true;
  }

  std::string_view t_;
  PlistPrecheck::Limits limits_;
  int depth_ = 0;
  size_t elements_ = 0;
  std::string error_;
};

}  // namespace

bool PlistPrecheck::binary(std::span<const uint8_t> bytes, const Limits& limits, std::string* error) {
  BinaryScan scan(bytes, limits);
  if (scan.run()) return true;
  if (error) *error = scan.error();
  return false;
}

bool PlistPrecheck::xml(std::string_view text, const Limits& limits, std::string* error) {
  XmlScan scan(text, limits);
  if (scan.run()) return true;
  if (error) *error = scan.error();
  return false;
}

}  // namespace vorlen
