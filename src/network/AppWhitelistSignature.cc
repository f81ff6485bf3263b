#include "network/AppWhitelistSignature.h"

#include <openssl/evp.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <unordered_set>

#include "base/Log.h"

namespace vorlen {

namespace {

const Logger& log() {
  return VorlenDefaultLog();
}

// Appends one run (its value and length in bits, 1..256) to the run lists.
void saveRun(std::vector<uint8_t>& lengths, std::vector<bool>& values, bool value, unsigned length) {
  lengths.push_back(static_cast<uint8_t>(length - 1));
  values.push_back(value);
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::optional<uint64_t> encodingIdOf(const nlohmann::json& value) {
  if (value.is_number_unsigned()) {
    uint64_t id = value.get<uint64_t>();
    return id <= kMaxEncodingId ? std::optional(id) : std::nullopt;
  }
  if (value.is_number_integer()) {
    int64_t id = value.get<int64_t>();
    return id >= 0 && static_cast<uint64_t>(id) <= kMaxEncodingId ? std::optional(static_cast<uint64_t>(id))
                                                                  : std::nullopt;
  }
  if (value.is_number_float()) {
    double id = value.get<double>();
    if (!std::isfinite(id) || id < 0 || id > static_cast<double>(kMaxEncodingId) || std::floor(id) != id)
      return std::nullopt;
    return static_cast<uint64_t>(id);
  }
  return std::nullopt;
}

// Reads the outer document ({"apps": text, "compression": "RLE", "encoding": "bitmap"}) in one pass and keeps
// the nesting limit while reading. The "apps" text is moved out of the parser's buffer, not copied (it is
// the whole list, a megabyte or more); every other value is only walked. As in a parsed document, a later
// duplicate key replaces an earlier one, whatever the type of its value.
class OuterDocumentReader final : public nlohmann::json_sax<nlohmann::json> {
 public:
  std::optional<std::string> apps;
  bool compressionIsRLE = false, encodingIsBitmap = false, rootIsObject = false, tooDeep = false;

  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool binary(binary_t&) override { return true; }
  bool string(string_t& v) override {
    if (depth_ != 1) return true;
    if (key_ == kApps) apps = std::move(v);
    if (key_ == kCompression) compressionIsRLE = v == "RLE";
    if (key_ == kEncoding) encodingIsBitmap = v == "bitmap";
    return true;
  }
  bool key(string_t& k) override {
    if (depth_ != 1) return true;
    key_ = k == "apps" ? kApps : k == "compression" ? kCompression : k == "encoding" ? kEncoding : kOther;
    if (key_ == kApps) apps.reset();
    if (key_ == kCompression) compressionIsRLE = false;
    if (key_ == kEncoding) encodingIsBitmap = false;
    return true;
  }
  bool start_object(std::size_t) override { return open(true); }
  bool end_object() override { return close(); }
  bool start_array(std::size_t) override { return open(false); }
  bool end_array() override { return close(); }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
    return false;
  }

 private:
  enum Key { kNone, kApps, kCompression, kEncoding, kOther };
  bool open(bool object) {
    if (depth_ >= kAppWhitelistMaxJsonDepth) return tooDeep = true, false;
    if (depth_ == 0) rootIsObject = object;
    ++depth_;
    return true;
  }
  bool close() {
    --depth_;
    return true;
  }

  int depth_ = 0;
  Key key_ = kNone;
};

// Reads the inner document ({"version": text, "apps": {id: [..., {"encoding_id": n}]}}) keeping only what
// the signature needs: the version and, for each installed app the map lists, its value reduced to an
// array holding its last element (an object keeps only "encoding_id"; anything else becomes null), or null
// when the value is not an array. findWhitelistedApplications then applies the entry rules to that map.
// A later duplicate key replaces an earlier one, as in a parsed document.
class InnerDocumentReader final : public nlohmann::json_sax<nlohmann::json> {
 public:
  explicit InnerDocumentReader(const std::unordered_set<std::string_view>& wanted) : wanted_(wanted) {}

  std::optional<std::string> version;
  bool sawApps = false, appsIsObject = false, rootIsObject = false;
  nlohmann::json apps = nlohmann::json::object();

  bool tooDeep = false;

