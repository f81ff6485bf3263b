#include "FeedbackInbox.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>

#include <fmt/format.h>
#include <httplib.h>

#include "base/Log.h"
#include "base/RawInflater.h"

namespace vorlen {
namespace {

using Json = nlohmann::ordered_json;

const Logger& log() {
  return VorlenDefaultLog();
}

std::string dump(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// The event types of the upload format, by index; the order is the format's own. Kept apart from the
// daemon's table on purpose: the service checks what the daemon sends against the format, not against
// the daemon's own code.
constexpr std::array<const char*, 38> kEventTypes = {
    "visible_results",
    "network_search_start",
    "network_search_end",
    "local_search_start",
    "local_search_end",
    "search_view_appear",
    "search_view_disappear",
    "rank_sections",
    "result_engagement",
    "visible_card",
    "card_engagement",
    "error",
    "suggestion_engagement",
    "card_view_disappear",
    "search_start",
    "search_end",
    "visible_suggestions",
    "custom_unknown",
    "custom_crowdsourcing",
    "custom_voyant_autofill",
    "custom_norvanta_result_features",
    "unknown",
    "results_received_after_timeout",
    "late_sections_appended",
    "clear_input",
    "session_end",
    "skip_vorlen_search",
    "section_engagement",
    "visible_section_header",
    "session_missing_results",
    "session_missing_suggestions",
    "did_go_to_site",
    "connection_invalidated",
    "result_grade",
    "did_go_to_search",
    "lookup_hint_graded",
    "card_view_appear",
    "card_section_engagement",
};

constexpr std::array<const char*, 7> kEndReasons = {
    "no previous session", "external request", "session idle",        "max session time passed",
    "guid changed",        "critical memory",  "engagement received",
};

template <size_t N>
bool known(const std::array<const char*, N>& table, const std::string& value) {
  return std::any_of(table.begin(), table.end(), [&](const char* entry) { return value == entry; });
}

std::optional<std::string> queryItem(const httplib::Request& req, const char* name) {
  if (!req.has_param(name)) return std::nullopt;
  return req.get_param_value(name);
}

std::string sha512Hex(std::string_view bytes) {
  std::array<unsigned char, 64> digest{};
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha512(), nullptr);
  std::string out;
  for (unsigned int i = 0; i < length; ++i) out += fmt::format("{:02x}", digest[i]);
  return out;
}

std::string validateEvent(const Json& event, size_t index) {
  const std::string at = fmt::format("fb[{}]", index);
  if (!event.is_object()) return at + " is not an object";
  if (event.size() < 2) return at + " lacks \"type\" and \"timestamp\"";
  auto last = event.end();
  --last;
  auto beforeLast = last;
  --beforeLast;
  if (beforeLast.key() != "type" || last.key() != "timestamp")
    return at + " does not end with \"type\" then \"timestamp\"";
  if (!beforeLast->is_string()) return at + ".type is not a string";
  const std::string type = beforeLast->get<std::string>();
  if (!known(kEventTypes, type)) return fmt::format("{}.type \"{}\" is not a known event type", at, type);
  if (!last->is_number_unsigned()) return at + ".timestamp is not an unsigned integer";
  return {};
}

}  // namespace

FeedbackInbox::FeedbackInbox(Hooks hooks) : hooks_(std::move(hooks)) {}

std::string FeedbackInbox::validateRecord(const Json& record) {
  if (!record.is_object()) return "the record is not a JSON object";
  static constexpr std::array<const char*, 7> kKeys = {"fb",
                                                       "agent",
                                                       "user_guid",
                                                       "resource_versions",
                                                       "first_use",
                                                       "base_time",
                                                       "previous_session_end_reason"};
  std::vector<std::string> keys;
  for (auto it = record.begin(); it != record.end(); ++it) keys.push_back(it.key());
  if (keys.size() != kKeys.size() || !std::equal(keys.begin(), keys.end(), kKeys.begin()))
    return "top-level keys are not fb, agent, user_guid, resource_versions, first_use, base_time, "
           "previous_session_end_reason in this order";
  const Json& fb = record["fb"];
  if (!fb.is_array()) return "fb is not an array";
  for (size_t i = 0; i < fb.size(); ++i) {
    if (std::string reason = validateEvent(fb[i], i); !reason.empty()) return reason;
  }
  if (!record["agent"].is_string()) return "agent is not a string";
  if (!record["user_guid"].is_string()) return "user_guid is not a string";
  if (!record["resource_versions"].is_object()) return "resource_versions is not an object";
  if (!record["first_use"].is_boolean()) return "first_use is not a boolean";
  if (!record["base_time"].is_number_integer()) return "base_time is not an integer";
  const Json& reason = record["previous_session_end_reason"];
  if (!reason.is_string() || !known(kEndReasons, reason.get<std::string>()))
    return "previous_session_end_reason is not a known reason";
  return {};
}

FeedbackInbox::Check FeedbackInbox::check(std::string_view endpoint,
                                          const std::optional<std::string>& version,
                                          std::string_view contentEncoding, std::string_view digest,
                                          std::string_view body) {
  Check c;
  if (body.size() > kMaxBodyBytes) {
    c.tooLarge = true;
    c.reason = fmt::format("body larger than {} bytes", kMaxBodyBytes);
    return c;
  }
  if (endpoint == "feedback" && version != "2") {
    c.reason = "the feedback endpoint wants the query item v=2";
    return c;
  }
  if (contentEncoding != "deflate") {
    c.reason = "Content-Encoding is not deflate";
    return c;
  }
  RawInflater::Failure failure;
  std::optional<std::string> inflated =
      RawInflater::inflate(body, FeedbackInbox::kMaxInflatedBytes, &failure);
  if (!inflated) {
    c.reason = std::move(failure.reason);
    c.tooLarge = failure.tooLarge;
    return c;
  }
  const std::string plain = std::move(*inflated);
  c.inflatedBytes = plain.size();
  if (digest.size() != 128 || digest.find_first_not_of("0123456789abcdef") != std::string_view::npos) {
    c.reason = "X-Velmo-Digest is not 128 lowercase hexadecimal digits";
    return c;
  }
  if (sha512Hex(plain) != digest) {
    c.reason = "X-Velmo-Digest does not match the inflated body";
    return c;
  }
  c.record = Json::parse(plain, nullptr, false);
  if (c.record.is_discarded()) {
    c.record = nullptr;
    c.reason = "the inflated body is not JSON";
    return c;
  }
  c.reason = validateRecord(c.record);
  c.valid = c.reason.empty();
  return c;
}

void FeedbackInbox::install(httplib::Server& server) {
  for (const char* endpoint : {"feedback", "crowdsourcing"}) {
    server.Post(std::string("/") + endpoint, [this, endpoint](const httplib::Request& req,
                                                              httplib::Response& res,
                                                              const httplib::ContentReader& reader) {
      const Control c = control();
      std::string body;
      bool tooLarge = false, dropped = false;
      const bool complete = reader([&](const char* data, size_t length) {
        body.append(data, length);
        if (c.dropAfterBytes >= 0 && body.size() >= static_cast<size_t>(c.dropAfterBytes)) {
          dropped = true;
          return false;
        }
        if (body.size() > kMaxBodyBytes) {
          tooLarge = true;
          return false;
        }
        return true;
      });
      if (hooks_.record) {
        // The server's request log keeps bodies as they were sent (what has arrived of it).
        httplib::Request copy = req;
        copy.body = body;
        hooks_.record(copy);
      }
      if (dropped || (!complete && !tooLarge)) {
        Received r;
        r.endpoint = endpoint;
        r.type = queryItem(req, "type");
        r.version = queryItem(req, "v");
        r.compressedBytes = body.size();
        r.reason = fmt::format("connection closed after {} body bytes", body.size());
        r.record = nullptr;
        store(std::move(r));
        if (hooks_.drop) hooks_.drop(req);
        return;
      }
      if (tooLarge) {
        res.status = 413;
        res.set_content(dump(Json{{"error", fmt::format("body larger than {} bytes", kMaxBodyBytes)}}),
                        "application/json");
        res.set_header("Connection", "close");
        return;
      }
      const auto [status, reason] = handleUpload(req, endpoint, std::move(body));
      if (hooks_.pause) hooks_.pause(c.delayMs);
      if (status == 0) {
        if (hooks_.drop) hooks_.drop(req);
        return;
      }
      res.status = status;
      res.set_content(dump(status == 200 && reason.empty()
                               ? Json{{"status", "ok"}}
                               : Json{{"error", reason.empty() ? fmt::format("status {}", status) : reason}}),
                      "application/json");
    });
  }
  server.Get("/_feedback", [this](const httplib::Request&, httplib::Response& res) {
    res.set_content(dump(receivedJson()), "application/json");
  });
  server.Delete("/_feedback", [this](const httplib::Request&, httplib::Response& res) {
    clear();
    res.status = 204;
  });
  server.Post("/_control/feedback", [this](const httplib::Request& req, httplib::Response& res) {
    Control parsed;
    std::string error;
    if (!parseControl(req.body, &parsed, &error)) {
      log().error("refserver: rejecting feedback control: {}", error);
      res.status = 400;
      res.set_content(dump(Json{{"error", error}}), "application/json");
      return;
    }
    setControl(parsed);
    res.set_content(dump(Json{{"status", parsed.status}}), "application/json");
  });
}

std::pair<int, std::string> FeedbackInbox::handleUpload(const httplib::Request& req,
                                                        std::string_view endpoint, std::string body) {
  const Control c = control();
  Received r;
  r.endpoint = std::string(endpoint);
  r.type = queryItem(req, "type");
  r.version = queryItem(req, "v");
  r.compressedBytes = body.size();
  const std::string encoding = req.has_header(hooks_.contentEncodingHeader.c_str())
                                   ? req.get_header_value(hooks_.contentEncodingHeader.c_str())
                                   : req.get_header_value("Content-Encoding");
  Check checked = check(endpoint, r.version, encoding, req.get_header_value("X-Velmo-Digest"), body);
  r.valid = checked.valid;
  r.reason = checked.reason;
  r.inflatedBytes = checked.inflatedBytes;
  r.record = std::move(checked.record);
  if (!r.valid) log().error("refserver: {} upload refused: {}", endpoint, r.reason);
  if (c.drop) {
    r.status = 0;
  } else if (c.status != 200) {
    r.status = c.status;
  } else {
    r.status = checked.tooLarge ? 413 : r.valid ? 200 : 400;
  }
  std::pair<int, std::string> answer{r.status, r.reason};
  store(std::move(r));
  return answer;
}

void FeedbackInbox::store(Received received) {
  std::lock_guard lock(mu_);
  ++receivedCount_;
  storedBytes_ += received.inflatedBytes;
  stored_.push_back(std::move(received));
  while (stored_.size() > kMaxStoredUploads || (storedBytes_ > kMaxStoredBytes && stored_.size() > 1)) {
    storedBytes_ -= stored_.front().inflatedBytes;
    stored_.pop_front();
    ++evicted_;
  }
  changed_.notify_all();
}

void FeedbackInbox::setControl(Control control) {
  std::lock_guard lock(mu_);
  control_ = control;
}

FeedbackInbox::Control FeedbackInbox::control() const {
  std::lock_guard lock(mu_);
  return control_;
}

std::vector<FeedbackInbox::Received> FeedbackInbox::received() const {
  std::lock_guard lock(mu_);
  return {stored_.begin(), stored_.end()};
}

uint64_t FeedbackInbox::receivedCount() const {
  std::lock_guard lock(mu_);
  return receivedCount_;
}

bool FeedbackInbox::waitForReceived(uint64_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mu_);
  return changed_.wait_for(lock, timeout, [&] { return receivedCount_ >= count; });
}

