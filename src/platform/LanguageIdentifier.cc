#include "platform/LanguageIdentifier.h"

// The detector's public header uses these without including them.
#include <cstdio>
#include <vector>

#include <cld2/public/compact_lang_det.h>

namespace vorlen {

namespace {

// Look-up texts are short; a longer one says nothing more about its language and costs time.
constexpr size_t kMaxDetectedBytes = 4096;
constexpr size_t kScanPadding = 16;

// True when the text has a break between words (a blank, a tab, a line break, a no-break or an
// ideographic space). The detector is never sure of a single word, and asking it costs the same fixed
// ~25 us of set-up whatever the length, so a single word is not asked.
bool hasWordBreak(std::string_view text) {
  return text.find_first_of(" \t\r\n") != std::string_view::npos ||
         text.find("\xC2\xA0") != std::string_view::npos ||
         text.find("\xE3\x80\x80") != std::string_view::npos;
}

}  // namespace

std::optional<std::string> LanguageIdentifier::languageOfText(std::string_view text) {
  if (text.empty() || !hasWordBreak(text)) return std::nullopt;
  if (text.size() > kMaxDetectedBytes) {
    // Cut before a character boundary: the detector answers nothing for text that is not valid UTF-8.
    size_t cut = kMaxDetectedBytes;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
    text = text.substr(0, cut);
  }
  // The detector's scanner may look a few bytes past the end it is given: it reads a padded copy.
  std::string padded(text);
  padded.append(kScanPadding, '\0');
  bool reliable = false;
  int validPrefix = 0;
  CLD2::Language language = CLD2::DetectLanguageCheckUTF8(padded.data(), static_cast<int>(text.size()),
                                                          /*is_plain_text=*/true, &reliable, &validPrefix);
  if (!reliable || language == CLD2::UNKNOWN_LANGUAGE) return std::nullopt;
  return requestLanguageCode(CLD2::LanguageCode(language));
}

std::optional<std::string> LanguageIdentifier::requestLanguageCode(std::string_view detectorCode) {
  std::string_view primary = detectorCode.substr(0, detectorCode.find('-'));
  if (primary.empty() || primary == "un" || primary == "xx" || primary == "und") return std::nullopt;
  if (primary == "iw") return std::string("he");
  if (primary == "jw") return std::string("jv");
  return std::string(primary);
}

}  // namespace vorlen
