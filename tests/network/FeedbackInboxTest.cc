// The reference service's upload endpoints: what a body must be to count as a valid session record, and
// the reasons given for the rest.
#include <gtest/gtest.h>
#include <httplib.h>

#include "support/Deflate.h"
#include "vorlen-refserver/FeedbackInbox.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen {
namespace {

using test::deflateText;
using test::sha512Hex;

using Json = nlohmann::ordered_json;

Json validRecord() {
  return Json{
      {"fb",
       Json::array({Json{{"input", "weath"}, {"type", "search_start"}, {"timestamp", 0}},
                    Json{{"reason", "external request"}, {"type", "session_end"}, {"timestamp", 5210}}})},
      {"agent", "Vorlend/1.0 (test) Voyant/1"},
      {"user_guid", "1B4E28BA-2FA1-41D2-883F-0016D3CCA427"},
      {"resource_versions", Json::object()},
      {"first_use", true},
      {"base_time", 1767268800},
      {"previous_session_end_reason", "no previous session"}};
}

struct Upload {
  std::string endpoint = "feedback";
  std::optional<std::string> version = "2";
  std::string encoding = "deflate";
  std::string digest;
  std::string body;
};

Upload uploadOf(const std::string& text) {
  Upload u;
  u.digest = sha512Hex(text);
  u.body = deflateText(text);
  return u;
}

struct Case {
  const char* name;
  std::function<void(Upload&)> spoil;
  const char* reason;  // a part of the reason; "" for a valid upload
};

TEST(FeedbackInboxTest, ChecksEncodingDigestAndRecordFormat) {
  auto withRecord = [](std::function<void(Json&)> edit) {
    return [edit](Upload& u) {
      Json r = validRecord();
      edit(r);
      u = uploadOf(r.dump());
    };
  };
  const std::vector<Case> cases = {
      {"valid", [](Upload&) {}, ""},
      {"crowdsourcing needs no version",
       [](Upload& u) {
         u.endpoint = "crowdsourcing";
         u.version.reset();
       },
       ""},
      {"feedback without v=2", [](Upload& u) { u.version.reset(); }, "v=2"},
      {"not deflate", [](Upload& u) { u.encoding = "gzip"; }, "Content-Encoding"},
      {"zlib wrapper", [](Upload& u) { u.body = deflateText(validRecord().dump(), 15); }, "raw deflate"},
      {"cut short", [](Upload& u) { u.body.resize(u.body.size() / 2); }, "cut short"},
      {"bytes after the end", [](Upload& u) { u.body += "junk"; }, "after the end"},
      {"digest of other bytes", [](Upload& u) { u.digest = sha512Hex("other"); }, "does not match"},
      {"digest in capitals",
       [](Upload& u) {
         for (char& c : u.digest) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
       },
       "lowercase"},
      {"not JSON", [](Upload& u) { u = uploadOf("{\"fb\": ["); }, "not JSON"},
      {"keys out of order", withRecord([](Json& r) {
         Json agent = r["agent"];
         r.erase("agent");
         r["agent"] = agent;
       }),
       "top-level keys"},
      {"unknown event type", withRecord([](Json& r) { r["fb"][0]["type"] = "search_started"; }),
       "not a known event type"},
      {"timestamp not last", withRecord([](Json& r) { r["fb"][0]["extra"] = 1; }), "does not end with"},
      {"negative timestamp", withRecord([](Json& r) { r["fb"][1]["timestamp"] = -5; }), "unsigned"},
      {"unknown end reason", withRecord([](Json& r) { r["previous_session_end_reason"] = "bored"; }),
       "previous_session_end_reason"},
      {"first_use as text", withRecord([](Json& r) { r["first_use"] = "yes"; }), "first_use"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Upload u = uploadOf(validRecord().dump());
    c.spoil(u);
    FeedbackInbox::Check got = FeedbackInbox::check(u.endpoint, u.version, u.encoding, u.digest, u.body);
    if (*c.reason == '\0') {
      EXPECT_TRUE(got.valid) << got.reason;
      EXPECT_EQ(got.record, validRecord());
    } else {
      EXPECT_FALSE(got.valid);
      EXPECT_NE(got.reason.find(c.reason), std::string::npos) << got.reason;
    }
  }
}

}  // namespace
}  // namespace vorlen