void FeedbackInbox::clear() {
  std::lock_guard lock(mu_);
  stored_.clear();
  storedBytes_ = 0;
  receivedCount_ = 0;
  evicted_ = 0;
}

Json FeedbackInbox::receivedJson() const {
  std::lock_guard lock(mu_);
  Json records = Json::array();
  for (const Received& r : stored_) {
    records.push_back(Json{{"endpoint", r.endpoint},
                           {"type", r.type ? Json(*r.type) : Json(nullptr)},
                           {"v", r.version ? Json(*r.version) : Json(nullptr)},
                           {"valid", r.valid},
                           {"reason", r.reason},
                           {"status", r.status},
                           {"compressed_bytes", r.compressedBytes},
                           {"inflated_bytes", r.inflatedBytes},
                           {"record", r.record}});
  }
  return Json{{"received", receivedCount_}, {"evicted", evicted_}, {"records", records}};
}

bool FeedbackInbox::parseControl(std::string_view text, Control* out, std::string* error) {
  Json doc = Json::parse(text.begin(), text.end(), nullptr, false);
  if (doc.is_discarded() || !doc.is_object()) {
    *error = "not a JSON object";
    return false;
  }
  Control c;
  for (auto it = doc.begin(); it != doc.end(); ++it) {
    const std::string& key = it.key();
    const Json& v = it.value();
    auto integer = [&](int64_t lo, int64_t hi) {
      if (!v.is_number_integer() || v.get<int64_t>() < lo || v.get<int64_t>() > hi) {
        *error = fmt::format("{} must be an integer from {} to {}", key, lo, hi);
        return false;
      }
      return true;
    };
    if (key == "status") {
      if (!integer(100, 599)) return false;
      c.status = v.get<int>();
    } else if (key == "delay_ms") {
      if (!integer(0, 600000)) return false;
      c.delayMs = v.get<int>();
    } else if (key == "drop_after_bytes") {
      if (!integer(-1, int64_t{1} << 40)) return false;
      c.dropAfterBytes = v.get<int64_t>();
    } else if (key == "drop") {
      if (!v.is_boolean()) {
        *error = "drop must be a boolean";
        return false;
      }
      c.drop = v.get<bool>();
    } else {
      *error = "unknown key " + key;
      return false;
    }
  }
  *out = c;
  return true;
}

}  // namespace vorlen
