#include "service/TypeVocabularies.h"

#include <gtest/gtest.h>

namespace vorlen {
namespace {

TEST(TypeVocabulariesTest, FeatureTypesKeepTheirOddSpellingsAndOneCaseInsensitiveTest) {
  EXPECT_EQ(featureTypeFromString("domain"), FeatureTypeDomain);
  EXPECT_EQ(featureTypeFromString("tld"), FeatureTypeDomain);
  EXPECT_EQ(featureTypeFromString("MediaType"), FeatureTypeMediaType);
  EXPECT_EQ(featureTypeFromString("mt"), FeatureTypeMediaType);
  EXPECT_EQ(featureTypeFromString("MT"), FeatureTypeUnknown);
  EXPECT_EQ(featureTypeFromString("Domain"), FeatureTypeUnknown);
  EXPECT_EQ(featureTypeFromString("topic"), FeatureTypeTopic);
  EXPECT_EQ(stringFromFeatureType(1), "mediaType");
  EXPECT_EQ(stringFromFeatureType(3), "unkonwn");
  EXPECT_EQ(featureTypeFromString(stringFromFeatureType(3)), FeatureTypeUnknown);
}

TEST(TypeVocabulariesTest, ClientFunctionAndPlacement) {
  EXPECT_EQ(clientTypeFromString("norvanta"), ClientTypeNorvanta);
  EXPECT_EQ(clientTypeFromString("Voyant"), ClientTypeUnknown);
  EXPECT_EQ(stringFromClientType(7), "unknown");
  EXPECT_EQ(funcTypeFromString("engrate"), FunctionTypeEngagementRate);
  EXPECT_EQ(stringFromFunctionType(funcTypeFromString("engrate")), "eng/render");
  EXPECT_EQ(funcTypeFromString("ENG"), FunctionTypeUnknown);
  EXPECT_EQ(resultPlacementFromString("Top"), ResultPlacementUnknown);
  EXPECT_EQ(resultPlacementFromString("bottom"), ResultPlacementBottom);
  EXPECT_EQ(stringFromResultPlacement(0), "unkonw");
  EXPECT_EQ(stringFromResultPlacement(1), "top");
}

TEST(TypeVocabulariesTest, ClientFromUserAgentPrefersTheBrowser) {
  EXPECT_EQ(getClientFromUserAgent(std::nullopt), "unknown");
  EXPECT_EQ(getClientFromUserAgent("Vorlend/1.0 (x) VOYANT/17"), "voyant");
  EXPECT_EQ(getClientFromUserAgent("norvanta/3 voyant/1"), "voyant");
  EXPECT_EQ(getClientFromUserAgent("Norvanta/3"), "norvanta");
  EXPECT_EQ(getClientFromUserAgent("news/1.0"), "unknown");
}

}  // namespace
}  // namespace vorlen
