#include "network/AppWhitelistSignature.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <zlib.h>

#include <random>

#include "base/Log.h"

namespace vorlen {
namespace {

std::vector<uint8_t> base64Decode(const std::string& text) {
  std::vector<uint8_t> out(text.size() / 4 * 3 + 3);
  int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                          static_cast<int>(text.size()));
  EXPECT_GE(n, 0);
  size_t pad = 0;
  for (auto it = text.rbegin(); it != text.rend() && *it == '='; ++it) ++pad;
  out.resize(static_cast<size_t>(n) - pad);
  return out;
}

std::array<uint8_t, 16> md5(std::span<const uint8_t> bytes) {
  std::array<uint8_t, 16> d{};
  unsigned int len = 0;
  EVP_Digest(bytes.data(), bytes.size(), d.data(), &len, EVP_md5(), nullptr);
  return d;
}

// The record of a signature, checked for what every record must hold: the CRC over bytes 4.., the MD5 tail
// of `bitmap` and the bitmap length. The payload decodes back to `bitmap`.
std::vector<uint8_t> checkedRecord(const std::string& signature, const std::vector<uint8_t>& bitmap) {
  std::vector<uint8_t> r = base64Decode(signature);
  EXPECT_GE(r.size(), 12u);
  if (r.size() < 12) return r;
  uLong crc = crc32(0L, r.data() + 4, static_cast<uInt>(r.size() - 4));
  EXPECT_EQ((uLong{r[0]} << 24 | uLong{r[1]} << 16 | uLong{r[2]} << 8 | r[3]), crc);
  EXPECT_EQ((size_t{r[6]} << 8 | r[7]), bitmap.size());
  auto digest = md5(bitmap);
  EXPECT_TRUE(std::equal(digest.begin() + 12, digest.end(), r.begin() + 8));
  std::vector<uint8_t> decoded(bitmap.size(), 0xee);
  std::span<const uint8_t> compressed(r.data() + 8, r.size() - 8);
  EXPECT_TRUE(rle_expand(compressed, decoded, 4, compressed.size() - 4, r[4] & 0x80));
  EXPECT_EQ(decoded, bitmap);
  return r;
}

std::string signatureFor(const std::vector<uint64_t>& ids, const std::string& version) {
  std::vector<uint8_t> bitmap = makeBitmap(ids), compressed;
  bool flag = rle_compress(bitmap, compressed);
  return makeSignature(static_cast<uint16_t>(bitmap.size()), compressed, flag, version).value_or("");
}

TEST(AppWhitelistSignatureTest, BitmapsOfTheEdgeIdSetsKeepTheMultipleOfEightRule) {
  struct Case {
    std::vector<uint64_t> ids;
    std::vector<uint8_t> bitmap;
    size_t recordSize;
  } cases[] = {
      {{0}, {}, 12},                   // ceil(0 * 0.125) = 0: empty payload
      {{1, 9}, {0x40, 0x40}, 14},      // L = 2, raw (8 payload bytes would not be smaller)
      {{8}, {0x00}, 13},               // the bit of 8 lies past the one byte and is dropped
      {{0, 7, 15}, {0x81, 0x01}, 14},  // 15 is not a multiple of 8: kept
      {{3, 16}, {0x10, 0x00}, 14},     // 16 is: its bit is dropped, 3 stays
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.ids));
    EXPECT_EQ(makeBitmap(c.ids), c.bitmap);
    std::vector<uint8_t> r = checkedRecord(signatureFor(c.ids, "00ff"), c.bitmap);
    EXPECT_EQ(r.size(), c.recordSize);
    EXPECT_EQ(r[4] & 0x80, 0) << "raw bitmaps carry flag 0";
  }
}

TEST(AppWhitelistSignatureTest, ThousandZeroBytesAreThirtyTwoCappedRuns) {
  std::vector<uint8_t> bitmap(1000, 0), payload;
  ASSERT_TRUE(encodeRun(bitmap, payload));
  ASSERT_EQ(payload.size(), 2u + 32 + 4);
  EXPECT_EQ(payload[0], 0);
  EXPECT_EQ(payload[1], 32);
  for (int i = 0; i < 31; ++i) EXPECT_EQ(payload[2 + i], 255) << "run " << i;
  EXPECT_EQ(payload[2 + 31], 63);  // 8000 - 31 * 256 = 64 bits
  for (int i = 0; i < 4; ++i) EXPECT_EQ(payload[34 + i], 0);

  std::vector<uint8_t> r = checkedRecord(signatureFor({8000}, "0a1b"), std::vector<uint8_t>(1000, 0));
  EXPECT_EQ(r.size(), 12u + 38);
  EXPECT_EQ(r[4], 0x8a);
}

