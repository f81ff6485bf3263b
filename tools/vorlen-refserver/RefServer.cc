#include "RefServer.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <pthread.h>
#include <signal.h>
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <mutex>
#include <thread>

#include <fmt/format.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include "FeedbackInbox.h"
#include "ResourceFiles.h"
#include "SearchCorpus.h"
#include "base/Log.h"

namespace vorlen {
namespace {

using Json = nlohmann::ordered_json;

const Logger& log() {
  return VorlenDefaultLog();
}

// Where a request's Content-Encoding is kept while the HTTP library reads the body (see routes()).
constexpr const char* kSetAsideEncoding = "X-Refserver-Content-Encoding";

// Worker threads of the HTTP server. Idle keep-alive connections hold one each, so there are plenty.
constexpr size_t kServerThreads = 32;

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string percentDecode(std::string_view s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '%' && i + 2 < s.size() && hexValue(s[i + 1]) >= 0 && hexValue(s[i + 2]) >= 0) {
      out += static_cast<char>(hexValue(s[i + 1]) * 16 + hexValue(s[i + 2]));
      i += 2;
    } else {
      out += s[i];
    }
  }
  return out;
}

std::vector<std::pair<std::string, std::string>> parseQuery(std::string_view query) {
  std::vector<std::pair<std::string, std::string>> items;
  while (!query.empty()) {
    size_t amp = query.find('&');
    std::string_view piece = query.substr(0, amp);
    if (!piece.empty()) {
      size_t eq = piece.find('=');
      items.emplace_back(percentDecode(piece.substr(0, eq)),
                         eq == std::string_view::npos ? std::string() : percentDecode(piece.substr(eq + 1)));
    }
    if (amp == std::string_view::npos) break;
    query.remove_prefix(amp + 1);
  }
  std::sort(items.begin(), items.end());
  return items;
}

bool isPseudoHeader(const std::string& name) {
  return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT";
}

std::string base64(const std::string& bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  int n =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                      reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
  out.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return out;
}

std::string dump(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool endpointMatches(const sockaddr_storage& addr, const std::string& ip, int port) {
  char text[INET6_ADDRSTRLEN] = {};
  int actualPort = -1;
  if (addr.ss_family == AF_INET) {
    const auto* a = reinterpret_cast<const sockaddr_in*>(&addr);
    inet_ntop(AF_INET, &a->sin_addr, text, sizeof text);
    actualPort = ntohs(a->sin_port);
  } else if (addr.ss_family == AF_INET6) {
    const auto* a = reinterpret_cast<const sockaddr_in6*>(&addr);
    inet_ntop(AF_INET6, &a->sin6_addr, text, sizeof text);
    actualPort = ntohs(a->sin6_port);
  } else {
    return false;
  }
  return actualPort == port && (ip.empty() || ip == text);
}

// Calls `fn(fd)` for every connected TCP socket of this process whose local port is `localPort` and, when
// `peerPort` >= 0, whose peer is `peerIp`:`peerPort`. The HTTP library does not expose the socket of a
// request, so the socket is found by its endpoints, which identify one connection uniquely.
template <class Fn>
void forEachServerConnection(int localPort, const std::string& peerIp, int peerPort, Fn fn) {
  DIR* dir = opendir("/proc/self/fd");
  if (!dir) return;
  std::vector<int> fds;
  while (dirent* entry = readdir(dir)) {
    char* end = nullptr;
    long fd = std::strtol(entry->d_name, &end, 10);
    if (end != entry->d_name && *end == '\0' && fd != dirfd(dir)) fds.push_back(static_cast<int>(fd));
  }
  closedir(dir);
  for (int fd : fds) {
    sockaddr_storage local{}, peer{};
    socklen_t localLen = sizeof local, peerLen = sizeof peer;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLen) != 0) continue;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLen) != 0)
      continue;  // listening or not a socket
    if (!endpointMatches(local, "", localPort)) continue;
    if (peerPort >= 0 && !endpointMatches(peer, peerIp, peerPort)) continue;
    fn(fd);
  }
}

