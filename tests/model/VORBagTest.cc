#include "model/VORBag.h"

#include <gtest/gtest.h>

#include "base/Archive.h"
#include "base/Log.h"

namespace vorlen {
namespace {

using K = VORBagKeys;

TEST(VORBagTest, ClientNamesComeFromTheUserAgent) {
  EXPECT_EQ(VORBag::clientNameForUserAgent("Vorlend/1.0 (Pocket7,2; Vorlen OS 23A55) Voyant/17.0"), "voyant");
  EXPECT_EQ(VORBag::clientNameForUserAgent("NORVANTA/2"), "norvanta");
  // The browser test comes first.
  EXPECT_EQ(VORBag::clientNameForUserAgent("Norvanta/2 Voyant/1"), "voyant");
  EXPECT_EQ(VORBag::clientNameForUserAgent("news/1.0"), "news");
  EXPECT_EQ(VORBag::clientNameForUserAgent("news"), "news");
  EXPECT_EQ(VORBag::clientNameForUserAgent("Reader/3 News/1.0"), "news");
  // Otherwise the product token of the client's own text, past the daemon's wrapping.
  EXPECT_EQ(VORBag::clientNameForUserAgent("Vorlend/1.0 (Pocket7,2; Vorlen OS 23A55) Messages/5.1 (x)"),
            "messages");
  EXPECT_EQ(VORBag::clientNameForUserAgent("Vorlend/1.0 (Pocket7,2; Vorlen OS 23A55) Vorlend/1.0"),
            "vorlend");
  EXPECT_EQ(VORBag::clientNameForUserAgent("Dictionary"), "dictionary");
  EXPECT_EQ(VORBag::clientNameForUserAgent("Vorlend/1.0 (unterminated"), "");
  EXPECT_EQ(VORBag::clientNameForUserAgent(""), "");
}

Value::Dict exampleBag() {
  return *Value::dict(
              {
                  {K::kVersion, "12"},
                  {K::kEnabled, true},
                  {K::kSearchURL, "https://search.vorlen.velmo.com/search"},
                  {K::kCardURL, "https://search.vorlen.velmo.com/card"},
                  {K::kFeedbackEnabled, true},
                  {K::kFeedbackURL, "https://fb.vorlen.velmo.com/feedback"},
                  {K::kMinimumQueryLength, 2},
                  {K::kSearchRenderTimeout, 1.5},
                  {K::kSupportedGeoLocationSources, Value::array({"gps", 7, "wifi"})},
                  {K::kDownloadResourcesList,
                   Value::array({"lookup_hints_weekly", "installed_app_whitelist", "nourl"})},
                  {"lookup_hints_weekly", "https://r.vorlen.velmo.com/hints_weekly"},
                  {"installed_app_whitelist", "not a url"},
                  {K::kMaxFeedbackSize, Value::dict({{"autofill", 4096}, {"bad", -1}})},
                  {K::kClients,
                   Value::dict({
                       {"voyant",
                        Value::dict({{K::kEnabled, false},
                                     {K::kMinimumQueryLength, 3},
                                     {K::kSearchURL, "https://voyant.vorlen.velmo.com/search"},
                                     {K::kFeedbackEnabled, "yes"},  // wrong type: the top level applies
                                     {K::kVersion, "99"},           // the version is not per client
                                     {K::kSmartHistoryEnabled, true},
                                     {K::kVoyantLast1day, 2}})},
                       {"news", Value::dict({{K::kEnabled, false}})},
                       {"norvanta", "not a dictionary"},
                   })},
              })
              .getDict();
}

TEST(VORBagTest, AClientsEntryOverridesTheTopLevelForThatClientOnly) {
  VORBag browser(exampleBag(), "Vorlend/1.0 (d) Voyant/17.0");
  VORBag other(exampleBag(), "Mail/2.0");
  VORBag search(exampleBag(), "Norvanta/1");
  EXPECT_EQ(browser.clientName(), "voyant");

  EXPECT_FALSE(browser.isEnabled());
  EXPECT_TRUE(other.isEnabled());
  EXPECT_TRUE(search.isEnabled());  // its entry is not a dictionary, so it sees the top level
  EXPECT_FALSE(VORBag(exampleBag(), "news/1.0").isEnabled());
  EXPECT_EQ(browser.minimumQueryLength(), 3u);
  EXPECT_EQ(other.minimumQueryLength(), 2u);
  EXPECT_EQ(browser.searchURL(), "https://voyant.vorlen.velmo.com/search");
  EXPECT_EQ(other.searchURL(), "https://search.vorlen.velmo.com/search");
  EXPECT_EQ(browser.cardURL(), "https://search.vorlen.velmo.com/card");  // not overridden
  EXPECT_TRUE(browser.feedbackEnabled());
  EXPECT_EQ(browser.version(), "12");
  EXPECT_TRUE(browser.smartHistoryEnabled());
  EXPECT_FALSE(other.smartHistoryEnabled());
  EXPECT_DOUBLE_EQ(browser.voyantLast1day(), 2.0);  // an integer is a number too
  EXPECT_DOUBLE_EQ(other.voyantLast1day(), 1.0);
}

TEST(VORBagTest, ValuesOfTheWrongTypeReadAsAbsent) {
  VORBag bag(exampleBag(), "Mail/2.0");
  EXPECT_EQ(bag.supportedGeoLocationSources(), (std::vector<std::string>{"gps", "wifi"}));
  EXPECT_EQ(bag.maximumSizeForFeedbackType("autofill"), 4096u);
  EXPECT_EQ(bag.maximumSizeForFeedbackType("bad"), 0u);
  EXPECT_EQ(bag.maximumSizeForFeedbackType("missing"), 0u);
  // Only listed resources whose own key holds a URL.
  EXPECT_EQ(bag.resources(),
            *Value::dict({{"lookup_hints_weekly", "https://r.vorlen.velmo.com/hints_weekly"}}).getDict());

  Value::Dict wrong = *Value::dict({
                                       {K::kEnabled, 1},
                                       {K::kVersion, 12},
                                       {K::kSearchURL, "search"},
                                       {K::kWarmURL, "https://has space/warm"},
                                       {K::kFeedbackURL, Value::array({"https://x"})},
                                       {K::kMinimumQueryLength, -4},
                                       {K::kSmartHistoryMaxRows, 2.5},
                                       {K::kSearchRenderTimeout, "2"},
                                       {K::kL2Version, 3},
                                       {K::kSupportedGeoLocationSources, "gps"},
                                       {K::kQuintaraConfiguration, Value::array({})},
                                       {K::kSubscriptionProviderDomainWhitelist, Value::dict({})},
                                       {K::kDownloadResourcesList, "lookup_hints_weekly"},
                                       {K::kClients, Value::array({})},
                                   })
                           .getDict();
  VORBag odd(wrong, "Voyant/1");
  EXPECT_FALSE(odd.isEnabled());
  EXPECT_EQ(odd.version(), std::nullopt);
  EXPECT_EQ(odd.searchURL(), std::nullopt);
  EXPECT_EQ(odd.warmURL(), std::nullopt);
  EXPECT_EQ(odd.feedbackURL(), std::nullopt);
  EXPECT_EQ(odd.minimumQueryLength(), 0u);
  EXPECT_EQ(odd.smartHistoryMaxRows(), 0u);
  EXPECT_EQ(odd.searchRenderTimeout(), 0.0);
  EXPECT_EQ(odd.l2version(), "");
  EXPECT_TRUE(odd.supportedGeoLocationSources().empty());
  EXPECT_EQ(odd.quintaraConfiguration(), std::nullopt);
  EXPECT_EQ(odd.subscriptionProviderDomainWhitelist(), std::nullopt);
  EXPECT_TRUE(odd.resources().empty());
}

// An empty list is present, which differs from a missing one.
TEST(VORBagTest, AnEmptyAllowListIsNotAMissingOne) {
  EXPECT_EQ(VORBag({}, "").subscriptionProviderDomainWhitelist(), std::nullopt);
  VORBag lists(*Value::dict({{K::kSubscriptionProviderDomainWhitelist, Value::array({})},
                             {K::kSubscriptionProviderBundleIdentifierWhitelist, Value::array({"com.a"})}})
                    .getDict(),
               "x");
  EXPECT_EQ(lists.subscriptionProviderDomainWhitelist(), std::vector<std::string>{});
  EXPECT_EQ(lists.subscriptionProviderBundleIdentifierWhitelist(), std::vector<std::string>{"com.a"});
}

TEST(VORBagTest, RawReadsTolerateMissingKeysAndWrongTypes) {
  Value::Dict d =
      *Value::dict({{"n", 3}, {"r", 0.5}, {"s", "3"}, {"u", "https://a/b"}, {"bare", "a:"}}).getDict();
  EXPECT_EQ(VORBag::numberForKey(d, "n"), 3.0);
  EXPECT_EQ(VORBag::numberForKey(d, "r"), 0.5);
  EXPECT_EQ(VORBag::numberForKey(d, "s"), std::nullopt);
  EXPECT_EQ(VORBag::numberForKey(d, "missing"), std::nullopt);
  EXPECT_EQ(VORBag::urlForKey(d, "u"), "https://a/b");
  EXPECT_EQ(VORBag::urlForKey(d, "bare"), std::nullopt);
  EXPECT_EQ(VORBag::urlForKey(d, "n"), std::nullopt);
}

TEST(VORBagTest, TravelsAsARecordWithItsClientView) {
  VORBag bag(exampleBag(), "Voyant/17.0");
  std::optional<Value> bytes = Archive::decodeBinary(Archive::encodeBinary(bag.toRecord()));
  ASSERT_TRUE(bytes);
  std::optional<VORBag> back = VORBag::fromRecord(*bytes);
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, bag);
  EXPECT_EQ(back->clientName(), "voyant");
  EXPECT_FALSE(back->isEnabled());

  // Copies share the dictionary and keep the client's view.
  VORBag copy = *back;
  back.reset();
  EXPECT_EQ(copy.minimumQueryLength(), 3u);

  ScopedLogCapture capture;
  std::string error;
  EXPECT_FALSE(VORBag::fromRecord(Value::record("VORBag").set("rawBag", "{}"), &error));
  EXPECT_EQ(error, "VORBag.rawBag: expected dictionary, found string");
}

}  // namespace
}  // namespace vorlen