TEST(AppWhitelistSignatureTest, VersionBytesCarryTheCompressionFlag) {
  std::vector<uint8_t> raw = base64Decode(signatureFor({1, 9}, "0a1b"));
  EXPECT_EQ(raw[4], 0x0a);
  EXPECT_EQ(raw[5], 0x1b);
  std::vector<uint8_t> compressed = base64Decode(signatureFor({4000}, "0a1b"));
  EXPECT_EQ(compressed[4], 0x8a);
  EXPECT_EQ(compressed[5], 0x1b);
  // Only the last two bytes count; a short version leaves zeros; upper-case digits read as hex.
  EXPECT_EQ(base64Decode(signatureFor({1, 9}, "ffff0A1B"))[4], 0x0a);
  std::vector<uint8_t> shortVersion = base64Decode(signatureFor({1, 9}, "7f"));
  EXPECT_EQ(shortVersion[4], 0);
  EXPECT_EQ(shortVersion[5], 0x7f);
}

TEST(AppWhitelistSignatureTest, OddOrNonHexVersionsGiveNoSignature) {
  ScopedLogCapture capture;
  for (const char* version : {"0a1", "1", "0g1b", "0a 1", "zz"}) {
    SCOPED_TRACE(version);
    EXPECT_FALSE(makeSignature(0, std::vector<uint8_t>(4), false, version));
  }
  EXPECT_EQ(capture.sink().records().size(), 5u);
}

TEST(AppWhitelistSignatureTest, RandomBitmapsRoundTripAndTheDecoderPositionWrapsAt256Bytes) {
  std::mt19937 random(17);
  for (int round = 0; round < 200; ++round) {
    std::vector<uint8_t> bitmap(random() % 256);
    const bool sparse = round % 2;
    for (uint8_t& b : bitmap) b = sparse ? (random() % 16 == 0 ? 0x10 : 0) : static_cast<uint8_t>(random());
    std::vector<uint8_t> compressed;
    bool flag = rle_compress(bitmap, compressed);
    std::vector<uint8_t> decoded(bitmap.size());
    ASSERT_TRUE(rle_expand(compressed, decoded, 4, compressed.size() - 4, flag));
    ASSERT_EQ(decoded, bitmap) << "round " << round;
  }
  // 300 bytes with one set byte at 260: the decoder writes it at 260 - 256.
  std::vector<uint8_t> bitmap(300, 0), compressed;
  bitmap[260] = 0xff;
  ASSERT_TRUE(rle_compress(bitmap, compressed));
  std::vector<uint8_t> decoded(300);
  ASSERT_TRUE(rle_expand(compressed, decoded, 4, compressed.size() - 4, true));
  EXPECT_EQ(decoded[4], 0xff);
  EXPECT_EQ(decoded[260], 0);
}

TEST(AppWhitelistSignatureTest, ExpandRejectsRecordsThatLieAboutTheirSize) {
  std::vector<uint8_t> out(1);
  struct Case {
    const char* what;
    std::vector<uint8_t> record;
    size_t length;
  } cases[] = {
      {"count disagrees with length", {0, 0, 0, 0, 0, 2, 1, 1, 0xc0}, 4},
      {"length beyond the record", {0, 0, 0, 0, 0, 1, 7, 0x80}, 40},
      {"run longer than the output", {0, 0, 0, 0, 0, 1, 255, 0x80}, 4},
      {"too short for a count", {0, 0, 0, 0, 0}, 1},
  };
  for (const Case& c : cases) {
    EXPECT_FALSE(rle_expand(c.record, out, 4, c.length, true)) << c.what;
  }
  EXPECT_FALSE(rle_expand(std::vector<uint8_t>{1, 2}, out, 4, 0, false))
      << "raw record shorter than the output";
  std::vector<uint8_t> ok{0, 0, 0, 0, 0, 1, 7, 0x80};
  EXPECT_TRUE(rle_expand(ok, out, 4, 4, true));
  EXPECT_EQ(out[0], 0xff);
}

// ---- The whole file.

std::string allowList(const std::string& inner, const std::string& compression = "RLE",
                      const std::string& encoding = "bitmap") {
  nlohmann::json outer{{"apps", inner}, {"compression", compression}, {"encoding", encoding}};
  return outer.dump();
}