// The query item `name` read as a whole decimal integer; `fallback` when absent or not one.
long integerParam(const httplib::Request& req, const char* name, long fallback) {
  if (!req.has_param(name)) return fallback;
  const std::string v = req.get_param_value(name);
  char* end = nullptr;
  long n = std::strtol(v.c_str(), &end, 10);
  return (end != v.c_str() && *end == '\0') ? n : fallback;
}

const char* modeName(RefServer::BagMode mode) {
  switch (mode) {
    case RefServer::BagMode::Ok:
      return "ok";
    case RefServer::BagMode::Status:
      return "status";
    case RefServer::BagMode::Empty:
      return "empty";
    case RefServer::BagMode::Array:
      return "array";
    case RefServer::BagMode::Slow:
      return "slow";
    case RefServer::BagMode::Drop:
      return "drop";
  }
  return "ok";
}

}  // namespace

std::string RefServer::RecordedRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (key.size() == name.size() && strncasecmp(key.data(), name.data(), name.size()) == 0) return value;
  }
  return {};
}

struct RefServer::Impl {
  httplib::Server server;
  std::thread thread;
  std::string host = "127.0.0.1";
  int port = 0;
  bool started = false;

  mutable std::mutex mu;
  std::condition_variable wake;
  bool stopping = false;
  bool holdsReleased = false;
  BagControl control;
  SearchControl searchControl;
  std::vector<RecordedRequest> recorded;
  std::map<std::string, size_t> counts;
  uint64_t echoCount = 0;
  std::unique_ptr<FeedbackInbox> inbox;
  ResourceFiles resources{ResourceFiles::defaultFolder()};

  std::string baseURL() const { return "http://" + host + ":" + std::to_string(port); }

  void record(const httplib::Request& req) {
    RecordedRequest r;
    r.method = req.method;
    r.path = req.path;
    if (size_t q = req.target.find('?'); q != std::string::npos) r.rawQuery = req.target.substr(q + 1);
    r.queryItems = parseQuery(r.rawQuery);
    for (const auto& [name, value] : req.headers) {
      if (isPseudoHeader(name)) continue;
      r.headers.emplace_back(name == kSetAsideEncoding ? "Content-Encoding" : name, value);
    }
    r.body = req.body;
    std::lock_guard lock(mu);
    ++counts[r.path];
    recorded.push_back(std::move(r));
  }

  // Waits up to `ms`, returning early when the server stops.
  void pause(int ms) {
    if (ms <= 0) return;
    std::unique_lock lock(mu);
    wake.wait_for(lock, std::chrono::milliseconds(ms), [this] { return stopping; });
  }

  void drop(const httplib::Request& req) {
    bool found = false;
    forEachServerConnection(req.local_port, req.remote_addr, req.remote_port, [&](int fd) {
      ::shutdown(fd, SHUT_RDWR);
      found = true;
    });
    if (!found)
      log().error("refserver: could not find the connection of {}:{} to drop", req.remote_addr,
                  req.remote_port);
  }

  std::string bag(const std::string& version, const std::string& extra = {}) const {
    std::string base = baseURL();
    Json bag;
    bag["version"] = version;
    bag["enabled"] = true;
    bag["search_url"] = base + "/search";
    bag["more_results_url"] = base + "/more";
    bag["card_url"] = base + "/card";
    bag["flight_url"] = base + "/flight";
    bag["warm_url"] = base + "/warm";
    bag["minimum_query_length"] = 2;
    bag["l2_version"] = "7";
    bag["l3_version"] = "3";
    bag["search_render_timeout"] = 2.0;
    bag["smart_history_enabled"] = true;
    bag["feedback_enabled"] = true;
    bag["feedback_url"] = base + "/feedback";
    bag["crowdsourcing_url"] = base + "/crowdsourcing";
    resources.addToBag(bag, base);
    if (!extra.empty()) {
      Json over = Json::parse(extra, nullptr, false);
      if (over.is_object()) {
        for (auto it = over.begin(); it != over.end(); ++it) bag[it.key()] = it.value();
      }
    }
    return dump(bag);
  }

