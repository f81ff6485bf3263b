#include "base/Archive.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <limits>

#include "base/Log.h"
#include "support/PlistBomb.h"
#include "support/TempDir.h"

namespace vorlen {
namespace {

using namespace std::chrono;

Time unixTime(double seconds) {
  return fromUnixSeconds(seconds);
}
Time unixMicros(int64_t us) {
  return Time(duration_cast<Time::duration>(microseconds(us)));
}

std::span<const uint8_t> bytesOf(const std::string& s) {
  return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

// Every type the model knows, with the awkward corners of each.
Value sampleValue() {
  return Value::dict({
      {"ascii", "plain text"},
      {"unicode", "h\u00e9llo w\u00f6rld \U0001F600 \u65e5\u672c"},
      {"long", std::string(300, 'x')},
      {"empty", ""},
      {"small", 7},
      {"wide", int64_t{1} << 40},
      {"negative", -42},
      {"int64min", std::numeric_limits<int64_t>::min()},
      {"uint64max", std::numeric_limits<uint64_t>::max()},
      {"twoTo63", uint64_t{1} << 63},
      {"real", 0.1},
      {"huge", -2.5e300},
      {"yes", true},
      {"no", false},
      {"date", unixMicros(1709210096789012)},       // 2024-02-29T12:34:56.789012Z
      {"before2001", unixMicros(978307199500000)},  // half a second before the epoch of dates
      {"after2069", unixMicros(7258118400500000)},  // 2200-01-01T00:00:00.5Z
      {"data", Value::Data{0x00, 0x01, 0xfe, 0xff}},
      {"noData", Value::Data{}},
      {"list", Value::array({1, "two", Value::array({true, false}), Value::Dict{}})},
      {"record", Value::record("VORError").set("code", 500).set("domain", "VORErrorDomain")},
  });
}

TEST(ArchiveTest, BinaryRoundTripKeepsEveryTypeAndValue) {
  Value v = sampleValue();
  std::string error;
  auto back = Archive::decodeBinary(Archive::encodeBinary(v), &error);
  ASSERT_TRUE(back) << error;
  EXPECT_EQ(*back, v) << back->describe();
  EXPECT_EQ(back->find("uint64max")->type(), Value::Type::UInt);
  EXPECT_EQ(back->find("twoTo63")->getUInt(), uint64_t{1} << 63);
  EXPECT_EQ(back->find("negative")->getInt(), -42);
  EXPECT_EQ(back->find("int64min")->type(), Value::Type::Int);
  EXPECT_EQ(back->find("before2001")->getDate(), unixMicros(978307199500000));
  EXPECT_EQ(back->find("record")->className(), "VORError");
}

TEST(ArchiveTest, XmlRoundTripKeepsEveryTypeWithDatesInWholeSeconds) {
  Value v = sampleValue();
  std::string xml = Archive::encodeXML(v);
  EXPECT_NE(xml.find("<integer>18446744073709551615</integer>"), std::string::npos);
  auto back = Archive::decodeXML(xml);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->find("date")->getDate(), unixTime(1709210096));
  EXPECT_EQ(back->find("after2069")->getDate(), unixTime(7258118400));
  Value expected = v;
  for (const char* key : {"date", "before2001", "after2069"}) expected.set(key, *back->find(key));
  EXPECT_EQ(*back, expected) << back->describe();
}

TEST(ArchiveTest, ScalarRootsAndLargeContainersRoundTrip) {
  for (const Value& v : {Value("only"), Value(std::string("nul\0inside", 10)), Value(3.5), Value(false),
                         Value(std::numeric_limits<uint64_t>::max())}) {
    auto back = Archive::decodeBinary(Archive::encodeBinary(v));
    ASSERT_TRUE(back) << v.describe();
    EXPECT_EQ(*back, v);
  }
  // Enough objects and bytes that object references and offsets need 4 bytes.
  Value::Array items;
  for (int i = 0; i < 70000; ++i) items.push_back(i % 3 == 0 ? Value(i) : Value("item " + std::to_string(i)));
  Value big(items);
  auto back = Archive::decodeBinary(Archive::encodeBinary(big));
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, big);
}

TEST(ArchiveTest, NullsAreLeftOutAndANullRootIsAnEmptyDictionary) {
  Value v = Value::dict({{"kept", 1}, {"gone", nullptr}, {"list", Value::array({1, nullptr, 2})}});
  auto back = Archive::decodeBinary(Archive::encodeBinary(v));
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, Value::dict({{"kept", 1}, {"list", Value::array({1, 2})}}));
  auto root = Archive::decodeBinary(Archive::encodeBinary(Value()));
  ASSERT_TRUE(root);
  EXPECT_EQ(*root, Value(Value::Dict{}));
}