std::optional<std::string> process(const std::string& file, const std::vector<InstalledApplication>& apps) {
  return processWhitelist(std::span(reinterpret_cast<const uint8_t*>(file.data()), file.size()), apps);
}

const std::vector<InstalledApplication> kInstalled = {
    {"org.example.Notes", "1.2"}, {"org.example.Maps", "3"}, {"org.example.NoVersion", ""}};

TEST(AppWhitelistSignatureTest, FileGivesTheSignatureOfTheInstalledListedApps) {
  std::string inner = R"({"version": "0a1b", "apps": {
      "org.example.Notes": [{"x": 1}, {"encoding_id": 9}],
      "org.example.Maps": [{"encoding_id": 1.0}],
      "org.example.NoVersion": [{"encoding_id": 3}],
      "org.example.Absent": [{"encoding_id": 5}]}})";
  auto signature = process(allowList(inner), kInstalled);
  ASSERT_TRUE(signature);
  EXPECT_EQ(*signature, signatureFor({1, 9}, "0a1b"));
  checkedRecord(*signature, {0x40, 0x40});
}

TEST(AppWhitelistSignatureTest, BadFilesGiveNoSignatureAndALogLine) {
  const std::string good = R"({"version": "0a1b", "apps": {"org.example.Notes": [{"encoding_id": 9}]}})";
  // A file whose one entry is for an installed app: `entry` is its JSON, `version` the inner version.
  auto notes = [](const std::string& entry, const std::string& version = "0a1b") {
    return allowList(R"({"version": ")" + version + R"(", "apps": {"org.example.Notes": )" + entry + "}}");
  };
  std::string deep(1 << 20, '[');
  struct Case {
    const char* what;
    std::string file;
  } cases[] = {
      {"not JSON", "{\"apps\": "},
      {"array root", "[1, 2]"},
      {"apps not a string", R"({"apps": {}, "compression": "RLE", "encoding": "bitmap"})"},
      {"other compression", allowList(good, "ZIP")},
      {"other encoding", allowList(good, "RLE", "list")},
      {"missing encoding", R"({"apps": "{}", "compression": "RLE"})"},
      {"inner not JSON", allowList("{\"version\": ")},
      {"inner version a number", allowList(R"({"version": 10, "apps": {}})")},
      {"inner apps an array", allowList(R"({"version": "0a1b", "apps": []})")},
      {"entry not an array", notes(R"({"encoding_id": 9})")},
      {"last element not an object", notes(R"([{"encoding_id": 9}, 4])")},
      {"id a string", notes(R"([{"encoding_id": "9"}])")},
      {"negative id", notes(R"([{"encoding_id": -9}])")},
      {"huge id", notes(R"([{"encoding_id": 1e12}])")},
      {"huge integer id", notes(R"([{"encoding_id": 18446744073709551615}])")},
      {"fractional id", notes(R"([{"encoding_id": 1.5}])")},
      {"odd version", notes(R"([{"encoding_id": 9}])", "0a1")},
      {"non-hex version", notes(R"([{"encoding_id": 9}])", "0x1b")},
      {"a megabyte of nesting", deep},
      {"deep nesting inside the apps text", allowList(std::string(100000, '{'))},
      {"invalid UTF-8",
       std::string("{\"apps\": \"\xff\", \"compression\": \"RLE\", \"encoding\": \"bitmap\"}")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ScopedLogCapture capture;
    EXPECT_FALSE(process(c.file, kInstalled));
    bool logged = false;
    for (const LogRecord& r : capture.sink().records()) logged = logged || r.level >= LogLevel::Error;
    EXPECT_TRUE(logged);
  }
  // The largest id whose bitmap length fits 16 bits is accepted.
  EXPECT_TRUE(process(notes(R"([{"encoding_id": 524279}])"), kInstalled));
}

// The file reader keeps only installed apps' entries while it parses; it must answer exactly what the
// rules give on the whole parsed document.
std::optional<std::string> referenceSignature(const std::string& inner,
                                              const std::vector<InstalledApplication>& installed) {
  nlohmann::json doc = nlohmann::json::parse(inner, nullptr, false);
  if (doc.is_discarded() || !doc.is_object()) return std::nullopt;
  auto version = doc.find("version");
  auto apps = doc.find("apps");
  if (version == doc.end() || !version->is_string() || apps == doc.end() || !apps->is_object())
    return std::nullopt;
  std::vector<uint64_t> ids = findWhitelistedApplications(*apps, installed);
  if (ids.empty()) return std::nullopt;
  std::vector<uint8_t> bitmap = makeBitmap(ids), compressed;
  bool flag = rle_compress(bitmap, compressed);
  return makeSignature(static_cast<uint16_t>(bitmap.size()), compressed, flag, version->get<std::string>());
}

TEST(AppWhitelistSignatureTest, ReadingOnlyInstalledEntriesAgreesWithTheWholeDocument) {
  ScopedLogCapture quiet;
  const char* inners[] = {
      R"({"version": "0a1b", "apps": {"org.example.Notes": [{"encoding_id": 9}], "org.example.Maps": []}})",
      R"({"version": "0a1b", "apps": {"org.example.Notes": [{"encoding_id": 9}, [1]]}})",
      R"({"version": "0a1b", "apps": {"org.example.Notes": [{"encoding_id": 9}, {"encoding_id": {"n": 3}}]}})",
      R"({"version": "0a1b", "apps": {"org.example.Notes": [{"encoding_id": 9, "encoding_id": 4}]}})",
      R"({"version": "0a1b", "apps": {"org.example.Notes": [{"encoding_id": 9}], "org.example.Notes": 5}})",
      R"({"version": "0a1b", "apps": {"org.example.Notes": [{"deep": {"encoding_id": 2}}, {"x": [{"encoding_id": 1}], "encoding_id": 12}]}})",
      R"({"apps": {"org.example.Maps": [{"encoding_id": 3}]}, "version": "0a1b", "apps": {"org.example.Notes": [{"encoding_id": 1}]}})",
      R"({"apps": {"org.example.Maps": [{"encoding_id": 3}]}, "apps": 1, "version": "0a1b"})",
      R"({"version": "0a1b", "other": {"org.example.Notes": [{"encoding_id": 30}]}, "apps": {"org.example.Maps": [{"encoding_id": 7}]}})",
      R"({"version": "0a1b", "apps": {"org.example.Maps": [{"encoding_id": 7}]}, "other": {"org.example.Notes": [{"encoding_id": 30}]}})",
      R"({"version": 3, "apps": {"org.example.Maps": [{"encoding_id": 7}]}, "version": "0a1b"})",
      R"({"version": "0a1b", "apps": {"org.example.Maps": [{"encoding_id": 7}]}, "version": ["0a1b"]})",
      R"({"version": "0a1b", "apps": {"org.example.Maps": {"encoding_id": 7}, "org.example.Notes": [{"encoding_id": "7"}]}})",
      R"({"version": "0a1b", "apps": {"org.example.NoVersion": [{"encoding_id": 7}], "org.example.Maps": [null, {"encoding_id": 2.0}]}})",
      R"([{"version": "0a1b"}])",
  };
  for (const char* inner : inners) {
    SCOPED_TRACE(inner);
    std::string file = allowList(inner);
    EXPECT_EQ(process(file, kInstalled), referenceSignature(inner, kInstalled));
  }
}

// The outer document is read without building it: its rules must still be those of the parsed document
// (a later duplicate key wins whatever its type; other keys may hold anything).
TEST(AppWhitelistSignatureTest, OuterDocumentReadInOnePassKeepsTheParsedDocumentRules) {
  ScopedLogCapture quiet;
  const std::string inner =
      nlohmann::json(R"({"version": "0a1b", "apps": {"org.example.Notes": [{"encoding_id": 9}]}})").dump();
  const std::string expected = signatureFor({9}, "0a1b");
  struct Case {
    std::string outer;
    bool signs;
  } cases[] = {
      {R"({"apps": 1, "compression": "RLE", "encoding": "bitmap", "apps": )" + inner + "}", true},
      {R"({"apps": )" + inner + R"(, "compression": "RLE", "encoding": "bitmap", "apps": null})", false},
      {R"({"apps": )" + inner + R"(, "compression": "RLE", "encoding": "bitmap", "compression": ["RLE"]})",
       false},
      {R"({"encoding": "list", "apps": )" + inner + R"(, "compression": "RLE", "encoding": "bitmap"})", true},
      {R"({"x": {"apps": "{}", "encoding": [[["bitmap"]]]}, "apps": )" + inner +
           R"(, "compression": "RLE", "encoding": "bitmap"})",
       true},
      {R"({"apps": )" + inner + R"(, "compression": "RLE", "encoding": "bitmap"} trailing)", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.outer);
    EXPECT_EQ(process(c.outer, kInstalled), c.signs ? std::optional(expected) : std::nullopt);
  }
}

}  // namespace
}  // namespace vorlen
