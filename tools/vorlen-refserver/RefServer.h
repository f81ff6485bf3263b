// RefServer: the reference search service on loopback, used by the demo, by integration tests (as the
// vorlen-refserver program) and by unit tests in-process.
//
// Service endpoints:
//   GET  /bag                 the bag: a JSON object whose URLs point back at this server. Its behaviour is
//                             switched by POST /_control/bag (see BagControl) to exercise failure paths.
//                             Every answer closes its connection, so each bag request arrives on a
//                             connection of its own and the count of /bag is the number of attempts.
//   GET  /search              type-ahead search: the answer for "q" from the shipped corpus (SearchCorpus);
//                             with "qtype=zkw" the zero-keyword answer (trending suggestions) instead, and
//                             for a look-up (it carries "ltype") the look-up answer.
//   GET  /more                more results for "q".
//   GET  /card                a card for "q".
//   GET  /lookup              a look-up answer for "q".
//   GET  /flight              flight status for "q" of the form CARRIER-NUMBER.
//   GET  /warm                an empty 200: a request that only opens a connection.
//   The search-type answers (/search, /more, /card, /lookup, /flight) follow SearchControl, set by
//   POST /_control/search, and per request the query items "ref_status=N", "ref_delay_ms=N",
//   "ref_drop=1" (which a daemon sends when told to through its debug parameters) and "ref_hold=1" (the
//   answer waits for releaseHeld() or stop(): a request kept in flight without a race against a timer).
// Endpoints for tests and tools (paths beginning with "/_"):
//   POST   /_control/bag      {"mode": "ok"|"status"|"empty"|"array"|"slow"|"drop", "status": 503,
//                             "delay_ms": 2000, "version": "10", "extra": {...}}; omitted fields keep their
//                             defaults (status 503, delay 0, version "1", no extra keys). "extra" is laid
//                             over the served bag key by key. A body that is not such an object is
//                             refused with 400 and a log line.
//   POST   /_control/search   {"status": 200, "delay_ms": 0, "max_age": 300, "force_fetch": "{\"bag\": 10}",
//                             "server_timing": false}; omitted fields take these defaults. "force_fetch",
//                             when not empty, is sent as the header "X-Velmo-ForceFetch"; "server_timing"
//                             adds the header "X-Velmo-Server-Timing": a JSON array of one record with
//                             "status", "duration" (milliseconds) and "partial_client_ip".
//   GET    /_requests         every request recorded so far, as JSON (requests to /_control, /_requests
//                             and /_counts are neither recorded nor counted).
//   DELETE /_requests         forgets them and resets the per-path counts.
//   GET    /_counts           {"<path>": number of requests} for every path seen.
//   any    /_echo             answers with a JSON description of the request (method, path, query, header
//                             fields, body length). Query items shape the answer: status=N (HTTP status),
//                             delay_ms=N (wait first), drop=1 (close the connection without an answer),
//                             max_age=N (Cache-Control: max-age=N), bytes=N (N bytes of 'a'..'z' instead
//                             of JSON). Every answer carries "X-Ref-Echo-Count", the number of echo
//                             requests answered so far.
//   GET    /_redirect?to=P    302 to path P of this server.
//   POST /feedback, POST /crowdsourcing, GET|DELETE /_feedback, POST /_control/feedback: the upload
//                             endpoints and their switches (FeedbackInbox).
// Resource files named in the bag (/resources/..., /hints/..., POST /_control/resources): see
// ResourceFiles.h.
//
// "drop" closes the TCP connection from the server side before any byte of a response is written, which
// a client sees as a lost connection (a transport error, not an HTTP status).
//
// Threading: start()/stop() from one owning thread; every other method is safe from any thread. Request
// handlers run on the server's worker threads, which block SIGPIPE so a write to a dropped connection
// fails quietly.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vorlen {

class FeedbackInbox;
class ResourceFiles;

class RefServer {
 public:
  enum class BagMode { Ok, Status, Empty, Array, Slow, Drop };

  struct BagControl {
    BagMode mode = BagMode::Ok;
    int status = 503;  // for Status
    int delayMs = 0;   // for Slow (and before any other mode when set)
    std::string version = "1";
    // A JSON object whose keys are laid over the served bag (for example {"enabled": false} or a
    // "clients" view); empty for none.
    std::string extra;
  };

  struct SearchControl {
    int status = 200;
    int delayMs = 0;
    int maxAge = 300;        // "max_age" of search answers, seconds
    std::string forceFetch;  // "X-Velmo-ForceFetch" when not empty
    bool serverTiming = false;
  };

  struct RecordedRequest {
    std::string method;
    std::string path;
    std::string rawQuery;                                         // as it came on the wire, without "?"
    std::vector<std::pair<std::string, std::string>> queryItems;  // decoded, sorted by name then value
    std::vector<std::pair<std::string, std::string>> headers;     // as received
    std::string body;

    // First header value of that name, compared without regard to case; empty when absent.
    std::string header(std::string_view name) const;
  };

  RefServer();
  ~RefServer();  // stops
  RefServer(const RefServer&) = delete;
  RefServer& operator=(const RefServer&) = delete;

  // Binds `host`:`port` (0 picks a free port) and starts serving on a thread of its own. False (with a log
  // line) when it cannot bind.
  bool start(const std::string& host = "127.0.0.1", int port = 0);
  // Stops serving: wakes handlers that are waiting, closes open connections, joins the threads.
  void stop();

  int port() const;
  std::string baseURL() const;  // "http://127.0.0.1:PORT"

  void setBagControl(BagControl control);
  BagControl bagControl() const;
  // The bag as currently served in mode Ok.
  std::string bagBody() const;

  void setSearchControl(SearchControl control);
  SearchControl searchControl() const;
  // Lets the answers held by "ref_hold=1" go, and every later one at once.
  void releaseHeld();

  // The feedback and crowdsourcing endpoints: what they received, and their switches.
  FeedbackInbox& feedbackInbox();
  // The resource files the bag lists, with their versions and failure switches.
  ResourceFiles& resources();

  size_t requestCount(std::string_view path) const;
  std::vector<RecordedRequest> requests() const;
  void clearRequests();

  // Parses a control document as POST /_control/bag does; false for anything else.
  static bool parseBagControl(std::string_view json, BagControl* out, std::string* error);
  // Parses a control document as POST /_control/search does; false for anything else.
  static bool parseSearchControl(std::string_view json, SearchControl* out, std::string* error);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vorlen