  // Values are built only where one is kept (an encoding id): the list holds tens of thousands of others.
  bool null() override {
    return scalar([] { return nlohmann::json(); });
  }
  bool boolean(bool v) override {
    return scalar([v] { return nlohmann::json(v); });
  }
  bool number_integer(number_integer_t v) override {
    return scalar([v] { return nlohmann::json(v); });
  }
  bool number_unsigned(number_unsigned_t v) override {
    return scalar([v] { return nlohmann::json(v); });
  }
  bool number_float(number_float_t v, const string_t&) override {
    return scalar([v] { return nlohmann::json(v); });
  }
  bool string(string_t& v) override {
    if (depth_ == 1 && rootKey_ == kVersion) version = v;
    // A string id is not a number: kept as a non-number so the entry rules reject it.
    return scalar([&v] { return nlohmann::json(v.size() < 64 ? v : std::string()); });
  }
  bool binary(binary_t&) override {
    return scalar([] { return nlohmann::json(); });
  }
  bool start_object(std::size_t) override { return open(true); }
  bool end_object() override { return close(); }
  bool start_array(std::size_t) override { return open(false); }
  bool end_array() override { return close(); }
  bool key(string_t& k) override {
    if (depth_ == 1) {
      rootKey_ = k == "version" ? kVersion : k == "apps" ? kApps : kOther;
      if (rootKey_ == kVersion) version.reset();
      app_.reset();
    } else if (depth_ == 2 && rootKey_ == kApps) {
      app_.reset();
      if (wanted_.count(std::string_view(k))) app_ = k;
    } else if (depth_ == 4 && app_ && inLastObject_) {
      encodingKey_ = k == "encoding_id";
    }
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
    return false;
  }

 private:
  enum RootKey { kNone, kVersion, kApps, kOther };

  // depth_ counts the containers around the value being read.
  template <class Make>
  bool scalar(Make make) {
    if (depth_ == 1 && rootKey_ == kApps) sawApps = true, appsIsObject = false;
    if (depth_ == 2 && app_) apps[*app_] = nullptr;  // not an array
    if (depth_ == 3 && app_ && arrayOpen_) hasElement_ = true, inLastObject_ = false, last_ = nullptr;
    if (depth_ == 4 && app_ && inLastObject_ && encodingKey_) last_ = nlohmann::json{{"encoding_id", make()}};
    return true;
  }
  bool open(bool object) {
    // The nesting limit is kept here, while reading, rather than by a scan of the whole text first.
    if (depth_ >= kAppWhitelistMaxJsonDepth) {
      tooDeep = true;
      return false;
    }
    if (depth_ == 0) rootIsObject = object;
    if (depth_ == 1) {
      app_.reset();
      if (rootKey_ == kApps) sawApps = true, appsIsObject = object, apps = nlohmann::json::object();
    }
    if (depth_ == 2 && app_) {
      if (object)
        apps[*app_] = nullptr;
      else
        arrayOpen_ = true, hasElement_ = false, last_ = nullptr;
    }
    if (depth_ == 3 && app_ && arrayOpen_) {
      hasElement_ = true;
      inLastObject_ = object;
      last_ = object ? nlohmann::json::object() : nlohmann::json();
    }
    if (depth_ == 4 && app_ && inLastObject_ && encodingKey_)
      last_ = nlohmann::json{{"encoding_id", nullptr}};
    encodingKey_ = false;
    ++depth_;
    return true;
  }
  bool close() {
    --depth_;
    if (depth_ == 3 && app_) inLastObject_ = false;
    if (depth_ == 2 && app_ && arrayOpen_) {
      apps[*app_] = hasElement_ ? nlohmann::json::array({last_}) : nlohmann::json::array();
      arrayOpen_ = false;
    }
    if (depth_ == 1) app_.reset();
    return true;
  }

