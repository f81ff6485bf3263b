#include "ResourceFiles.h"

#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>

#include <fmt/format.h>
#include <httplib.h>

#include "base/Log.h"

namespace vorlen {
namespace {

using Json = nlohmann::ordered_json;

// The sample files are small; anything larger in the folder is not served.
constexpr std::uintmax_t kMaxSampleBytes = 16u << 20;
constexpr size_t kChunk = 64 * 1024;

const char* modeName(ResourceFiles::Mode mode) {
  switch (mode) {
    case ResourceFiles::Mode::Ok:
      return "ok";
    case ResourceFiles::Mode::Status:
      return "status";
    case ResourceFiles::Mode::Cut:
      return "cut";
    case ResourceFiles::Mode::Loop:
      return "loop";
  }
  return "ok";
}

// Byte i of a generated body: a repeating alphabet, so a reader can check any stretch.
char generatedByte(uint64_t i) {
  return static_cast<char>('a' + i % 26);
}

}  // namespace

ResourceFiles::ResourceFiles(std::filesystem::path folder) : folder_(std::move(folder)) {
  for (const auto& identifier : identifiers()) controls_.emplace(identifier, Control{});
}

const std::vector<std::string>& ResourceFiles::identifiers() {
  static const std::vector<std::string> ids = {"installed_app_whitelist", "lookup_hints_weekly",
                                               "lookup_hints_monthly"};
  return ids;
}

std::filesystem::path ResourceFiles::defaultFolder() {
#ifdef VORLEN_REFSERVER_RESOURCES_DIR
  return VORLEN_REFSERVER_RESOURCES_DIR;
#else
  return {};
#endif
}

bool ResourceFiles::redirects(const std::string& identifier) {
  return identifier.starts_with("lookup_hints_");
}

void ResourceFiles::addToBag(Json& bag, const std::string& baseURL) const {
  std::lock_guard lock(mu_);
  Json list = Json::array();
  for (const auto& identifier : identifiers()) {
    const Control& c = controls_.at(identifier);
    if (!c.listed) continue;
    list.push_back(identifier);
    std::string url = baseURL + "/resources/" + identifier + "?";
    if (!redirects(identifier)) url += "version=" + c.version + "&";
    bag[identifier] = url + "key=refkey";
  }
  bag["download_resources_list"] = list;
}

std::string ResourceFiles::tagOf(const std::string& identifier) const {
  std::lock_guard lock(mu_);
  auto it = controls_.find(identifier);
  if (it == controls_.end()) return {};
  // The signature of /hints/<identifier>/<version>/all: parts 3, 4 and 2.
  return redirects(identifier) ? it->second.version + "-all-" + identifier : it->second.version;
}

std::string ResourceFiles::_content(const std::string& identifier, const Control& c) const {
  if (c.size > 0) {
    std::string body(c.size, '\0');
    for (uint64_t i = 0; i < c.size; ++i) body[i] = generatedByte(i);
    return body;
  }
  if (!folder_.empty()) {
    std::error_code ec;
    std::filesystem::path file = folder_ / identifier;
    auto size = std::filesystem::file_size(file, ec);
    if (!ec && size <= kMaxSampleBytes) {
      std::ifstream in(file, std::ios::binary);
      std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      if (in.good() || in.eof()) return bytes;
    }
  }
  return fmt::format("placeholder resource {} version {}\n", identifier, c.version);
}

std::string ResourceFiles::contentOf(const std::string& identifier) const {
  std::lock_guard lock(mu_);
  auto it = controls_.find(identifier);
  return it == controls_.end() ? std::string() : _content(identifier, it->second);
}

bool ResourceFiles::setControl(const std::string& identifier, Control control) {
  std::lock_guard lock(mu_);
  auto it = controls_.find(identifier);
  if (it == controls_.end()) return false;
  it->second = std::move(control);
  return true;
}

std::optional<ResourceFiles::Control> ResourceFiles::control(const std::string& identifier) const {
  std::lock_guard lock(mu_);
  auto it = controls_.find(identifier);
  if (it == controls_.end()) return std::nullopt;
  return it->second;
}

bool ResourceFiles::applyControlDocument(std::string_view json, std::string* error) {
  auto fail = [&](std::string why) {
    if (error) *error = std::move(why);
    return false;
  };
  Json doc = Json::parse(json, nullptr, false);
  if (!doc.is_object()) return fail("not a JSON object");
  if (!doc.contains("identifier") || !doc["identifier"].is_string())
    return fail("\"identifier\" must be a string");
  std::string identifier = doc["identifier"].get<std::string>();
  std::optional<Control> current = control(identifier);
  if (!current) return fail("unknown identifier");
  Control c = *current;
  if (doc.contains("version")) {
    if (!doc["version"].is_string() || doc["version"].get<std::string>().empty() ||
        doc["version"].get<std::string>().find_first_of("/?&#") != std::string::npos)
      return fail("\"version\" must be a non-empty string without / ? & #");
    c.version = doc["version"].get<std::string>();
  }
  if (doc.contains("listed")) {
    if (!doc["listed"].is_boolean()) return fail("\"listed\" must be a boolean");
    c.listed = doc["listed"].get<bool>();
  }
  if (doc.contains("mode")) {
    const Json& m = doc["mode"];
    if (m == "ok") {
      c.mode = Mode::Ok;
    } else if (m == "status") {
      c.mode = Mode::Status;
    } else if (m == "cut") {
      c.mode = Mode::Cut;
    } else if (m == "loop") {
      c.mode = Mode::Loop;
    } else {
      return fail("\"mode\" must be one of ok, status, cut, loop");
    }
  }
  if (doc.contains("status")) {
    if (!doc["status"].is_number_integer() || doc["status"].get<int64_t>() < 100 ||
        doc["status"].get<int64_t>() > 599)
      return fail("\"status\" must be an HTTP status");
    c.status = doc["status"].get<int>();
  }
  if (doc.contains("delay_ms")) {
    if (!doc["delay_ms"].is_number_integer() || doc["delay_ms"].get<int64_t>() < 0 ||
        doc["delay_ms"].get<int64_t>() > 600000)
      return fail("\"delay_ms\" must be 0 to 600000");
    c.delayMs = doc["delay_ms"].get<int>();
  }
  if (doc.contains("size")) {
    if (!doc["size"].is_number_unsigned() || doc["size"].get<uint64_t>() > (1ull << 31))
      return fail("\"size\" must be a byte count up to 2 GiB");
    c.size = doc["size"].get<uint64_t>();
  }
  setControl(identifier, c);
  return true;
}

void ResourceFiles::stop() {
  std::lock_guard lock(mu_);
  stopping_ = true;
  wake_.notify_all();
}

void ResourceFiles::routes(httplib::Server& server, std::function<void(const httplib::Request&)> record,
                           std::function<std::string()> baseURL) {
  // Answers the file itself, honouring the switches and If-None-Match.
  auto serve = [this](const std::string& identifier, const httplib::Request& req, httplib::Response& res) {
    std::optional<Control> c = control(identifier);
    if (!c) {
      res.status = 404;
      return;
    }
    if (c->delayMs > 0) {
      std::unique_lock lock(mu_);
      wake_.wait_for(lock, std::chrono::milliseconds(c->delayMs), [this] { return stopping_; });
    }
    if (c->mode == Mode::Status) {
      res.status = c->status;
      res.set_content("resource unavailable", "text/plain");
      return;
    }
    const std::string tag = tagOf(identifier);
    res.set_header("ETag", tag);
    if (req.has_header("If-None-Match") && req.get_header_value("If-None-Match") == tag) {
      res.status = 304;
      return;
    }
    std::string body;
    {
      std::lock_guard lock(mu_);
      if (c->size == 0) body = _content(identifier, *c);
    }
    const uint64_t length = c->size > 0 ? c->size : body.size();
    // A cut answer promises the whole length and stops half way, which the client sees as a transfer
    // that broke off after a 200.
    const uint64_t sent = c->mode == Mode::Cut ? length / 2 : length;
    auto shared = std::make_shared<std::string>(std::move(body));
    const bool generated = c->size > 0;
    res.set_content_provider(static_cast<size_t>(length), "application/octet-stream",
                             [shared, generated, sent](size_t offset, size_t, httplib::DataSink& sink) {
                               if (offset >= sent)
                                 return false;  // closes the connection short of the promised length
                               size_t n = static_cast<size_t>(std::min<uint64_t>(kChunk, sent - offset));
                               if (generated) {
                                 std::string piece(n, '\0');
                                 for (size_t i = 0; i < n; ++i) piece[i] = generatedByte(offset + i);
                                 return sink.write(piece.data(), n);
                               }
                               return sink.write(shared->data() + offset, n);
                             });
  };

  server.Get(R"(/resources/([A-Za-z0-9_]+))",
             [this, record, baseURL, serve](const httplib::Request& req, httplib::Response& res) {
               record(req);
               const std::string identifier = req.matches[1];
               std::optional<Control> c = control(identifier);
               if (!c) {
                 res.status = 404;
                 return;
               }
               if (c->mode == Mode::Loop) {
                 res.set_redirect(baseURL() + req.target, 302);
                 return;
               }
               if (redirects(identifier) && c->mode != Mode::Status) {
                 res.set_redirect(baseURL() + "/hints/" + identifier + "/" + c->version + "/all", 302);
                 return;
               }
               serve(identifier, req, res);
             });
  server.Get(R"(/hints/([A-Za-z0-9_]+)/([^/]+)/all)",
             [this, record, serve](const httplib::Request& req, httplib::Response& res) {
               record(req);
               const std::string identifier = req.matches[1];
               std::optional<Control> c = control(identifier);
               // Only the current version's path exists.
               if (!c || !redirects(identifier) || req.matches[2] != c->version) {
                 res.status = 404;
                 return;
               }
               serve(identifier, req, res);
             });
  server.Post("/_control/resources", [this](const httplib::Request& req, httplib::Response& res) {
    std::string error;
    if (!applyControlDocument(req.body, &error)) {
      VorlenDefaultLog().error("refserver: rejecting resources control: {}", error);
      res.status = 400;
      res.set_content(Json{{"error", error}}.dump(), "application/json");
      return;
    }
    std::string identifier = Json::parse(req.body, nullptr, false).value("identifier", "");
    std::optional<Control> c = control(identifier);
    res.set_content(
        Json{{"identifier", identifier}, {"mode", modeName(c->mode)}, {"version", c->version}}.dump(),
        "application/json");
  });
}

}  // namespace vorlen
