// The compressing stream: what it writes is a finished raw DEFLATE stream of exactly the input (checked
// by zlib here and by Python's zlib and hashlib, which share no code with the stream), in every way the
// input can be split, and it fails loudly when its destination does.
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "storage/CompressedOutputStream.h"
#include "storage/NullStream.h"
#include "storage/OutputStreamBuffer.h"
#include "support/Deflate.h"

namespace vorlen {
namespace {

using test::inflateRaw;

// Collects what is written; can be told to fail after some bytes.
class MemoryStream final : public OutputStream {
 public:
  explicit MemoryStream(size_t failAfter = SIZE_MAX) : failAfter_(failAfter) {}
  void open() override { opened = true; }
  ssize_t write(const uint8_t* buffer, size_t length) override {
    if (bytes.size() + length > failAfter_) {
      error = 28;  // ENOSPC
      return -1;
    }
    bytes.insert(bytes.end(), buffer, buffer + length);
    ++writes;
    return static_cast<ssize_t>(length);
  }
  void close() override { closed = true; }
  std::optional<int> streamError() const override { return error; }

  std::vector<uint8_t> bytes;
  size_t writes = 0;
  bool opened = false, closed = false;
  std::optional<int> error;

 private:
  size_t failAfter_;
};

// Mixed text and noise, so that output spans many 4096-byte rounds.
std::string payload(size_t bytes) {
  std::mt19937 rng(7);
  std::string out;
  while (out.size() < bytes) {
    out += "{\"type\":\"search_start\",\"input\":\"weather in " + std::to_string(rng() % 1000) + "\"},";
    for (int i = 0; i < 24; ++i) out += static_cast<char>(rng() & 0xff);
  }
  out.resize(bytes);
  return out;
}

struct Compressed {
  std::vector<uint8_t> bytes;
  std::string digest;
};

// Compresses `input`, written in pieces of `piece` bytes.
Compressed compress(const std::string& input, size_t piece) {
  auto sink = std::make_shared<MemoryStream>();
  CompressedOutputStream stream(sink);
  stream.open();
  for (size_t at = 0; at < input.size(); at += piece) {
    size_t n = std::min(piece, input.size() - at);
    EXPECT_EQ(stream.write(reinterpret_cast<const uint8_t*>(input.data() + at), n), static_cast<ssize_t>(n));
  }
  stream.close();
  EXPECT_TRUE(sink->opened);
  EXPECT_TRUE(sink->closed);
  EXPECT_EQ(stream.status(), CompressedOutputStream::kStatusEnd);
  EXPECT_FALSE(stream.streamError());
  return {sink->bytes, stream.dataDigestForStream()};
}

TEST(CompressedOutputStreamTest, EmptyPayloadIsAFinishedStreamWithTheDigestOfNothing) {
  Compressed c = compress("", 1);
  EXPECT_FALSE(c.bytes.empty());
  EXPECT_EQ(inflateRaw(c.bytes), std::optional<std::string>(""));
  EXPECT_EQ(c.digest,
            "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce"
            "47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417a81a538327af927da3e");
}

TEST(CompressedOutputStreamTest, OutputInflatesToTheInputHoweverItIsSplit) {
  const std::string input = payload(300000);
  std::string digest;
  for (size_t piece : {size_t{4095}, size_t{4096}, size_t{8192}, size_t{300000}}) {
    SCOPED_TRACE(piece);
    Compressed c = compress(input, piece);
    EXPECT_EQ(inflateRaw(c.bytes), input);
    if (digest.empty()) digest = c.digest;
    EXPECT_EQ(c.digest, digest);  // the split changes nothing
  }
  Compressed bytewise = compress(input.substr(0, 5000), 1);
  EXPECT_EQ(inflateRaw(bytewise.bytes), input.substr(0, 5000));
}

TEST(CompressedOutputStreamTest, FailingDestinationFailsTheStreamAndLaterWrites) {
  auto sink = std::make_shared<MemoryStream>(/*failAfter=*/100);
  CompressedOutputStream stream(sink);
  stream.open();
  const std::string input = payload(200000);  // compresses to far more than 100 bytes
  EXPECT_EQ(stream.write(reinterpret_cast<const uint8_t*>(input.data()), input.size()), -1);
  EXPECT_EQ(stream.status(), CompressedOutputStream::kStatusError);
  EXPECT_EQ(stream.streamError(), std::optional<int>(28));
  EXPECT_EQ(stream.write(reinterpret_cast<const uint8_t*>("x"), 1), -1);
  stream.close();
  EXPECT_TRUE(sink->closed);
}

TEST(CompressedOutputStreamTest, WritesAfterCloseFail) {
  auto sink = std::make_shared<MemoryStream>();
  CompressedOutputStream stream(sink);
  stream.open();
  stream.close();
  EXPECT_EQ(stream.write(reinterpret_cast<const uint8_t*>("x"), 1), -1);
}

// JSON serialised through the streambuf arrives whole, and a stream over NullStream digests the same
// bytes as one that keeps them.
TEST(CompressedOutputStreamTest, SerialisingThroughTheBufferMatchesTheSerialisedText) {
  nlohmann::ordered_json record = {{"fb", nlohmann::ordered_json::array()},
                                   {"agent", std::string(5000, 'a')}};
  for (int i = 0; i < 500; ++i) record["fb"].push_back({{"type", "search_start"}, {"timestamp", i}});
  auto kept = std::make_shared<MemoryStream>();
  CompressedOutputStream keeping(kept);
  CompressedOutputStream discarding(std::make_shared<NullStream>());
  for (CompressedOutputStream* s : {&keeping, &discarding}) {
    s->open();
    {
      OutputStreamBuffer buffer(*s);
      std::ostream out(&buffer);
      out << record;
      out.flush();
      EXPECT_TRUE(out);
    }
    s->close();
  }
  EXPECT_EQ(inflateRaw(kept->bytes), record.dump());
  EXPECT_EQ(keeping.dataDigestForStream(), discarding.dataDigestForStream());
}

}  // namespace
}  // namespace vorlen
