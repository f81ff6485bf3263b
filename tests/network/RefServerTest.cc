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

TEST_F(RefServerTest, BagPointsBackAtTheServer) {
  EXPECT_EQ(server.baseURL(), "http://127.0.0.1:" + std::to_string(server.port()));
  auto call = send("GET", "/bag");
  ASSERT_EQ(call.response->status, 200);
  auto bag = json(call);
  ASSERT_TRUE(bag.is_object());
  const std::string base = server.baseURL();
  EXPECT_EQ(bag["version"], "1");
  EXPECT_EQ(bag["search_url"], base + "/search");
  EXPECT_EQ(bag["more_results_url"], base + "/more");
  EXPECT_EQ(bag["card_url"], base + "/card");
  EXPECT_EQ(bag["flight_url"], base + "/flight");
  EXPECT_EQ(bag["warm_url"], base + "/warm");
  EXPECT_EQ(bag["feedback_url"], base + "/feedback");
  EXPECT_EQ(bag["crowdsourcing_url"], base + "/crowdsourcing");
  EXPECT_EQ(test::text(call.data), server.bagBody());
}

TEST_F(RefServerTest, ControlEndpointSwitchesTheBagFailureModes) {
  ASSERT_EQ(send("POST", "/_control/bag", R"({"mode": "status", "status": 503})").response->status, 200);
  auto failing = send("GET", "/bag");
  EXPECT_EQ(failing.response->status, 503);

  send("POST", "/_control/bag", R"({"mode": "array"})");
  EXPECT_EQ(test::text(send("GET", "/bag").data), "[]");
  send("POST", "/_control/bag", R"({"mode": "empty"})");
  auto empty = send("GET", "/bag");
  EXPECT_EQ(empty.response->status, 200);
  EXPECT_TRUE(empty.data.empty());
  send("POST", "/_control/bag", R"({"mode": "drop"})");
  EXPECT_EQ(send("GET", "/bag").error->code, HttpError::kNetworkConnectionLost);
  EXPECT_EQ(server.requestCount("/bag"), 4u);  // the dropped request arrived once
  send("POST", "/_control/bag", R"({"mode": "ok", "version": 10})");
  EXPECT_EQ(json(send("GET", "/bag"))["version"], "10");
  EXPECT_EQ(server.requestCount("/bag"), 5u);
}

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

TEST_F(RefServerTest, CompressedUploadBodiesAreRecordedAsSent) {
  HttpRequest r;
  r.method = "POST";
  r.url = server.baseURL() + "/feedback";
  r.headers["Content-Encoding"] = "deflate";
  r.body = {0x4b, 0x4c, 0x04, 0x00};  // raw DEFLATE of "aa", which a zlib reader would refuse
  CompletionProbe probe;
  session->dataTask(r, probe.handler())->resume();
  ASSERT_TRUE(probe.waitFor(1));
  auto recorded = server.requests();
  ASSERT_EQ(recorded.size(), 1u);
  EXPECT_EQ(recorded[0].body, std::string("\x4b\x4c\x04\x00", 4));
  EXPECT_EQ(recorded[0].header("content-encoding"), "deflate");
}

TEST_F(RefServerTest, RequestsAreRecordedWithSortedDecodedItemsUntilCleared) {
  send("GET", "/search?q=a%3Bb&B=2&a=1&q=0");
  send("POST", "/feedback", "payload");
  auto recorded = server.requests();
  ASSERT_EQ(recorded.size(), 2u);
  EXPECT_EQ(recorded[0].path, "/search");
  EXPECT_EQ(recorded[0].rawQuery, "q=a%3Bb&B=2&a=1&q=0");
  EXPECT_EQ(recorded[0].queryItems, (std::vector<std::pair<std::string, std::string>>{
                                        {"B", "2"}, {"a", "1"}, {"q", "0"}, {"q", "a;b"}}));
  EXPECT_EQ(recorded[1].method, "POST");
  EXPECT_EQ(recorded[1].body, "payload");
  EXPECT_EQ(server.requestCount("/search"), 1u);

  auto listed = json(send("GET", "/_requests"));
  ASSERT_TRUE(listed.is_array());
  ASSERT_EQ(listed.size(), 2u);  // control and listing requests are not recorded
  EXPECT_EQ(listed[0]["query_items"][1], nlohmann::json::array({"a", "1"}));
  EXPECT_EQ(listed[1]["body_base64"], "cGF5bG9hZA==");
  EXPECT_EQ(json(send("GET", "/_counts"))["/feedback"], 1);

  EXPECT_EQ(send("DELETE", "/_requests").response->status, 204);
  EXPECT_TRUE(server.requests().empty());
  EXPECT_EQ(server.requestCount("/search"), 0u);
}

}  // namespace
}  // namespace vorlen
