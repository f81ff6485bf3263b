#include "service/TypeVocabularies.h"

#include <gtest/gtest.h>

namespace vorlen {
namespace {

TEST(TypeVocabulariesTest, ClientFromUserAgentPrefersTheBrowser) {
  EXPECT_EQ(getClientFromUserAgent(std::nullopt), "unknown");
  EXPECT_EQ(getClientFromUserAgent("Vorlend/1.0 (x) VOYANT/17"), "voyant");
  EXPECT_EQ(getClientFromUserAgent("norvanta/3 voyant/1"), "voyant");
  EXPECT_EQ(getClientFromUserAgent("Norvanta/3"), "norvanta");
  EXPECT_EQ(getClientFromUserAgent("news/1.0"), "unknown");
}

}  // namespace
}  // namespace vorlen