TEST(ArchiveTest, InvalidUtf8IsWrittenAsReplacementCharacters) {
  auto back =
      Archive::decodeBinary(Archive::encodeBinary(Value(std::string("a\xff"
                                                                    "b\xc3"))));
  ASSERT_TRUE(back);
  EXPECT_EQ(*back->getString(),
            "a\uFFFD"
            "b\uFFFD");
}

TEST(ArchiveTest, DecodeChoosesTheFormatFromTheBytes) {
  Value v = Value::dict({{"k", Value::array({1, "x"})}});
  std::vector<uint8_t> bin = Archive::encodeBinary(v);
  std::string xml = Archive::encodeXML(v);
  EXPECT_EQ(Archive::decode(bin), v);
  EXPECT_EQ(Archive::decode(bytesOf(xml)), v);
  bin[7] = '1';  // "bplist01"
  std::string error;
  EXPECT_FALSE(Archive::decode(bin, &error));
  EXPECT_FALSE(error.empty());
}

// ---- Hostile input ----------------------------------------------------------------------------------------

// A binary property list from raw objects (1-byte references unless told), for shapes no encoder writes.
std::vector<uint8_t> assemble(const std::vector<std::vector<uint8_t>>& objects, uint8_t refWidth = 1,
                              uint64_t top = 0) {
  std::vector<uint8_t> out = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  std::vector<uint64_t> offsets;
  for (const auto& o : objects) {
    offsets.push_back(out.size());
    out.insert(out.end(), o.begin(), o.end());
  }
  uint64_t table = out.size();
  for (uint64_t o : offsets)
    for (int s = 24; s >= 0; s -= 8) out.push_back(uint8_t(o >> s));
  out.insert(out.end(), 6, 0);
  out.push_back(4);
  out.push_back(refWidth);
  for (uint64_t v : {uint64_t(objects.size()), top, table})
    for (int s = 56; s >= 0; s -= 8) out.push_back(uint8_t(v >> s));
  return out;
}

// An array object of 4-byte references.
std::vector<uint8_t> arrayOf(std::initializer_list<uint32_t> refs) {
  std::vector<uint8_t> o = {uint8_t(0xA0 | refs.size())};
  for (uint32_t r : refs)
    for (int s = 24; s >= 0; s -= 8) o.push_back(uint8_t(r >> s));
  return o;
}

std::vector<uint8_t> nestedArrays(uint32_t depth) {
  std::vector<std::vector<uint8_t>> objects;
  for (uint32_t i = 0; i < depth; ++i) objects.push_back(i + 1 < depth ? arrayOf({i + 1}) : arrayOf({}));
  return assemble(objects, 4);
}

std::string nestedXml(int depth, bool closed = true) {
  std::string s = "<?xml version=\"1.0\"?><plist version=\"1.0\">";
  for (int i = 0; i < depth; ++i) s += "<array>";
  if (closed)
    for (int i = 0; i < depth; ++i) s += "</array>";
  return s + "</plist>";
}

void expectRejected(std::span<const uint8_t> bytes, std::string_view reasonPart) {
  std::string error;
  EXPECT_FALSE(Archive::decode(bytes, &error));
  EXPECT_NE(error.find(reasonPart), std::string::npos) << "reason was: " << error;
}

TEST(ArchiveTest, NestingIsLimitedInBothFormatsEvenFarBeyondWhatLibplistSurvives) {
  EXPECT_TRUE(Archive::decode(nestedArrays(Archive::kMaxDepth)));
  expectRejected(nestedArrays(Archive::kMaxDepth + 1), "nesting deeper");
  expectRejected(nestedArrays(300000), "nesting deeper");

  EXPECT_TRUE(Archive::decodeXML(nestedXml(Archive::kMaxDepth)));
  expectRejected(bytesOf(nestedXml(Archive::kMaxDepth + 1)), "nesting deeper");
  expectRejected(bytesOf(nestedXml(300000)), "nesting deeper");
  expectRejected(bytesOf(nestedXml(300000, /*closed=*/false)), "nesting deeper");
  // Closing tags hidden where libplist does not see them must not hide the real depth.
  std::string hidden = "<plist>";
  for (int i = 0; i < 300; ++i) hidden += "<array><!-- </array> --><![CDATA[</array>]]>";
  expectRejected(bytesOf(hidden), "nesting deeper");
}

