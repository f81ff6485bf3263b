#include "platform/LanguageIdentifier.h"

#include <gtest/gtest.h>

#include "network/VORRequestContext.h"

namespace vorlen {
namespace {

// Sentences in scripts shared by many languages get their language; a single word or unsure text gets
// none from the identifier, and then the script of the text decides where it names one language.
TEST(LanguageIdentifierTest, SureAnswersOnlyWithTheScriptAsFallback) {
  struct Case {
    std::string text;
    std::optional<std::string> identified;
    std::optional<std::string> detected;  // what requests carry
  };
  const Case cases[] = {
      {"wie spät ist es heute abend in berlin", "de", "de"},
      {"как сегодня погода в москве и будет ли дождь вечером", "ru", "ru"},
      {"ما هي حالة الطقس في القاهرة اليوم وغدا", "ar", "ar"},
      {"מה מזג האוויר היום בתל אביב ובירושלים", "he", "he"},
      {"weather", std::nullopt, std::nullopt},
      {"東京", std::nullopt, "zh"},
      {"", std::nullopt, std::nullopt},
      {std::string("caf\xc3", 4), std::nullopt, std::nullopt},  // not UTF-8
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.text);
    EXPECT_EQ(LanguageIdentifier::languageOfText(k.text), k.identified);
    EXPECT_EQ(VORRequestContext::detectLanguage(k.text), k.detected);
  }
  // A long text is cut on a character boundary, never inside one.
  std::string longText;
  while (longText.size() < 10000) longText += "погода в москве и будет ли дождь вечером ";
  EXPECT_EQ(LanguageIdentifier::languageOfText(longText), "ru");

  EXPECT_EQ(LanguageIdentifier::requestLanguageCode("iw"), "he");
  EXPECT_EQ(LanguageIdentifier::requestLanguageCode("zh-Hant"), "zh");
  EXPECT_EQ(LanguageIdentifier::requestLanguageCode("un"), std::nullopt);
}

}  // namespace
}  // namespace vorlen
