// FeedbackInbox: the feedback and crowdsourcing upload endpoints of the reference service.
//
//   POST /feedback        a session record from the daemon: "Content-Encoding: deflate" (raw DEFLATE),
//   POST /crowdsourcing   "X-Velmo-Digest" = lowercase hex SHA-512 of the inflated bytes, the body the
//                         compressed JSON session record. /feedback also wants the query item "v=2".
//                         The inbox inflates, checks the digest, parses the record and validates it
//                         against the upload format (the seven top-level keys in their order and types,
//                         every event an object with a known "type" and an unsigned "timestamp" as its
//                         last two keys, a known previous-session end reason). Every upload is stored,
//                         valid or not, and answered 200, or 400 with the reason as {"error": ...}.
//   GET    /_feedback     what was received: {"received": n, "evicted": n, "records": [{"endpoint",
//                         "type", "v", "valid", "reason", "status", "compressed_bytes", "inflated_bytes",
//                         "record"}]} ("type"/"v" are the query items, null when absent; "status" is the
//                         answer sent, 0 when the connection was dropped instead; "record" is null when
//                         the body did not parse).
//   DELETE /_feedback     forgets them.
//   POST   /_control/feedback  {"status": 200, "delay_ms": 0, "drop": false, "drop_after_bytes": -1}:
//                         answer with that status instead (the upload is still checked and stored), wait
//                         first, close the connection instead of answering, or close it as soon as that
//                         many body bytes have arrived (a reset in the middle of the body). Omitted fields
//                         take these defaults; anything else is refused with 400.
//
// Bounds: a body above 16 MiB, or one that inflates past 64 MiB, is refused (413) without being kept.
// At most 512 uploads and 64 MiB of inflated records are stored; the oldest go first ("evicted").
//
// Threading: install() once before the server runs; every other method is safe from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace httplib {
class Server;
struct Request;
}  // namespace httplib

namespace vorlen {

class FeedbackInbox {
 public:
  static constexpr size_t kMaxBodyBytes = 16u << 20;
  static constexpr size_t kMaxInflatedBytes = 64u << 20;
  static constexpr size_t kMaxStoredUploads = 512;
  static constexpr size_t kMaxStoredBytes = 64u << 20;

  struct Control {
    int status = 200;
    int delayMs = 0;
    bool drop = false;
    int64_t dropAfterBytes = -1;
  };

  struct Received {
    std::string endpoint;  // "feedback" or "crowdsourcing"
    std::optional<std::string> type;
    std::optional<std::string> version;  // the "v" item
    bool valid = false;
    std::string reason;  // empty when valid
    int status = 0;      // the answer sent; 0 when the connection was dropped instead
    size_t compressedBytes = 0;
    size_t inflatedBytes = 0;
    nlohmann::ordered_json record;  // null when the body did not parse
  };

  // The outcome of checking one body.
  struct Check {
    bool valid = false;
    std::string reason;
    size_t inflatedBytes = 0;
    nlohmann::ordered_json record;
    bool tooLarge = false;
  };

  // What the inbox needs from the server around it.
  struct Hooks {
    std::function<void(const httplib::Request&)> record;  // note the request in the server's request log
    std::function<void(const httplib::Request&)> drop;    // close the request's connection, no answer
    std::function<void(int ms)> pause;                    // wait, ending early when the server stops
    // The header under which the server keeps a request's Content-Encoding (it sets it aside so that the
    // HTTP library does not inflate the body itself).
    std::string contentEncodingHeader = "Content-Encoding";
  };

  explicit FeedbackInbox(Hooks hooks);

  void install(httplib::Server& server);

  void setControl(Control control);
  Control control() const;
  std::vector<Received> received() const;
  // Waits until at least `count` uploads were stored in all (evicted ones included) or `timeout` passed.
  bool waitForReceived(uint64_t count, std::chrono::milliseconds timeout) const;
  uint64_t receivedCount() const;
  void clear();
  nlohmann::ordered_json receivedJson() const;

  // Checks a body as the endpoints do. `endpoint` is "feedback" or "crowdsourcing"; `version` the "v" item.
  static Check check(std::string_view endpoint, const std::optional<std::string>& version,
                     std::string_view contentEncoding, std::string_view digest, std::string_view body);
  // The reason a parsed record breaks the upload format; empty when it is valid.
  static std::string validateRecord(const nlohmann::ordered_json& record);
  static bool parseControl(std::string_view json, Control* out, std::string* error);

 private:
  // Checks and stores one whole upload; the status to answer (0: drop the connection) and the reason it
  // was refused (empty when valid).
  std::pair<int, std::string> handleUpload(const httplib::Request& req, std::string_view endpoint,
                                           std::string body);
  void store(Received received);

  Hooks hooks_;
  mutable std::mutex mu_;
  mutable std::condition_variable changed_;
  Control control_;
  std::deque<Received> stored_;
  size_t storedBytes_ = 0;
  uint64_t receivedCount_ = 0;
  uint64_t evicted_ = 0;
};

}  // namespace vorlen