TEST(ArchiveTest, SharedReferencesCannotMultiplyIntoHugeTrees) {
  // Object i is [i+1, i+1]: 40 levels expand to 2^40 nodes from a few hundred bytes.
  std::vector<std::vector<uint8_t>> objects;
  for (uint32_t i = 0; i < 40; ++i) objects.push_back(arrayOf({i + 1, i + 1}));
  objects.push_back({0x09});
  expectRejected(assemble(objects, 4), "more than");

  // One 1 MiB string referenced 100 times: 100 MiB of payload.
  std::vector<uint8_t> blob = {0x5F, 0x12, 0x00, 0x10, 0x00, 0x00};
  blob.insert(blob.end(), 1 << 20, 'a');
  std::vector<uint8_t> wide = {0xAF, 0x10, 100};
  wide.insert(wide.end(), 100, 1);
  expectRejected(assemble({wide, blob}), "bytes of strings and data");

  // A million references to one short string stays inside the node and byte limits, but not inside a
  // decode budget: it is refused before libplist builds anything. The same budget takes plain data.
  std::vector<uint8_t> bomb = test::referenceBomb(1000000);
  std::string error;
  EXPECT_FALSE(Archive::decodeBinary(bomb, size_t{4} << 20, &error));
  EXPECT_EQ(error, "decodes to more than 4194304 bytes");
  EXPECT_TRUE(Archive::decodeBinary(Archive::encodeBinary(Value(Value::Data(bomb.size(), 1))),
                                    size_t{4} << 20, &error))
      << error;
}

TEST(ArchiveTest, MalformedBinaryStructuresAreRejectedWithAReason) {
  expectRejected(assemble({arrayOf({0})}, 4), "cycle");  // array holding itself
  expectRejected(assemble({arrayOf({7})}, 4), "reference out of range");
  expectRejected(assemble({{0x80, 0x01}}), "UID");
  expectRejected(assemble({{0x00}}), "unsupported object");  // null
  std::vector<uint8_t> wideNegative = {0x14};
  wideNegative.insert(wideNegative.end(), 16, 0xff);  // 16-byte -1
  expectRejected(assemble({wideNegative}), "integer out of range");
  expectRejected(assemble({{0x33, 0x7f, 0xf8, 0, 0, 0, 0, 0, 0}}), "invalid date");  // NaN
  expectRejected(assemble({{0xD1, 1, 2}, {0x10, 5}, {0x09}}), "key is not a string");
  expectRejected(assemble({{0xD1, 1, 2}, {0x53, 'a', 0, 'b'}, {0x09}}), "NUL");
  expectRejected(assemble({{0xD1, 1, 2}, {0x61, 0, 0}, {0x09}}), "NUL");
  std::vector<uint8_t> t = assemble({{0x09}});
  t[t.size() - 26] = 0;  // offset width 0
  expectRejected(t, "trailer");
}

TEST(ArchiveTest, MalformedXmlIsRejected) {
  expectRejected(bytesOf("<plist><dict><true/></dict></plist>"), "malformed");  // a value without key
  constexpr char kNulInKey[] = "<plist><dict><key>a\0b</key><true/></dict></plist>";
  expectRejected(bytesOf(std::string(kNulInKey, sizeof kNulInKey - 1)), "NUL");
  expectRejected(bytesOf("<plist><string>\xff</string></plist>"), "UTF-8");
  expectRejected(bytesOf("<plist><array><string>x</array></plist>"), "malformed");
  expectRejected(bytesOf("just text"), "malformed");
  expectRejected(bytesOf(""), "empty");
}

TEST(ArchiveTest, RejectionLeavesALogLine) {
  ScopedLogCapture capture;
  std::string error;
  ASSERT_FALSE(Archive::decode(bytesOf("<plist><dict><true/></dict></plist>"), &error));
  EXPECT_TRUE(capture.sink().contains(LogLevel::Debug, "", "property list rejected: " + error));
}

// ---- Interoperability with an independent reader and writer -------------------------------------------