  void handleBag(const httplib::Request& req, httplib::Response& res) {
    record(req);
    // One connection per bag request: a request dropped on a reused connection would be sent again by
    // the client on a fresh one, and the per-path counts would no longer be the client's attempts.
    res.set_header("Connection", "close");
    BagControl c;
    {
      std::lock_guard lock(mu);
      c = control;
    }
    pause(c.delayMs);
    switch (c.mode) {
      case BagMode::Ok:
      case BagMode::Slow:
        res.set_content(bag(c.version, c.extra), "application/json");
        break;
      case BagMode::Status:
        res.status = c.status;
        res.set_content("bag unavailable", "text/plain");
        break;
      case BagMode::Empty:
        res.set_content("", "application/json");
        break;
      case BagMode::Array:
        res.set_content("[]", "application/json");
        break;
      case BagMode::Drop:
        drop(req);
        break;
    }
  }

  // Answers a search-type request: `make` builds the body from the request's "q".
  template <class Make>
  void handleSearch(const httplib::Request& req, httplib::Response& res, Make make) {
    record(req);
    SearchControl c;
    {
      std::lock_guard lock(mu);
      c = searchControl;
    }
    auto number = [&](const char* name, long fallback) { return integerParam(req, name, fallback); };
    pause(static_cast<int>(number("ref_delay_ms", c.delayMs)));
    if (number("ref_hold", 0) != 0) {
      std::unique_lock lock(mu);
      wake.wait(lock, [this] { return stopping || holdsReleased; });
    }
    if (number("ref_drop", 0) != 0) {
      drop(req);
      return;
    }
    res.status = static_cast<int>(number("ref_status", c.status));
    if (!c.forceFetch.empty()) res.set_header("X-Velmo-ForceFetch", c.forceFetch);
    if (c.serverTiming) {
      Json timing =
          Json::array({Json{{"status", "OK"}, {"duration", 12.5}, {"partial_client_ip", "127.0.0"}}});
      res.set_header("X-Velmo-Server-Timing", dump(timing));
    }
    if (res.status != 200) {
      res.set_content(dump(Json{{"status", "ERROR"}, {"code", res.status}}), "application/json");
      return;
    }
    res.set_content(dump(make(req.get_param_value("q"), c)), "application/json");
  }

  // Applies a control document: `parse` reads it into a T, which is stored into `target` under the lock;
  // a refused document changes nothing and is answered 400 with the reason.
  template <class T, class Answer>
  void applyControl(const httplib::Request& req, httplib::Response& res, const char* what,
                    bool (*parse)(std::string_view, T*, std::string*), T& target, Answer answer) {
    T parsed;
    std::string error;
    if (!parse(req.body, &parsed, &error)) {
      log().error("refserver: rejecting {} control: {}", what, error);
      res.status = 400;
      res.set_content(dump(Json{{"error", error}}), "application/json");
      return;
    }
    {
      std::lock_guard lock(mu);
      target = parsed;
    }
    res.set_content(dump(answer(parsed)), "application/json");
  }

  void handleEcho(const httplib::Request& req, httplib::Response& res) {
    record(req);
    auto number = [&](const char* name, long fallback) { return integerParam(req, name, fallback); };
    pause(static_cast<int>(number("delay_ms", 0)));
    if (number("drop", 0) != 0) {
      drop(req);
      return;
    }
    uint64_t count;
    {
      std::lock_guard lock(mu);
      count = ++echoCount;
    }
    res.status = static_cast<int>(number("status", 200));
    res.set_header("X-Ref-Echo-Count", std::to_string(count));
    if (long maxAge = number("max_age", -1); maxAge >= 0)
      res.set_header("Cache-Control", "max-age=" + std::to_string(maxAge));
    if (long bytes = number("bytes", -1); bytes >= 0) {
      std::string body(static_cast<size_t>(std::min(bytes, 64L << 20)), 'a');
      for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>('a' + i % 26);
      res.set_content(body, "application/octet-stream");
      return;
    }
    Json headers = Json::array();
    for (const auto& [name, value] : req.headers) {
      if (!isPseudoHeader(name)) headers.push_back(Json::array({name, value}));
    }
    Json echo;
    echo["method"] = req.method;
    echo["path"] = req.path;
    echo["headers"] = headers;
    echo["body_length"] = req.body.size();
    res.set_content(dump(echo), "application/json");
  }

