#include "base/Archive.h"

#include <plist/plist.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "base/BinaryPlistReader.h"
#include "base/BinaryPlistWriter.h"
#include "base/Log.h"
#include "base/PlistPrecheck.h"
#include "base/Utf8.h"

namespace vorlen {

namespace {

constexpr PlistPrecheck::Limits kLimits{Archive::kMaxDepth, Archive::kMaxNodes, Archive::kMaxBytes};
constexpr char kBinaryMagic[] = "bplist00";
constexpr size_t kBinaryMagicSize = sizeof(kBinaryMagic) - 1;

struct PlistFree {
  void operator()(void* p) const { plist_free(p); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;
struct CFree {
  void operator()(void* p) const { std::free(p); }
};
struct BinFree {
  void operator()(char* p) const { plist_to_bin_free(p); }
};
struct XmlFree {
  void operator()(char* p) const { plist_to_xml_free(p); }
};

std::optional<Value> reject(std::string why, std::string* error) {
  VorlenDefaultLog().debug("property list rejected: {}", why);
  if (error) *error = std::move(why);
  return std::nullopt;
}

// libplist 2.2 hands out a date only as whole seconds and microseconds in 32 bits, which loses the sign
// of dates just before 2001 and everything outside 1933-2069. Its binary writer still has the exact
// double, so the node is written alone and the double read back.
std::optional<double> exactDateSeconds(plist_t node) {
  char* raw = nullptr;
  uint32_t length = 0;
  plist_to_bin(node, &raw, &length);
  std::unique_ptr<char, BinFree> bin(raw);
  if (!bin || length < kBinaryMagicSize + 9 || static_cast<uint8_t>(bin.get()[kBinaryMagicSize]) != 0x33) {
    return std::nullopt;
  }
  uint64_t bits = 0;
  for (size_t i = 0; i < 8; ++i)
    bits = (bits << 8) | static_cast<uint8_t>(bin.get()[kBinaryMagicSize + 1 + i]);
  return std::bit_cast<double>(bits);
}

// libplist 2.2 stores every integer in 64 bits and remembers only in a private field whether it came
// from a 16-byte (so unsigned) integer. Its XML writer reveals that field: it prints such values
// unsigned and all others signed. Only asked for values with the top bit set, which are rare.
bool isWideUnsigned(plist_t node) {
  char* raw = nullptr;
  uint32_t length = 0;
  plist_to_xml(node, &raw, &length);
  std::unique_ptr<char, XmlFree> xml(raw);
  if (!xml) return false;
  return std::string_view(xml.get(), length).find("<integer>-") == std::string_view::npos;
}

class Converter {
 public:
  std::optional<Value> run(plist_t root) {
    Value v;
    if (!convert(root, 0, v)) return std::nullopt;
    return v;
  }
  const std::string& error() const { return error_; }

 private:
  bool fail(std::string why) {
    error_ = std::move(why);
    return false;
  }

  bool count(size_t payloadBytes) {
    if (++nodes_ > Archive::kMaxNodes) return fail(fmt::format("more than {} nodes", Archive::kMaxNodes));
    bytes_ += payloadBytes;
    if (bytes_ > Archive::kMaxBytes) {
      return fail(fmt::format("more than {} bytes of strings and data", Archive::kMaxBytes));
    }
    return true;
  }

  bool text(const char* p, uint64_t length, std::string& out) {
    std::string_view s(p ? p : "", p ? length : 0);
    if (!isValidUtf8(s)) return fail("string is not UTF-8");
    if (!count(s.size())) return false;
    out.assign(s);
    return true;
  }

  // `level` counts the containers above `node`.
  bool convert(plist_t node, int level, Value& out) {
    switch (plist_get_node_type(node)) {
      case PLIST_BOOLEAN: {
        uint8_t b = 0;
        plist_get_bool_val(node, &b);
        out = Value(b != 0);
        return count(0);
      }
      case PLIST_UINT: {
        uint64_t u = 0;
        plist_get_uint_val(node, &u);
        if (u <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) || !isWideUnsigned(node)) {
          out = Value(static_cast<int64_t>(u));
        } else {
          out = Value(u);
        }
        return count(0);
      }
      case PLIST_REAL: {
        double d = 0;
        plist_get_real_val(node, &d);
        out = Value(d);
        return count(0);
      }
      case PLIST_STRING: {
        uint64_t length = 0;
        const char* p = plist_get_string_ptr(node, &length);
        std::string s;
        if (!text(p, length, s)) return false;
        out = Value(std::move(s));
        return true;
      }
      case PLIST_DATA: {
        uint64_t length = 0;
        const char* p = plist_get_data_ptr(node, &length);
        if (!p) length = 0;
        if (!count(length)) return false;
        const auto* b = reinterpret_cast<const uint8_t*>(p);
        out = Value(Value::Data(b, b + length));
        return true;
      }
      case PLIST_DATE: {
        std::optional<double> seconds = exactDateSeconds(node);
        std::optional<Time> t = seconds ? BinaryPlistReader::timeFromSeconds2001(*seconds) : std::nullopt;
        if (!t) return fail("invalid date");
        out = Value(*t);
        return count(0);
      }
      case PLIST_ARRAY:
        return array(node, level, out);
      case PLIST_DICT:
        return dict(node, level, out);
      case PLIST_KEY:
        return fail("key outside a dictionary");
      case PLIST_UID:
        return fail("unsupported UID value");
      default:
        return fail("unsupported node type");
    }
  }

  bool array(plist_t node, int level, Value& out) {
    if (level + 1 > Archive::kMaxDepth)
      return fail(fmt::format("nesting deeper than {}", Archive::kMaxDepth));
    if (!count(0)) return false;
    plist_array_iter rawIter = nullptr;
    plist_array_new_iter(node, &rawIter);
    std::unique_ptr<void, CFree> iter(rawIter);
    Value::Array items;
    items.reserve(plist_array_get_size(node));
    for (;;) {
      plist_t item = nullptr;
      plist_array_next_item(node, rawIter, &item);
      if (!item) break;
      Value v;
      if (!convert(item, level + 1, v)) return false;
      items.push_back(std::move(v));
    }
    out = Value(std::move(items));
    return true;
  }

  bool dict(plist_t node, int level, Value& out) {
    if (level + 1 > Archive::kMaxDepth)
      return fail(fmt::format("nesting deeper than {}", Archive::kMaxDepth));
    if (!count(0)) return false;
    plist_dict_iter rawIter = nullptr;
    plist_dict_new_iter(node, &rawIter);
    std::unique_ptr<void, CFree> iter(rawIter);
    Value::Dict entries;
    for (;;) {
      char* rawKey = nullptr;
      plist_t item = nullptr;
      plist_dict_next_item(node, rawIter, &rawKey, &item);
      std::unique_ptr<char, CFree> key(rawKey);
      if (!item) break;
      if (!key) return fail("dictionary key is not a string");
      std::string k;
      if (!text(key.get(), std::strlen(key.get()), k)) return false;
      Value v;
      if (!convert(item, level + 1, v)) return false;
      entries.emplace(std::move(k), std::move(v));  // of duplicate keys, the first wins
    }
    out = Value(std::move(entries));
    return true;
  }

  size_t nodes_ = 0;
  size_t bytes_ = 0;
  std::string error_;
};

std::optional<Value> convertTree(plist_t root, std::string* error) {
  PlistPtr owner(root);
  Converter converter;
  std::optional<Value> v = converter.run(root);
  if (!v) return reject(converter.error(), error);
  return v;
}

}  // namespace

std::vector<uint8_t> Archive::encodeBinary(const Value& value) {
  return BinaryPlistWriter::write(value);
}

std::string Archive::encodeXML(const Value& value) {
  // Through our own binary form, so that wide unsigned integers and exact dates reach libplist's XML
  // writer the way its reader produces them (its own constructors cannot make either).
  std::vector<uint8_t> bin = encodeBinary(value);
  plist_t root = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(bin.data()), static_cast<uint32_t>(bin.size()), &root);
  PlistPtr owner(root);
  if (!root) {
    VorlenDefaultLog().fault("property list could not be written as XML");
    return {};
  }
  char* raw = nullptr;
  uint32_t length = 0;
  plist_to_xml(root, &raw, &length);
  std::unique_ptr<char, XmlFree> xml(raw);
  return xml ? std::string(xml.get(), length) : std::string();
}

std::optional<Value> Archive::decodeBinary(std::span<const uint8_t> bytes, std::string* error) {
  return decodeBinary(bytes, SIZE_MAX, error);
}

std::optional<Value> Archive::decodeBinary(std::span<const uint8_t> bytes, size_t maxDecodedBytes,
                                           std::string* error) {
  if (bytes.size() > std::numeric_limits<uint32_t>::max()) return reject("property list too large", error);
  std::string why;
  PlistPrecheck::Limits limits = kLimits;
  limits.maxDecodedBytes = maxDecodedBytes;
  if (!PlistPrecheck::binary(bytes, limits, &why)) return reject(why, error);
  std::optional<Value> v = BinaryPlistReader::read(bytes, &why);
  if (!v) return reject(why, error);
  return v;
}

std::optional<Value> Archive::decodeBinaryWithLibplistForTesting(std::span<const uint8_t> bytes,
                                                                 std::string* error) {
  if (bytes.size() > std::numeric_limits<uint32_t>::max()) return reject("property list too large", error);
  std::string why;
  if (!PlistPrecheck::binary(bytes, kLimits, &why)) return reject(why, error);
  plist_t root = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(bytes.data()), static_cast<uint32_t>(bytes.size()), &root);
  if (!root) return reject("malformed binary property list", error);
  return convertTree(root, error);
}

std::optional<Value> Archive::decodeXML(std::string_view text, std::string* error) {
  if (text.size() > std::numeric_limits<uint32_t>::max()) return reject("property list too large", error);
  if (text.empty()) return reject("empty property list", error);
  std::string why;
  if (!PlistPrecheck::xml(text, kLimits, &why)) return reject(why, error);
  std::string terminated(text);  // libplist's XML reader is safest on NUL-terminated text
  plist_t root = nullptr;
  plist_from_xml(terminated.c_str(), static_cast<uint32_t>(terminated.size()), &root);
  if (!root) return reject("malformed XML property list", error);
  return convertTree(root, error);
}

std::optional<Value> Archive::decode(std::span<const uint8_t> bytes, std::string* error) {
  if (bytes.size() >= kBinaryMagicSize && std::memcmp(bytes.data(), kBinaryMagic, kBinaryMagicSize) == 0) {
    return decodeBinary(bytes, error);
  }
  if (bytes.size() >= 6 && std::memcmp(bytes.data(), "bplist", 6) == 0) {
    return reject("unsupported binary property list version", error);
  }
  return decodeXML(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()), error);
}

}  // namespace vorlen
