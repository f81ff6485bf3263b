#include "base/BinaryPlistWriter.h"

#include <bit>
#include <cstring>
#include <limits>
#include <string_view>
#include <unordered_map>

#include "base/Utf8.h"

namespace vorlen {

namespace {

// Object markers (high nibble) of the format.
enum Marker : uint8_t {
  kFalse = 0x08,
  kTrue = 0x09,
  kInt = 0x10,
  kReal8 = 0x23,
  kDate = 0x33,
  kData = 0x40,
  kAscii = 0x50,
  kUtf16 = 0x60,
  kArray = 0xA0,
  kDict = 0xD0,
};

// Smallest of 1, 2, 4, 8 bytes that holds `v`.
uint8_t widthFor(uint64_t v) {
  if (v <= 0xFF) return 1;
  if (v <= 0xFFFF) return 2;
  if (v <= 0xFFFFFFFFu) return 4;
  return 8;
}

void putBigEndian(std::vector<uint8_t>& out, uint64_t v, uint8_t width) {
  for (int shift = (width - 1) * 8; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(v >> shift));
}

void putDouble(std::vector<uint8_t>& out, double d) {
  putBigEndian(out, std::bit_cast<uint64_t>(d), 8);
}

// A non-negative integer object in the fewest bytes (1, 2 and 4-byte integers are unsigned in the
// format; 8-byte ones are signed, which is fine below 2^63).
void putSmallUnsigned(std::vector<uint8_t>& out, uint64_t v) {
  uint8_t width = widthFor(v);
  out.push_back(static_cast<uint8_t>(kInt | std::countr_zero(width)));
  putBigEndian(out, v, width);
}

void putInteger(std::vector<uint8_t>& out, int64_t v) {
  if (v >= 0) {
    putSmallUnsigned(out, static_cast<uint64_t>(v));
  } else {
    out.push_back(kInt | 3);
    putBigEndian(out, static_cast<uint64_t>(v), 8);
  }
}

void putUnsigned(std::vector<uint8_t>& out, uint64_t v) {
  if (v <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
    putSmallUnsigned(out, v);
    return;
  }
  // A 16-byte signed integer whose upper half is zero: positive for every reader.
  out.push_back(kInt | 4);
  putBigEndian(out, 0, 8);
  putBigEndian(out, v, 8);
}

// The marker byte of a sized object, with the count in the low nibble or, from 15 on, as an integer
// object right after it.
void putSized(std::vector<uint8_t>& out, uint8_t marker, uint64_t count) {
  if (count < 15) {
    out.push_back(static_cast<uint8_t>(marker | count));
  } else {
    out.push_back(static_cast<uint8_t>(marker | 0x0F));
    putSmallUnsigned(out, count);
  }
}

class Flattener {
 public:
  // One object of the object table: a Value, or a string (dictionary keys have no Value of their own).
  struct Object {
    const Value* value = nullptr;
    std::string_view string;
    std::vector<uint64_t> refs;  // arrays: items; dictionaries: keys, then values
  };

  uint64_t add(const Value& v) {
    if (const std::string* s = v.getString()) return addString(*s);
    uint64_t index = objects_.size();
    objects_.push_back(Object{&v, {}, {}});
    if (const Value::Array* a = v.getArray()) {
      std::vector<uint64_t> refs;
      refs.reserve(a->size());
      for (const Value& item : *a) {
        if (!item.isNull()) refs.push_back(add(item));
      }
      objects_[index].refs = std::move(refs);
    } else if (const Value::Dict* d = v.getDict()) {
      std::vector<uint64_t> keys, values;
      for (const auto& [key, item] : *d) {
        if (item.isNull()) continue;
        keys.push_back(addString(key));
        values.push_back(add(item));
      }
      keys.insert(keys.end(), values.begin(), values.end());
      objects_[index].refs = std::move(keys);
    }
    return index;
  }

  const std::vector<Object>& objects() const { return objects_; }