  Json requestsJson() const {
    std::lock_guard lock(mu);
    Json out = Json::array();
    for (const RecordedRequest& r : recorded) {
      Json items = Json::array(), headers = Json::array();
      for (const auto& [k, v] : r.queryItems) items.push_back(Json::array({k, v}));
      for (const auto& [k, v] : r.headers) headers.push_back(Json::array({k, v}));
      out.push_back(Json{{"method", r.method},
                         {"path", r.path},
                         {"query", r.rawQuery},
                         {"query_items", items},
                         {"headers", headers},
                         {"body_length", r.body.size()},
                         {"body_base64", base64(r.body)}});
    }
    return out;
  }

  void routes() {
    server.new_task_queue = [] { return new httplib::ThreadPool(kServerThreads); };
    server.set_tcp_nodelay(true);  // answers are written in pieces; do not let them wait for ACKs
    // The HTTP library inflates request bodies by their Content-Encoding before any handler runs, and its
    // "deflate" is the zlib-wrapped form; uploads carry raw DEFLATE and the service wants the bytes as
    // sent. So the header is set aside before the body is read (the request is not const at this point)
    // and given back its name in the record.
    server.set_pre_routing_handler([](const httplib::Request& req, httplib::Response&) {
      auto& mutableRequest = const_cast<httplib::Request&>(req);
      if (mutableRequest.has_header("Content-Encoding")) {
        std::string encoding = mutableRequest.get_header_value("Content-Encoding");
        mutableRequest.headers.erase("Content-Encoding");
        mutableRequest.headers.emplace(kSetAsideEncoding, encoding);
      }
      return httplib::Server::HandlerResponse::Unhandled;
    });
    server.Get("/bag", [this](const httplib::Request& req, httplib::Response& res) { handleBag(req, res); });
    server.Get("/search", [this](const httplib::Request& req, httplib::Response& res) {
      // One endpoint serves three request kinds, told apart as the daemon builds them: zero keyword
      // carries "qtype=zkw", a look-up carries "ltype".
      const bool zkw = req.get_param_value("qtype") == "zkw";
      const bool lookup = req.has_param("ltype");
      handleSearch(req, res, [&](const std::string& q, const SearchControl& c) {
        if (zkw) return SearchCorpus::zeroKeyword(c.maxAge, baseURL());
        if (lookup) return SearchCorpus::lookup(q, baseURL());
        return SearchCorpus::search(q, c.maxAge, baseURL(),
                                    SearchCorpus::splitLocalCompletions(req.get_param_value("lc")));
      });
    });
    server.Get("/more", [this](const httplib::Request& req, httplib::Response& res) {
      handleSearch(req, res, [&](const std::string& q, const SearchControl&) {
        return SearchCorpus::moreResults(q, baseURL());
      });
    });
    server.Get("/card", [this](const httplib::Request& req, httplib::Response& res) {
      handleSearch(req, res, [&](const std::string& q, const SearchControl&) {
        return SearchCorpus::card(q, baseURL());
      });
    });
    server.Get("/lookup", [this](const httplib::Request& req, httplib::Response& res) {
      handleSearch(req, res, [&](const std::string& q, const SearchControl&) {
        return SearchCorpus::lookup(q, baseURL());
      });
    });
    server.Get("/flight", [this](const httplib::Request& req, httplib::Response& res) {
      handleSearch(req, res,
                   [](const std::string& q, const SearchControl&) { return SearchCorpus::flights(q); });
    });
    server.Get("/warm", [this](const httplib::Request& req, httplib::Response& res) {
      record(req);
      res.set_content("", "text/plain");
    });
    server.Post("/_control/search", [this](const httplib::Request& req, httplib::Response& res) {
      applyControl(req, res, "search", &RefServer::parseSearchControl, searchControl,
                   [](const SearchControl& c) {
                     return Json{{"status", c.status}};
                   });
    });
    server.Post("/_control/bag", [this](const httplib::Request& req, httplib::Response& res) {
      applyControl(req, res, "bag", &RefServer::parseBagControl, control, [](const BagControl& c) {
        return Json{{"mode", modeName(c.mode)}};
      });
    });
    server.Get("/_requests", [this](const httplib::Request&, httplib::Response& res) {
      res.set_content(dump(requestsJson()), "application/json");
    });
    server.Delete("/_requests", [this](const httplib::Request&, httplib::Response& res) {
      std::lock_guard lock(mu);
      recorded.clear();
      counts.clear();
      res.status = 204;
    });
    server.Get("/_counts", [this](const httplib::Request&, httplib::Response& res) {
      Json out = Json::object();
      {
        std::lock_guard lock(mu);
        for (const auto& [path, n] : counts) out[path] = n;
      }
      res.set_content(dump(out), "application/json");
    });
    auto echo = [this](const httplib::Request& req, httplib::Response& res) { handleEcho(req, res); };
    server.Get("/_echo", echo);
    server.Post("/_echo", echo);
    server.Put("/_echo", echo);
    server.Delete("/_echo", echo);
    server.Get("/_redirect", [this](const httplib::Request& req, httplib::Response& res) {
      record(req);
      std::string to = req.get_param_value("to");
      if (to.empty() || to[0] != '/') {
        res.status = 400;
        return;
      }
      res.set_redirect(baseURL() + to, 302);
    });
    inbox = std::make_unique<FeedbackInbox>(
        FeedbackInbox::Hooks{[this](const httplib::Request& req) { record(req); },
                             [this](const httplib::Request& req) { drop(req); },
                             [this](int ms) { pause(ms); }, kSetAsideEncoding});
    inbox->install(server);
    resources.routes(
        server, [this](const httplib::Request& req) { record(req); }, [this] { return baseURL(); });
    auto notFound = [this](const httplib::Request& req, httplib::Response& res) {
      record(req);
      res.status = 404;
    };
    server.Get(".*", notFound);
    server.Post(".*", notFound);
    server.Put(".*", notFound);
    server.Delete(".*", notFound);
  }
};

