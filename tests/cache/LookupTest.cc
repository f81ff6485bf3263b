#include "cache/Lookup.h"

#include <gtest/gtest.h>

#include <cmath>

#include "base/Log.h"
#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "cache/LookupResultFilter.h"
#include "model/Constants.h"
#include "model/VORRequest.h"
#include "platform/Assembly.h"
#include "support/FakeDownloadManager.h"
#include "support/PlatformFakes.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"

namespace vorlen {
namespace {

using nlohmann::json;

// ---- Filtering.

json result(json instructions) {
  return json{{"title", "r"}, {"lookup_instructions", std::move(instructions)}};
}

TEST(LookupResultFilterTest, InstructionsKeepOrDropResults) {
  const std::string context = "Weather in New York";
  struct Case {
    const char* what;
    json result;
    bool kept;
    const char* locale = "en_US";
  } cases[] = {
      {"no instructions", json{{"title", "plain"}}, true},
      {"instructions not an object", json{{"lookup_instructions", "drop me"}}, true},
      {"score equal to the minimum",
       result({{"min_keywords_score", 0.5}, {"keywords", {{{"word", "WEATHER"}, {"weight", 0.5}}}}}), true},
      {"score below the minimum",
       result({{"min_keywords_score", 0.6}, {"keywords", {{{"word", "weather"}, {"weight", 0.5}}}}}), false},
      {"weights of contained words add up",
       result({{"min_keywords_score", 1.0},
               {"keywords",
                {{{"word", "weather"}, {"weight", 0.5}},
                 {{"word", "york"}, {"weight", 0.5}},
                 {{"word", "paris"}, {"weight", 9}}}}}),
       true},
      {"completion contained, other case", result({{"completion", "NEW YORK"}}), true},
      {"completion missing from the context", result({{"completion", "new jersey"}}), false},
      {"subject skipped at min 0", result({{"min_subject_score", 0}, {"subject", "cooking pasta"}}), true},
      {"Jaccard 3/4 passes 0.5", result({{"min_subject_score", 0.5}, {"subject", "new york weather"}}), true},
      {"Jaccard 3/4 fails 0.8", result({{"min_subject_score", 0.8}, {"subject", "new york weather"}}), false},
      {"empty subject", result({{"min_subject_score", 0.1}, {"subject", ""}}), false},
      {"NaN weight is skipped",
       result({{"min_keywords_score", 0.5}, {"keywords", {{{"word", "weather"}, {"weight", NAN}}}}}), false},
      {"NaN minimum counts as 0", result({{"min_keywords_score", NAN}}), true},
      {"ill-typed fields count as absent",
       result({{"min_keywords_score", "9"},
               {"keywords", "weather"},
               {"completion", 7},
               {"min_subject_score", "1"}}),
       true},
      {"keyword entries of the wrong shape are skipped",
       result(
           {{"min_keywords_score", 0.5}, {"keywords", {1, {{"word", 3}, {"weight", 1}}, {{"word", "new"}}}}}),
       false},
      {"locale-aware lower-casing: Turkish dotless i",
       result({{"min_keywords_score", 1}, {"keywords", {{{"word", "ıstanbul"}, {"weight", 1}}}}}), true,
       "tr_TR"},
      {"the same word elsewhere lower-cases with a dot",
       result({{"min_keywords_score", 1}, {"keywords", {{{"word", "ıstanbul"}, {"weight", 1}}}}}), false,
       "en_US"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    LookupResultFilter filter(c.locale);
    std::string ctx = std::string(c.what).find("Turkish") != std::string::npos ||
                              std::string(c.what).find("elsewhere") != std::string::npos
                          ? "ISTANBUL weather"
                          : context;
    EXPECT_EQ(filter.keep(ctx, c.result), c.kept);
  }
}

TEST(LookupResultFilterTest, JaccardUsesWordBoundariesAndLowerCase) {
  LookupResultFilter filter("en_US");
  auto subject = filter.words("New York weather");
  auto query = filter.words("weather, in NEW york!");
  EXPECT_EQ(query, (std::set<std::string>{"weather", "in", "new", "york"}));
  EXPECT_DOUBLE_EQ(LookupResultFilter::jaccardIndex(subject, query), 0.75);
  EXPECT_DOUBLE_EQ(LookupResultFilter::jaccardIndex({}, {}), 0.0);
}

TEST(LookupResultFilterTest, AnswersThatAreNotArraysOfSectionsAreLeftAlone) {
  ScopedLogCapture capture;
  LookupResultFilter filter("en_US");
  EXPECT_FALSE(filter.filter("q", json{{"results", json::array()}}));
  EXPECT_FALSE(filter.filter("q", json::parse("{", nullptr, false)));
  EXPECT_EQ(capture.sink().records().size(), 2u);

  json answer = json::array({"odd section",
                             json{{"results", {json{{"title", "kept"}}, result({{"completion", "absent"}})}}},
                             json{{"name", "no results"}}});
  auto filtered = filter.filter("query", answer);
  ASSERT_TRUE(filtered);
  EXPECT_EQ(*filtered, json::array({"odd section", json{{"results", {json{{"title", "kept"}}}}},
                                    json{{"name", "no results"}}}));
}

// ---- Hints files.

class LookupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    assembly = std::make_shared<Assembly>(test::platformForTesting(dir.path(), clock));
    assembly->notificationCenter = assembly->platform.notificationCenter;
    downloads = std::make_shared<test::FakeDownloadManager>(dir / "resources", assembly->notificationCenter);
    assembly->downloadManager = downloads;
    assembly->platform.dataDetectors = detectors;
    lookup = Lookup::create(*assembly);
  }
  void TearDown() override {
    lookup.reset();
    assembly.reset();
  }

