// LanguageIdentifier: the language a short text is written in, as the "qlang" and "lctxlang" items of
// look-up requests carry it (an ISO 639 code such as "en", "de", "ru", "ar").
//
// languageOfText() asks the compact language detector, made for short texts, and keeps only an answer it
// calls reliable: "no language" is better than a wrong one. A text without a break between words is not
// asked at all: the detector is never sure of a single word, and each question costs a fixed set-up of
// some 25 us. The caller falls back to the script of the text (VORRequestContext::detectLanguage).
//
// Threading: stateless; safe from any thread (the detector's tables are read-only).
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vorlen {

class LanguageIdentifier {
 public:
  // The language of `text` when the detector is sure of it; nothing for empty, undecodable or unsure text.
  static std::optional<std::string> languageOfText(std::string_view text);
  // The detector's language code as requests carry it: the primary subtag, with the detector's older codes
  // replaced ("iw" -> "he", "jw" -> "jv"); nothing for its "unknown" codes.
  static std::optional<std::string> requestLanguageCode(std::string_view detectorCode);
};

}  // namespace vorlen