RefServer::RefServer() : impl_(std::make_unique<Impl>()) {
  impl_->routes();
}

ResourceFiles& RefServer::resources() {
  return impl_->resources;
}

RefServer::~RefServer() {
  stop();
}

bool RefServer::start(const std::string& host, int port) {
  if (impl_->started) return true;
  impl_->host = host;
  if (port == 0) {
    port = impl_->server.bind_to_any_port(host);
    if (port <= 0) {
      log().error("refserver: cannot bind {} on any port", host);
      return false;
    }
  } else if (!impl_->server.bind_to_port(host, port)) {
    log().error("refserver: cannot bind {}:{}", host, port);
    return false;
  }
  impl_->port = port;
  impl_->started = true;
  impl_->thread = std::thread([this] {
    // Worker threads are made by this thread and inherit the mask: a write to a connection that was
    // dropped fails with EPIPE instead of raising SIGPIPE.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    impl_->server.listen_after_bind();
  });
  // stop() must not race the accept loop's start: a stop issued before the loop runs would be missed and
  // the loop would then serve for ever. The loop announces itself through is_running().
  while (!impl_->server.is_running()) std::this_thread::sleep_for(std::chrono::microseconds(200));
  return true;
}

void RefServer::stop() {
  if (!impl_->started) return;
  impl_->resources.stop();
  {
    std::lock_guard lock(impl_->mu);
    impl_->stopping = true;
  }
  impl_->wake.notify_all();
  impl_->server.stop();
  // Idle keep-alive connections would hold their workers until they time out.
  forEachServerConnection(impl_->port, "", -1, [](int fd) { ::shutdown(fd, SHUT_RDWR); });
  if (impl_->thread.joinable()) impl_->thread.join();
  impl_->started = false;
}

int RefServer::port() const {
  return impl_->port;
}

std::string RefServer::baseURL() const {
  return impl_->baseURL();
}

void RefServer::setBagControl(BagControl control) {
  std::lock_guard lock(impl_->mu);
  impl_->control = std::move(control);
}

RefServer::BagControl RefServer::bagControl() const {
  std::lock_guard lock(impl_->mu);
  return impl_->control;
}

std::string RefServer::bagBody() const {
  BagControl c = bagControl();
  return impl_->bag(c.version, c.extra);
}

void RefServer::setSearchControl(SearchControl control) {
  std::lock_guard lock(impl_->mu);
  impl_->searchControl = std::move(control);
}

void RefServer::releaseHeld() {
  {
    std::lock_guard lock(impl_->mu);
    impl_->holdsReleased = true;
  }
  impl_->wake.notify_all();
}