  test::TempDir dir;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  std::shared_ptr<Assembly> assembly;
  std::shared_ptr<test::FakeDownloadManager> downloads;
  std::shared_ptr<test::FakeDataDetectorStore> detectors = std::make_shared<test::FakeDataDetectorStore>();
  std::shared_ptr<Lookup> lookup;
};

TEST_F(LookupTest, HintsFilesArePushedByKindAndOtherResourcesIgnored) {
  downloads->store(kVORInstalledAppWhitelistResource, "{}");
  downloads->store(kVORLookupHintsWeeklyResource, "weekly hints", "25-weekly-2026");
  downloads->store(kVORLookupHintsMonthlyResource, "monthly hints", "11-monthly-2026");
  lookup->_drainQueue();  // the push reads the file, which the deletion below removes
  downloads->remove(kVORLookupHintsMonthlyResource);
  lookup->_drainQueue();
  auto pushes = detectors->pushes();
  ASSERT_EQ(pushes.size(), 3u);
  EXPECT_EQ(pushes[0].kind, Lookup::kWeeklySourceKind);
  EXPECT_EQ(pushes[0].contents, "weekly hints");
  EXPECT_EQ(pushes[0].signature, "25-weekly-2026");
  EXPECT_EQ(pushes[1].kind, Lookup::kMonthlySourceKind);
  EXPECT_EQ(pushes[1].contents, "monthly hints");
  EXPECT_EQ(pushes[2].kind, Lookup::kMonthlySourceKind);
  EXPECT_FALSE(pushes[2].contents) << "a deletion pushes no file";
  EXPECT_FALSE(detectors->signatureForSourceKind(Lookup::kMonthlySourceKind));
}

TEST_F(LookupTest, UnreadableFilesAndRefusedPushesAreLogged) {
  ScopedLogCapture capture;
  detectors->setRefuse(true);
  assembly->notificationCenter->post(kVORFileDownloadCompletedNotification, nullptr,
                                     Value::dict({{kVORIdentifierKey, Value(kVORLookupHintsWeeklyResource)},
                                                  {kVORURLKey, Value((dir / "missing").string())}}));
  lookup->_drainQueue();
  EXPECT_TRUE(
      capture.sink().contains(LogLevel::Error, "Vorlen_LookUp",
                              "error trying to open hints file: No such file or directory at location: " +
                                  (dir / "missing").string()));
  EXPECT_TRUE(capture.sink().contains("failed to push data to data detectors"));
  ASSERT_EQ(detectors->pushes().size(), 1u);
  EXPECT_FALSE(detectors->pushes()[0].contents) << "an unopenable file pushes no file";
}

TEST_F(LookupTest, StartupReprocessesOnlyKindsWhoseSignatureDiffersFromTheVersion) {
  test::writeFile(downloads->pathOf(kVORLookupHintsWeeklyResource), "weekly v2");
  downloads->setVersion(kVORLookupHintsWeeklyResource, "v2");
  downloads->setVersion(kVORLookupHintsMonthlyResource, "m1");
  test::writeFile(downloads->pathOf(kVORLookupHintsMonthlyResource), "monthly m1");
  detectors->setSignature(Lookup::kWeeklySourceKind, "v1");
  detectors->setSignature(Lookup::kMonthlySourceKind, "m1");
  assembly->notificationCenter->post(kVORStartup);
  lookup->_drainQueue();
  auto pushes = detectors->pushes();
  ASSERT_EQ(pushes.size(), 1u);
  EXPECT_EQ(pushes[0].kind, Lookup::kWeeklySourceKind);
  EXPECT_EQ(pushes[0].contents, "weekly v2");
  EXPECT_EQ(detectors->signatureForSourceKind(Lookup::kWeeklySourceKind), "v2");

  // A version whose file is gone: logged, nothing pushed.
  ScopedLogCapture capture;
  downloads->setVersion(kVORLookupHintsMonthlyResource, "m2");
  std::filesystem::remove(downloads->pathOf(kVORLookupHintsMonthlyResource));
  assembly->notificationCenter->post(kVORStartup);
  lookup->_drainQueue();
  EXPECT_EQ(detectors->pushes().size(), 1u);
  EXPECT_TRUE(
      capture.sink().contains("reprocess file doesn't exist or there was an error. file: "
                              "lookup_hints_monthly error: VORErrorDomain 404: "
                              "not found"));
}

TEST_F(LookupTest, SignatureFromURLTakesPathPartsThreeFourAndTwo) {
  ScopedLogCapture capture;
  struct Case {
    const char* url;
    const char* signature;
  } cases[] = {
      {"https://cdn.example/a/b/c/d", "c-d-b"},
      {"https://cdn.example/hints/2026/11/25/weekly?key=k", "11-25-2026"},
      {"https://cdn.example/x/y/z", ""},
      {"https://cdn.example/", ""},
      {"not a url", ""},
  };
  for (const Case& c : cases) EXPECT_EQ(Lookup::signatureFromURL(c.url), c.signature) << c.url;
  EXPECT_EQ(capture.sink().count("invalid lookup hints url when processing signature: <private>"), 3u);
}

TEST_F(LookupTest, LookupIsEnabledUnlessTheSharedDomainDisablesIt) {
  EXPECT_TRUE(lookup->lookupEnabled());
  Preferences shared(assembly->platform.paths.configDir, Lookup::kSharedDomain);
  shared.set(Lookup::kDisabledKey, Value(true));
  EXPECT_FALSE(lookup->lookupEnabled());
  shared.set(Lookup::kDisabledKey, Value(false));
  EXPECT_TRUE(lookup->lookupEnabled());
}

}  // namespace
}  // namespace vorlen