struct PythonRun {
  int status = -1;
  std::string output;
};

// Runs `python3 -c script args...` and collects its standard output and error.
PythonRun runPython(const std::string& script, const std::vector<std::filesystem::path>& args) {
  int fds[2];
  if (pipe(fds) != 0) return {};
  pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], 1);
    dup2(fds[1], 2);
    close(fds[0]);
    close(fds[1]);
    std::vector<char*> argv = {const_cast<char*>("python3"), const_cast<char*>("-c"),
                               const_cast<char*>(script.c_str())};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execvp("python3", argv.data());
    _exit(127);
  }
  close(fds[1]);
  PythonRun run;
  char buf[4096];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0) run.output.append(buf, size_t(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

// Python's plistlib, an independent implementation, reads our binary file and compares it with the same
// value spelled in Python; then writes that value in both formats for us to read.
TEST(ArchiveInteropTest, PythonReadsWhatWeWriteAndWeReadWhatPythonWrites) {
  const std::string script = R"PY(
import datetime, plistlib, sys
expected = {
    'uint64max': 18446744073709551615,
    'twoTo63': 9223372036854775808,
    'minusOne': -1,
    'int64min': -9223372036854775808,
    'text': 'h\u00e9llo w\u00f6rld \U0001F600 \u65e5\u672c',
    'data': bytes(range(256)),
    'date': datetime.datetime(2024, 2, 29, 12, 34, 56, 789000),
    'old': datetime.datetime(1900, 1, 1),
    'real': 0.1,
    'no': False,
    'nested': {'list': [1, 'two', [True], {'deep': {'er': [3.25]}}]},
}
with open(sys.argv[1], 'rb') as f:
    data = f.read()
assert data.startswith(b'bplist00'), data[:8]
ours = plistlib.loads(data, fmt=plistlib.FMT_BINARY)
for key in sorted(set(expected) | set(ours)):
    if ours.get(key) != expected.get(key):
        print('mismatch', key, repr(ours.get(key)), repr(expected.get(key)))
print('checked', len(ours))
expected['date'] = expected['date'].replace(microsecond=0)  # XML dates carry whole seconds
with open(sys.argv[2], 'wb') as f:
    plistlib.dump(expected, f, fmt=plistlib.FMT_BINARY)
with open(sys.argv[3], 'wb') as f:
    plistlib.dump(expected, f, fmt=plistlib.FMT_XML)
)PY";
  Value::Data all(256);
  for (int i = 0; i < 256; ++i) all[size_t(i)] = uint8_t(i);
  Value v = Value::dict({
      {"uint64max", std::numeric_limits<uint64_t>::max()},
      {"twoTo63", uint64_t{1} << 63},
      {"minusOne", -1},
      {"int64min", std::numeric_limits<int64_t>::min()},
      {"text", "h\u00e9llo w\u00f6rld \U0001F600 \u65e5\u672c"},
      {"data", all},
      {"date", unixMicros(1709210096789000)},
      {"old", unixTime(-2208988800)},
      {"real", 0.1},
      {"no", false},
      {"nested",
       Value::dict(
           {{"list", Value::array({1, "two", Value::array({true}),
                                   Value::dict({{"deep", Value::dict({{"er", Value::array({3.25})}})}})})}})},
  });
  test::TempDir dir;
  std::vector<uint8_t> bin = Archive::encodeBinary(v);
  test::writeFile(dir / "ours.plist", std::string(bin.begin(), bin.end()));

  PythonRun run = runPython(script, {dir / "ours.plist", dir / "py.bin", dir / "py.xml"});
  if (run.status == 127) GTEST_SKIP() << "python3 is not available";
  ASSERT_EQ(run.status, 0) << run.output;
  EXPECT_EQ(run.output, "checked 11\n");

  v.set("date", unixTime(1709210096));
  for (const char* name : {"py.bin", "py.xml"}) {
    std::string bytes = test::readFile(dir / name);
    std::string error;
    auto back = Archive::decode(bytesOf(bytes), &error);
    ASSERT_TRUE(back) << name << ": " << error;
    EXPECT_EQ(*back, v) << name << ": " << back->describe();
    EXPECT_EQ(back->find("uint64max")->type(), Value::Type::UInt) << name;
    EXPECT_EQ(back->find("minusOne")->getInt(), -1) << name;
  }
}

}  // namespace
}  // namespace vorlen