RefServer::SearchControl RefServer::searchControl() const {
  std::lock_guard lock(impl_->mu);
  return impl_->searchControl;
}

FeedbackInbox& RefServer::feedbackInbox() {
  return *impl_->inbox;
}

size_t RefServer::requestCount(std::string_view path) const {
  std::lock_guard lock(impl_->mu);
  auto it = impl_->counts.find(std::string(path));
  return it == impl_->counts.end() ? 0 : it->second;
}

std::vector<RefServer::RecordedRequest> RefServer::requests() const {
  std::lock_guard lock(impl_->mu);
  return impl_->recorded;
}

void RefServer::clearRequests() {
  std::lock_guard lock(impl_->mu);
  impl_->recorded.clear();
  impl_->counts.clear();
}

bool RefServer::parseBagControl(std::string_view text, BagControl* out, std::string* error) {
  Json doc = Json::parse(text.begin(), text.end(), nullptr, false);
  if (doc.is_discarded() || !doc.is_object()) {
    *error = "not a JSON object";
    return false;
  }
  BagControl c;
  if (auto it = doc.find("mode"); it != doc.end()) {
    static const std::map<std::string, BagMode> kModes = {
        {"ok", BagMode::Ok},       {"status", BagMode::Status}, {"empty", BagMode::Empty},
        {"array", BagMode::Array}, {"slow", BagMode::Slow},     {"drop", BagMode::Drop}};
    auto mode = it->is_string() ? kModes.find(it->get<std::string>()) : kModes.end();
    if (mode == kModes.end()) {
      *error = "unknown mode " + dump(*it);
      return false;
    }
    c.mode = mode->second;
  }
  if (auto it = doc.find("status"); it != doc.end()) {
    if (!it->is_number_integer() || it->get<int64_t>() < 100 || it->get<int64_t>() > 599) {
      *error = "status must be an integer from 100 to 599";
      return false;
    }
    c.status = it->get<int>();
  }
  if (auto it = doc.find("delay_ms"); it != doc.end()) {
    if (!it->is_number_integer() || it->get<int64_t>() < 0 || it->get<int64_t>() > 600000) {
      *error = "delay_ms must be an integer from 0 to 600000";
      return false;
    }
    c.delayMs = it->get<int>();
  }
  if (auto it = doc.find("version"); it != doc.end()) {
    if (it->is_string()) {
      c.version = it->get<std::string>();
    } else if (it->is_number_integer()) {
      c.version = std::to_string(it->get<int64_t>());
    } else {
      *error = "version must be a string or an integer";
      return false;
    }
  }
  if (auto it = doc.find("extra"); it != doc.end()) {
    if (!it->is_object()) {
      *error = "extra must be an object";
      return false;
    }
    c.extra = dump(*it);
  }
  *out = std::move(c);
  return true;
}

bool RefServer::parseSearchControl(std::string_view text, SearchControl* out, std::string* error) {
  Json doc = Json::parse(text.begin(), text.end(), nullptr, false);
  if (doc.is_discarded() || !doc.is_object()) {
    *error = "not a JSON object";
    return false;
  }
  SearchControl c;
  auto integer = [&](const char* key, int64_t lo, int64_t hi, int* into) {
    auto it = doc.find(key);
    if (it == doc.end()) return true;
    if (!it->is_number_integer() || it->get<int64_t>() < lo || it->get<int64_t>() > hi) {
      *error = fmt::format("{} must be an integer from {} to {}", key, lo, hi);
      return false;
    }
    *into = static_cast<int>(it->get<int64_t>());
    return true;
  };
  if (!integer("status", 100, 599, &c.status) || !integer("delay_ms", 0, 600000, &c.delayMs) ||
      !integer("max_age", 0, 86400, &c.maxAge))
    return false;
  if (auto it = doc.find("force_fetch"); it != doc.end()) {
    if (!it->is_string()) {
      *error = "force_fetch must be a string";
      return false;
    }
    c.forceFetch = it->get<std::string>();
  }
  if (auto it = doc.find("server_timing"); it != doc.end()) {
    if (!it->is_boolean()) {
      *error = "server_timing must be a boolean";
      return false;
    }
    c.serverTiming = it->get<bool>();
  }
  *out = std::move(c);
  return true;
}

}  // namespace vorlen
