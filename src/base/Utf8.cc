#include "base/Utf8.h"

#include <cstdint>

namespace vorlen {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

// Decodes one code point at text[i] and advances i past it. An invalid sequence yields -1 and
// advances by one byte, so that a decoder resynchronises at the next byte.
int32_t decodeOne(std::string_view text, size_t& i) {
  auto byte = [&](size_t k) { return static_cast<uint8_t>(text[k]); };
  uint8_t b0 = byte(i);
  if (b0 < 0x80) {
    ++i;
    return b0;
  }
  size_t len;
  uint32_t cp;
  uint32_t min;
  if ((b0 & 0xE0) == 0xC0) {
    len = 2, cp = b0 & 0x1F, min = 0x80;
  } else if ((b0 & 0xF0) == 0xE0) {
    len = 3, cp = b0 & 0x0F, min = 0x800;
  } else if ((b0 & 0xF8) == 0xF0) {
    len = 4, cp = b0 & 0x07, min = 0x10000;
  } else {
    ++i;
    return -1;
  }
  if (text.size() - i < len) {
    ++i;
    return -1;
  }
  for (size_t k = 1; k < len; ++k) {
    uint8_t b = byte(i + k);
    if ((b & 0xC0) != 0x80) {
      ++i;
      return -1;
    }
    cp = (cp << 6) | (b & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
    ++i;
    return -1;
  }
  i += len;
  return static_cast<int32_t>(cp);
}

}  // namespace

bool isValidUtf8(std::string_view text) {
  size_t i = 0;
  while (i < text.size()) {
    if (decodeOne(text, i) < 0) return false;
  }
  return true;
}

bool isAscii(std::string_view text) {
  for (char c : text) {
    if (static_cast<uint8_t>(c) >= 0x80) return false;
  }
  return true;
}

std::u16string utf8ToUtf16(std::string_view text) {
  std::u16string out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    int32_t cp = decodeOne(text, i);
    char32_t c = cp < 0 ? kReplacement : static_cast<char32_t>(cp);
    if (c >= 0x10000) {
      c -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (c >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(c));
    }
  }
  return out;
}

}  // namespace vorlen