  const std::unordered_set<std::string_view>& wanted_;
  int depth_ = 0;
  RootKey rootKey_ = kNone;
  std::optional<std::string> app_;
  bool arrayOpen_ = false, hasElement_ = false, inLastObject_ = false, encodingKey_ = false;
  nlohmann::json last_;
};

// Runs `reader` over the JSON text [begin, end); false, after one error line naming `what`, when the text
// nests too deep, is not JSON or is not an object.
template <class Reader>
bool readObject(const char* begin, const char* end, Reader& reader, const char* what) {
  const bool parsed =
      nlohmann::json::sax_parse(begin, end, &reader, nlohmann::json::input_format_t::json, true);
  if (reader.tooDeep) {
    log().error("app whitelist {} nests deeper than {} levels", what, kAppWhitelistMaxJsonDepth);
    return false;
  }
  if (!parsed || !reader.rootIsObject) {
    log().error("app whitelist {} is not a JSON object", what);
    return false;
  }
  return true;
}

}  // namespace

bool jsonNestingWithin(std::string_view text, int maxDepth) {
  int depth = 0;
  bool inString = false, escaped = false;
  for (char c : text) {
    if (inString) {
      if (escaped)
        escaped = false;
      else if (c == '\\')
        escaped = true;
      else if (c == '"')
        inString = false;
      continue;
    }
    if (c == '"')
      inString = true;
    else if (c == '[' || c == '{') {
      if (++depth > maxDepth) return false;
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return true;
}

std::vector<uint64_t> findWhitelistedApplications(const nlohmann::json& apps,
                                                  const std::vector<InstalledApplication>& installed,
                                                  size_t* skipped) {
  std::vector<uint64_t> ids;
  size_t bad = 0;
  for (const InstalledApplication& app : installed) {
    if (app.bundleIdentifier.empty() || app.bundleVersion.empty()) continue;
    auto it = apps.find(app.bundleIdentifier);
    if (it == apps.end()) continue;
    if (!it->is_array() || it->empty() || !it->back().is_object()) {
      ++bad;
      continue;
    }
    auto id = it->back().find("encoding_id");
    std::optional<uint64_t> value = id == it->back().end() ? std::nullopt : encodingIdOf(*id);
    if (!value) {
      ++bad;
      continue;
    }
    ids.push_back(*value);
  }
  std::sort(ids.begin(), ids.end());
  if (skipped) *skipped = bad;
  return ids;
}

std::vector<uint8_t> makeBitmap(const std::vector<uint64_t>& ids) {
  if (ids.empty()) return {};
  const uint64_t largest = ids.back();
  std::vector<uint8_t> bitmap((largest + 7) / 8, 0);  // ceil(M * 0.125)
  for (uint64_t id : ids) {
    // The bit of a largest id that is a multiple of 8 lies past the end and is dropped (see header).
    if (id / 8 < bitmap.size()) bitmap[id / 8] |= static_cast<uint8_t>(0x80u >> (id % 8));
  }
  return bitmap;
}

bool encodeRun(std::span<const uint8_t> bitmap, std::vector<uint8_t>& output) {
  std::vector<uint8_t> lengths;
  std::vector<bool> values;
  bool current = false;
  unsigned length = 0;
  for (uint8_t byte : bitmap) {
    for (int bit = 7; bit >= 0; --bit) {
      const bool value = (byte >> bit) & 1;
      if (length > 0 && value == current && length < 256) {
        ++length;
        continue;
      }
      if (length > 0) saveRun(lengths, values, current, length);
      current = value;
      length = 1;
    }
  }
  if (length > 0) saveRun(lengths, values, current, length);

  const size_t n = lengths.size();
  const size_t encoded = 2 + n + (n + 7) / 8;
  // Run-length coding only when it is smaller; an empty bitmap is copied (as nothing). Then N < L < 2^16.
  if (bitmap.empty() || static_cast<double>(encoded) / static_cast<double>(bitmap.size()) >= 1.0) {
    output.assign(bitmap.begin(), bitmap.end());
    return false;
  }
  output.clear();
  output.reserve(encoded);
  output.push_back(static_cast<uint8_t>(n >> 8));
  output.push_back(static_cast<uint8_t>(n));
  output.insert(output.end(), lengths.begin(), lengths.end());
  output.resize(encoded, 0);
  for (size_t i = 0; i < n; ++i)
    if (values[i]) output[2 + n + i / 8] |= static_cast<uint8_t>(0x80u >> (i % 8));
  return true;
}

bool rle_compress(std::span<const uint8_t> bitmap, std::vector<uint8_t>& output) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digestLength = 0;
  if (EVP_Digest(bitmap.data(), bitmap.size(), digest, &digestLength, EVP_md5(), nullptr) != 1 ||
      digestLength != 16) {
    std::fill(digest, digest + 16, 0);
  }
  std::vector<uint8_t> scratch;
  const bool compressed = encodeRun(bitmap, scratch);
  output.assign(digest + 12, digest + 16);
  output.insert(output.end(), scratch.begin(), scratch.end());
  return compressed;
}

bool rle_expand(std::span<const uint8_t> record, std::span<uint8_t> output, size_t offset, size_t length,
                bool compressed) {
  if (!compressed) {
    if (record.size() < 4 || record.size() - 4 < output.size()) return false;
    std::copy_n(record.begin() + 4, output.size(), output.begin());
    return true;
  }
  if (offset > record.size() || record.size() - offset < length || length < 2) return false;
  const uint8_t* p = record.data() + offset;
  const size_t n = (size_t{p[0]} << 8) | p[1];
  if (n + n / 8 + (n % 8 != 0 ? 1 : 0) + 2 != length) return false;
  std::fill(output.begin(), output.end(), 0);
  uint8_t position = 0;  // 8 bits wide on purpose: see the header
  unsigned bit = 0;
  for (size_t i = 0; i < n; ++i) {
    const bool value = p[2 + n + i / 8] & (0x80u >> (i % 8));
    for (unsigned k = 0; k <= getRunLength(p[2 + i]); ++k) {
      if (position >= output.size()) return false;
      if (value) output[position] |= static_cast<uint8_t>(0x80u >> bit);
      if (++bit == 8) {
        bit = 0;
        ++position;
      }
    }
  }
  return true;
}

std::optional<std::string> makeSignature(uint16_t bitmapLength, std::span<const uint8_t> compressed,
                                         bool compressedFlag, std::string_view version) {
  if (version.size() % 2 != 0) {
    log().error("app whitelist version has an odd number of digits: {}", version);
    return std::nullopt;
  }
  std::vector<uint8_t> versionBytes;
  versionBytes.reserve(version.size() / 2);
  for (size_t i = 0; i < version.size(); i += 2) {
    int hi = hexDigit(version[i]), lo = hexDigit(version[i + 1]);
    if (hi < 0 || lo < 0) {
      log().error("app whitelist version is not hexadecimal: {}", version);
      return std::nullopt;
    }
    versionBytes.push_back(static_cast<uint8_t>(hi << 4 | lo));
  }
  const size_t v = versionBytes.size();
  std::vector<uint8_t> record(8, 0);
  record[4] = v >= 2 ? versionBytes[v - 2] : 0;
  record[4] = compressedFlag ? (record[4] | 0x80) : (record[4] & 0x7f);
  record[5] = v >= 1 ? versionBytes[v - 1] : 0;
  record[6] = static_cast<uint8_t>(bitmapLength >> 8);
  record[7] = static_cast<uint8_t>(bitmapLength);
  record.insert(record.end(), compressed.begin(), compressed.end());
  const uLong crc = crc32(crc32(0L, Z_NULL, 0), record.data() + 4, static_cast<uInt>(record.size() - 4));
  record[0] = static_cast<uint8_t>(crc >> 24);
  record[1] = static_cast<uint8_t>(crc >> 16);
  record[2] = static_cast<uint8_t>(crc >> 8);
  record[3] = static_cast<uint8_t>(crc);

  std::string text(4 * ((record.size() + 2) / 3) + 1, '\0');
  int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), record.data(),
                                static_cast<int>(record.size()));
  text.resize(written > 0 ? static_cast<size_t>(written) : 0);
  return text;
}

