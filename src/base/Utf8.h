// Utf8: validation of UTF-8 text and its conversion to UTF-16, as the property-list codec needs them.
//
// Valid UTF-8 here is what RFC 3629 allows: shortest forms only, no surrogate code points, nothing above
// U+10FFFF.
//
// Threading: stateless; safe from any thread.
#pragma once

#include <string>
#include <string_view>

namespace vorlen {

bool isValidUtf8(std::string_view text);
bool isAscii(std::string_view text);
// UTF-16 code units of `text`; each invalid sequence becomes U+FFFD.
std::u16string utf8ToUtf16(std::string_view text);

}  // namespace vorlen
