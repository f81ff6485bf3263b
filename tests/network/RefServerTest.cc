#include "vorlen-refserver/RefServer.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "base/Log.h"
#include "network/HttpTestSupport.h"

namespace vorlen {
namespace {

using test::CompletionProbe;

class RefServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.start());
    HttpSessionSettings s;
    s.name = "refserver-test";
    session = HttpSession::create(s);
    bagSession = HttpSession::create(s);
  }

  CompletionProbe::Call send(const std::string& method, const std::string& path, std::string body = {}) {
    HttpRequest r;
    r.method = method;
    r.url = server.baseURL() + path;
    r.body.assign(body.begin(), body.end());
    CompletionProbe probe;
    // Bag requests go on a session of their own: a request dropped on a reused connection would be sent
    // again by the client, and the /bag count is meant to be the number of attempts.
    (path == "/bag" ? bagSession : session)->dataTask(r, probe.handler())->resume();
    EXPECT_TRUE(probe.waitFor(1));
    return probe.last();
  }

  nlohmann::json json(const CompletionProbe::Call& call) {
    return nlohmann::json::parse(test::text(call.data), nullptr, false);
  }

  RefServer server;
  std::shared_ptr<HttpSession> session, bagSession;
};

TEST_F(RefServerTest, BadControlDocumentsAreRefusedWithALogLine) {
  ScopedLogCapture capture;
  for (const char* bad : {"not json", "[]", R"({"mode": "explode"})", R"({"mode": 3})", R"({"status": "x"})",
                          R"({"status": 42})", R"({"delay_ms": -1})", R"({"version": []})"}) {
    auto call = send("POST", "/_control/bag", bad);
    EXPECT_EQ(call.response->status, 400) << bad;
  }
  EXPECT_EQ(capture.sink().records().size(), 8u);
  EXPECT_TRUE(capture.sink().contains("refserver: rejecting bag control: not a JSON object"));
  EXPECT_TRUE(capture.sink().contains("refserver: rejecting bag control: unknown mode \"explode\""));
  EXPECT_EQ(server.bagControl().mode, RefServer::BagMode::Ok);  // unchanged
}

TEST_F(RefServerTest, SearchCompletesTypedTextFromTheCorpus) {
  auto ne = json(send("GET", "/search?q=Ne"));
  ASSERT_TRUE(ne.is_object());
  // The most popular entry beginning with "ne" is the completed query; suggestions are best first.
  EXPECT_EQ(ne["query"], "news");
  EXPECT_EQ(ne["status"], "OK");
  EXPECT_EQ(ne["max_age"], 300);
  EXPECT_DOUBLE_EQ(ne["completion_score"].get<double>(), 0.97);
  ASSERT_GE(ne["suggestions"].size(), 3u);
  double previous = 2;
  for (const auto& s : ne["suggestions"]) {
    EXPECT_EQ(s["suggestion"].get<std::string>().rfind("ne", 0), 0u) << s.dump();
    EXPECT_LE(s["score"].get<double>(), previous);
    previous = s["score"].get<double>();
  }
  // Continued typing along a longer entry completes to it.
  EXPECT_EQ(json(send("GET", "/search?q=new%20y"))["query"], "new york times");
  // Text that nothing extends is its own completion, with score 0.
  auto none = json(send("GET", "/search?q=zzqx"));
  EXPECT_EQ(none["query"], "zzqx");
  EXPECT_EQ(none["completion_score"], 0.0);
  EXPECT_TRUE(none["suggestions"].empty());

  // The user's own completions lead: one that extends the text is the completed query and the first
  // suggestion, marked local, and is not listed twice; ones that do not extend it are ignored.
  auto local = json(send("GET", "/search?q=new&lc=new%20york%20marathon:weather:"));
  EXPECT_EQ(local["query"], "new york marathon");
  ASSERT_GE(local["suggestions"].size(), 2u);
  EXPECT_EQ(local["suggestions"][0]["suggestion"], "new york marathon");
  EXPECT_EQ(local["suggestions"][0]["local"], true);
  size_t marathons = 0;
  for (const auto& s : local["suggestions"]) {
    marathons += s["suggestion"] == "new york marathon";
    EXPECT_NE(s["suggestion"], "weather");
  }
  EXPECT_EQ(marathons, 1u);
  EXPECT_EQ(local["results"][0]["title"], "new york marathon - result 1");
}

TEST_F(RefServerTest, OneSearchEndpointTellsZeroKeywordAndLookUpApart) {
  auto zkw = json(send("GET", "/search?qtype=zkw"));
  EXPECT_EQ(zkw["query"], "");
  EXPECT_EQ(zkw["suggestions"].size(), 5u);
  auto lookup = json(send("GET", "/search?q=Serendipity&ltype=explicit"));
  ASSERT_TRUE(lookup.is_array());  // sections
  EXPECT_EQ(lookup[0]["query"], "serendipity");
  EXPECT_TRUE(lookup[0]["results"][0].contains("definition"));
  EXPECT_EQ(lookup[0]["results"][1]["lookup_instructions"]["completion"], "serendipity");
  EXPECT_EQ(json(send("GET", "/more?q=news"))["results"].size(), 5u);
  EXPECT_EQ(json(send("GET", "/card?q=news"))["card"]["title"], "news");
  auto flight = json(send("GET", "/flight?q=VL-123"));
  ASSERT_EQ(flight["flights"].size(), 1u);
  EXPECT_EQ(flight["flights"][0]["carrier_code"], "VL");
  EXPECT_EQ(flight["flights"][0]["flight_number"], "123");
  EXPECT_TRUE(json(send("GET", "/flight?q=VL-1-2"))["flights"].empty());
  auto warm = send("GET", "/warm");
  EXPECT_EQ(warm.response->status, 200);
  EXPECT_TRUE(warm.data.empty());
  EXPECT_EQ(server.requestCount("/search"), 2u);
}

TEST_F(RefServerTest, SearchControlAndPerRequestItemsShapeTheAnswers) {
  ASSERT_EQ(send("POST", "/_control/search",
                 R"({"max_age": 0, "force_fetch": "{\"bag\": 10}", "server_timing": true})")
                .response->status,
            200);
  auto call = send("GET", "/search?q=we");
  EXPECT_EQ(json(call)["max_age"], 0);
  EXPECT_EQ(call.response->header("X-Velmo-ForceFetch").value_or(""), R"({"bag": 10})");
  auto timing =
      nlohmann::json::parse(call.response->header("X-Velmo-Server-Timing").value_or(""), nullptr, false);
  ASSERT_TRUE(timing.is_array());
  EXPECT_EQ(timing[0]["status"], "OK");
  EXPECT_TRUE(timing[0]["duration"].is_number());

  send("POST", "/_control/search", R"({"status": 503})");
  EXPECT_EQ(send("GET", "/more?q=news").response->status, 503);
  // A per-request item wins over the control document.
  EXPECT_EQ(send("GET", "/more?q=news&ref_status=200").response->status, 200);
  EXPECT_EQ(send("GET", "/card?q=news&ref_status=404").response->status, 404);
  EXPECT_EQ(send("GET", "/search?q=news&ref_drop=1").error->code, HttpError::kNetworkConnectionLost);

  for (const char* bad : {R"({"status": 42})", R"({"max_age": "x"})", R"({"force_fetch": 1})", "[]"}) {
    EXPECT_EQ(send("POST", "/_control/search", bad).response->status, 400) << bad;
  }
  EXPECT_EQ(server.searchControl().status, 503);  // refused documents change nothing
}

}  // namespace
}  // namespace vorlen