std::optional<std::string> processWhitelist(std::span<const uint8_t> file,
                                            const std::vector<InstalledApplication>& installed) {
  OuterDocumentReader outer;
  const char* text = reinterpret_cast<const char*>(file.data());
  if (!readObject(text, text + file.size(), outer, "file")) return std::nullopt;
  if (!outer.apps || !outer.compressionIsRLE || !outer.encodingIsBitmap) {
    log().error("app whitelist needs an \"apps\" text with \"compression\" RLE and \"encoding\" bitmap");
    return std::nullopt;
  }
  const std::string& innerText = *outer.apps;
  // Only the entries of installed apps are kept while parsing: a list of tens of thousands of apps then
  // costs a scan, not a document of tens of thousands of objects.
  std::unordered_set<std::string_view> wanted;
  for (const InstalledApplication& app : installed)
    if (!app.bundleIdentifier.empty() && !app.bundleVersion.empty()) wanted.insert(app.bundleIdentifier);
  InnerDocumentReader reader(wanted);
  if (!readObject(innerText.data(), innerText.data() + innerText.size(), reader, "apps text"))
    return std::nullopt;
  if (!reader.version || !reader.sawApps || !reader.appsIsObject) {
    log().error("app whitelist apps text needs a \"version\" text and an \"apps\" object");
    return std::nullopt;
  }
  const nlohmann::json& map = reader.apps;
  const std::string& versionText = *reader.version;
  size_t skipped = 0;
  std::vector<uint64_t> ids = findWhitelistedApplications(map, installed, &skipped);
  if (skipped)
    log().error("app whitelist: skipped {} installed apps whose entry has no valid encoding_id", skipped);
  if (ids.empty()) {
    log().debug("no installed app is in the app whitelist");
    return std::nullopt;
  }
  std::vector<uint8_t> bitmap = makeBitmap(ids);
  std::vector<uint8_t> compressed;
  const bool flag = rle_compress(bitmap, compressed);
  return makeSignature(static_cast<uint16_t>(bitmap.size()), compressed, flag, versionText);
}

}  // namespace vorlen