 private:
  uint64_t addString(std::string_view s) {
    auto [it, inserted] = strings_.try_emplace(s, objects_.size());
    if (inserted) objects_.push_back(Object{nullptr, s, {}});
    return it->second;
  }

  std::vector<Object> objects_;
  std::unordered_map<std::string_view, uint64_t> strings_;
};

void putString(std::vector<uint8_t>& out, std::string_view s) {
  // libplist reads an ASCII string only up to its first NUL, a UTF-16 one whole.
  if (isAscii(s) && s.find('\0') == std::string_view::npos) {
    putSized(out, kAscii, s.size());
    out.insert(out.end(), s.begin(), s.end());
    return;
  }
  std::u16string units = utf8ToUtf16(s);
  putSized(out, kUtf16, units.size());
  for (char16_t u : units) putBigEndian(out, u, 2);
}

void putObject(std::vector<uint8_t>& out, const Flattener::Object& object, uint8_t refWidth) {
  if (!object.value) {
    putString(out, object.string);
    return;
  }
  const Value& v = *object.value;
  switch (v.type()) {
    case Value::Type::Int:
      putInteger(out, *v.getInt());
      break;
    case Value::Type::UInt:
      putUnsigned(out, *v.getUInt());
      break;
    case Value::Type::Real:
      out.push_back(kReal8);
      putDouble(out, *v.getDouble());
      break;
    case Value::Type::Bool:
      out.push_back(*v.getBool() ? kTrue : kFalse);
      break;
    case Value::Type::Date:
      out.push_back(kDate);
      putDouble(out, BinaryPlistWriter::secondsSince2001(*v.getDate()));
      break;
    case Value::Type::Data: {
      const Value::Data& d = *v.getData();
      putSized(out, kData, d.size());
      out.insert(out.end(), d.begin(), d.end());
      break;
    }
    case Value::Type::Array:
      putSized(out, kArray, object.refs.size());
      for (uint64_t r : object.refs) putBigEndian(out, r, refWidth);
      break;
    case Value::Type::Dict:
    case Value::Type::Null:  // only a null root gets here: an empty dictionary
      putSized(out, kDict, object.refs.size() / 2);
      for (uint64_t r : object.refs) putBigEndian(out, r, refWidth);
      break;
    case Value::Type::String:  // strings are always added as string objects
      break;
  }
}

}  // namespace

double BinaryPlistWriter::secondsSince2001(Time t) {
  using namespace std::chrono;
  // Whole microseconds first, in integers, so that the one rounding to double happens last.
  int64_t us = duration_cast<microseconds>(t.time_since_epoch()).count();
  int64_t us2001 = us - kDateEpochOffset * 1000000;
  return static_cast<double>(us2001) / 1e6;
}

std::vector<uint8_t> BinaryPlistWriter::write(const Value& root) {
  Flattener flat;
  flat.add(root);
  const auto& objects = flat.objects();
  uint8_t refWidth = widthFor(objects.size() - 1);

  std::vector<uint8_t> out = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  out.reserve(64 + objects.size() * 24);  // most objects are a marker and a short string or ref list
  std::vector<uint64_t> offsets;
  offsets.reserve(objects.size());
  for (const auto& object : objects) {
    offsets.push_back(out.size());
    putObject(out, object, refWidth);
  }

  uint64_t tableOffset = out.size();
  uint8_t offsetWidth = widthFor(offsets.back());
  for (uint64_t o : offsets) putBigEndian(out, o, offsetWidth);

  // Trailer: 5 unused bytes, sort version, offset width, reference width, object count, top object,
  // offset of the offset table.
  out.insert(out.end(), 6, 0);
  out.push_back(offsetWidth);
  out.push_back(refWidth);
  putBigEndian(out, objects.size(), 8);
  putBigEndian(out, 0, 8);
  putBigEndian(out, tableOffset, 8);
  return out;
}

}  // namespace vorlen
