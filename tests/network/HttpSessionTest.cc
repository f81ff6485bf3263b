#include "network/HttpSession.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <future>

#include <nlohmann/json.hpp>

#include "base/Log.h"
#include "base/ManualClock.h"
#include "network/HttpTestSupport.h"
#include "support/TempDir.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen {
namespace {

using test::CompletionProbe;
using test::RecordingDelegate;

HttpRequest get(const std::string& url) {
  HttpRequest r;
  r.url = url;
  return r;
}

// A loopback port on which nothing listens (bound, then released).
int closedPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  ::close(fd);
  return ntohs(a.sin_port);
}

class HttpSessionTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server.start()); }

  std::shared_ptr<HttpSession> makeSession(std::weak_ptr<HttpSessionDelegate> delegate = {},
                                           size_t cacheBytes = 0, std::shared_ptr<Clock> clock = nullptr) {
    HttpSessionSettings s;
    s.name = "test";
    s.responseCacheBytes = cacheBytes;
    s.clock = std::move(clock);
    s.temporaryDirectory = temp.path();
    return HttpSession::create(s, std::move(delegate));
  }

  // Runs a data task to its end and returns the one completion call.
  CompletionProbe::Call run(const std::shared_ptr<HttpSession>& session, HttpRequest request,
                            std::shared_ptr<HttpTask>* taskOut = nullptr) {
    CompletionProbe probe(session->callbackQueue());
    auto task = session->dataTask(std::move(request), probe.handler());
    task->resume();
    EXPECT_TRUE(probe.waitFor(1));
    if (taskOut) *taskOut = task;
    return probe.last();
  }

  std::string url(const std::string& path) const { return server.baseURL() + path; }

  test::TempDir temp;
  RefServer server;
};

TEST_F(HttpSessionTest, DataTaskDeliversBodyStatusHeadersAndFinalUrlOnTheCallbackQueue) {
  auto session = makeSession();
  std::shared_ptr<HttpTask> task;
  auto call = run(session, get(url("/_redirect?to=/bag")), &task);

  ASSERT_FALSE(call.error) << call.error->message;
  ASSERT_TRUE(call.response);
  EXPECT_EQ(call.response->status, 200);
  EXPECT_EQ(call.response->url, url("/bag"));
  EXPECT_EQ(call.response->header("CONTENT-TYPE"), "application/json");
  auto bag = nlohmann::json::parse(test::text(call.data));
  EXPECT_EQ(bag["search_url"], url("/search"));
  EXPECT_TRUE(call.onCallbackQueue);
  EXPECT_FALSE(call.onIoThread);

  EXPECT_EQ(task->state(), HttpTask::State::Completed);
  auto m = task->metrics();
  ASSERT_TRUE(m);
  EXPECT_EQ(m->redirectCount, 1);
  EXPECT_EQ(m->remotePort, server.port());
  EXPECT_EQ(m->remoteAddress, "127.0.0.1");
  EXPECT_EQ(m->protocolName, "http/1.1");
  EXPECT_LE(m->connectEnd, m->requestStart);
  EXPECT_LE(m->requestStart, m->responseStart);
  EXPECT_LE(m->responseStart, m->responseEnd);
  EXPECT_GT(m->bodyBytesReceived, 0);  // compressed on the wire, so not the size of the data
  EXPECT_GT(m->headerBytesReceived, 0);
  EXPECT_TRUE(session->getAllTasks().empty());
}

TEST_F(HttpSessionTest, SecondRequestOnTheSessionReusesTheConnection) {
  auto session = makeSession();
  std::shared_ptr<HttpTask> first, second;
  run(session, get(url("/_echo")), &first);
  run(session, get(url("/_echo")), &second);
  auto a = *first->metrics(), b = *second->metrics();
  EXPECT_FALSE(a.reusedConnection);
  EXPECT_TRUE(b.reusedConnection);
  EXPECT_EQ(a.localAddress, "127.0.0.1");
  EXPECT_NE(a.localPort, 0);
  EXPECT_EQ(b.localPort, a.localPort);  // same socket
  EXPECT_EQ(b.remotePort, server.port());
}

TEST_F(HttpSessionTest, RequestHeadersAndBodyAreSentAsGiven) {
  auto session = makeSession();
  HttpRequest r = get(url("/_echo"));
  r.method = "PUT";
  r.headers = {{"X-Velmo-Test", "one two"}, {"User-Agent", "probe/1"}};
  r.body = {'{', '}'};
  auto call = run(session, r);
  ASSERT_FALSE(call.error);

  auto recorded = server.requests();
  ASSERT_EQ(recorded.size(), 1u);
  const auto& got = recorded[0];
  EXPECT_EQ(got.method, "PUT");
  EXPECT_EQ(got.body, "{}");
  EXPECT_EQ(got.header("X-Velmo-Test"), "one two");
  EXPECT_EQ(got.header("User-Agent"), "probe/1");
  EXPECT_EQ(got.header("Content-Type"), "");  // no form type we did not ask for
  EXPECT_EQ(got.header("Expect"), "");
}

// Transport failures end the task with their code and no response; requests the engine cannot send
// safely never reach the server. An HTTP error status is a response, not a transport error.
TEST_F(HttpSessionTest, FailuresEndWithTheirCodesAndAnErrorStatusIsAResponse) {
  auto session = makeSession();
  HttpRequest injected = get(url("/_echo"));
  injected.headers["X-Bad"] = "a\r\nX-Injected: 1";
  HttpRequest silent = get(url("/_echo?delay_ms=60000"));
  silent.timeoutSeconds = 0.2;
  struct Case {
    const char* name;
    HttpRequest request;
    long code;
    size_t reached;  // requests the server saw
  };
  const Case cases[] = {
      {"header injection", injected, HttpError::kBadURL, 0},
      {"unsupported scheme", get("ftp://127.0.0.1/x"), HttpError::kUnsupportedURL, 0},
      {"refused", get("http://127.0.0.1:" + std::to_string(closedPort()) + "/"),
       HttpError::kCannotConnectToHost, 0},
      {"dropped", get(url("/_echo?drop=1")), HttpError::kNetworkConnectionLost, 1},
      {"silent server", silent, HttpError::kTimedOut, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const size_t before = server.requestCount("/_echo");
    auto call = run(session, c.request);
    ASSERT_TRUE(call.error);
    EXPECT_EQ(call.error->code, c.code);
    EXPECT_EQ(call.error->domain, kVORURLErrorDomain);
    EXPECT_EQ(call.error->url, c.request.url);
    EXPECT_FALSE(call.response);
    EXPECT_TRUE(call.data.empty());
    EXPECT_EQ(server.requestCount("/_echo") - before, c.reached);
  }
  auto status = run(session, get(url("/_echo?status=500")));
  EXPECT_FALSE(status.error);
  ASSERT_TRUE(status.response);
  EXPECT_EQ(status.response->status, 500);
}

// The failures a loopback server cannot cause (no resolver, TLS, full disk): the mapping alone. The rest of
// the daemon retries and reports by these codes, so a result that falls into the wrong group is a bug.
TEST(HttpErrorTest, CurlResultsFallIntoTheCodesTheDaemonActsOn) {
  struct Case {
    CURLcode curl;
    long osErrno;
    long code;
  };
  const Case cases[] = {
      {CURLE_COULDNT_RESOLVE_HOST, 0, HttpError::kCannotFindHost},
      {CURLE_COULDNT_RESOLVE_PROXY, 0, HttpError::kCannotFindHost},
      {CURLE_COULDNT_CONNECT, ECONNREFUSED, HttpError::kCannotConnectToHost},
      {CURLE_COULDNT_CONNECT, ENETUNREACH, HttpError::kNotConnectedToInternet},
      {CURLE_COULDNT_CONNECT, ENETDOWN, HttpError::kNotConnectedToInternet},
      {CURLE_OPERATION_TIMEDOUT, 0, HttpError::kTimedOut},
      {CURLE_SEND_ERROR, EPIPE, HttpError::kNetworkConnectionLost},
      {CURLE_RECV_ERROR, ECONNRESET, HttpError::kNetworkConnectionLost},
      {CURLE_PARTIAL_FILE, 0, HttpError::kNetworkConnectionLost},
      {CURLE_HTTP2_STREAM, 0, HttpError::kNetworkConnectionLost},
      {CURLE_WEIRD_SERVER_REPLY, 0, HttpError::kBadServerResponse},
      {CURLE_SSL_CONNECT_ERROR, 0, HttpError::kSecureConnectionFailed},
      {CURLE_PEER_FAILED_VERIFICATION, 0, HttpError::kServerCertificateUntrusted},
      {CURLE_FILESIZE_EXCEEDED, 0, HttpError::kDataLengthExceedsMaximum},
      {CURLE_WRITE_ERROR, ENOSPC, HttpError::kCannotWriteToFile},
      {CURLE_ABORTED_BY_CALLBACK, 0, HttpError::kCancelled},
      {CURLE_OUT_OF_MEMORY, 0, HttpError::kUnknown},
  };
  for (const Case& c : cases) {
    HttpError e = HttpError::fromCurl(c.curl, c.osErrno, "http://h/", "");
    EXPECT_EQ(e.code, c.code) << curl_easy_strerror(c.curl) << " errno " << c.osErrno;
    EXPECT_EQ(e.domain, kVORURLErrorDomain);
  }
  HttpError detailed = HttpError::fromCurl(CURLE_COULDNT_RESOLVE_HOST, 0, "http://h/x", "no such host h");
  EXPECT_EQ(detailed.message,
            std::string(curl_easy_strerror(CURLE_COULDNT_RESOLVE_HOST)) + ": no such host h");
  EXPECT_EQ(detailed.url, "http://h/x");
}

TEST_F(HttpSessionTest, CancelEndsTheTaskOnceWithCancelled) {
  auto session = makeSession();

  // Never resumed.
  CompletionProbe suspended(session->callbackQueue());
  auto idle = session->dataTask(get(url("/_echo")), suspended.handler());
  ASSERT_EQ(session->getAllTasks().size(), 1u);
  idle->cancel();
  idle->resume();  // too late: the task has ended
  idle->cancel();
  ASSERT_TRUE(suspended.waitFor(1));
  EXPECT_EQ(suspended.last().error->code, HttpError::kCancelled);

  // In flight: the server holds the answer back until it is stopped.
  CompletionProbe running(session->callbackQueue());
  auto busy = session->dataTask(get(url("/_echo?delay_ms=60000")), running.handler());
  busy->resume();
  ASSERT_TRUE(test::eventually([&] { return server.requestCount("/_echo") == 1; }));
  EXPECT_EQ(session->getAllTasks().size(), 1u);
  busy->cancel();
  ASSERT_TRUE(running.waitFor(1));
  EXPECT_EQ(running.last().error->code, HttpError::kCancelled);
  EXPECT_TRUE(busy->error());
  EXPECT_TRUE(session->getAllTasks().empty());

  server.stop();  // wakes the held handler
  // Nothing more arrives for either task.
  auto flush = std::make_shared<std::promise<void>>();
  session->callbackQueue()->async([flush] { flush->set_value(); });
  flush->get_future().wait();
  EXPECT_EQ(suspended.count(), 1u);
  EXPECT_EQ(running.count(), 1u);
}

TEST_F(HttpSessionTest, DownloadWritesAPrivateFileThatIsRemovedAfterTheDelegateCall) {
  auto delegate = std::make_shared<RecordingDelegate>();
  auto session = makeSession(delegate);
  auto ok = session->downloadTask(get(url("/_echo?bytes=100000")));
  auto missing = session->downloadTask(get(url("/nothing-here")));
  ok->resume();
  ASSERT_TRUE(delegate->waitForCompletions(1));
  missing->resume();
  ASSERT_TRUE(delegate->waitForCompletions(2));

  std::string a = std::to_string(ok->taskIdentifier()), b = std::to_string(missing->taskIdentifier());
  EXPECT_EQ(delegate->events(), (std::vector<std::string>{"downloaded " + a, "complete " + a + " ok",
                                                          "downloaded " + b, "complete " + b + " ok"}));
  auto downloads = delegate->downloads();
  ASSERT_EQ(downloads.size(), 2u);
  EXPECT_EQ(downloads[0].mode, 0600u);
  EXPECT_EQ(downloads[0].file.parent_path(), temp.path());
  ASSERT_EQ(downloads[0].contents.size(), 100000u);
  EXPECT_EQ(downloads[0].contents.substr(0, 4), "abcd");
  EXPECT_EQ(downloads[0].contents[99999], static_cast<char>('a' + 99999 % 26));
  EXPECT_EQ(missing->response()->status, 404);  // the delegate decides what a 404 body means
  EXPECT_FALSE(std::filesystem::exists(downloads[0].file));
  EXPECT_FALSE(std::filesystem::exists(downloads[1].file));
  EXPECT_FALSE(delegate->wrongQueue());
}

TEST_F(HttpSessionTest, FailedDownloadLeavesNoFileAndOnlyReportsTheError) {
  auto delegate = std::make_shared<RecordingDelegate>();
  auto session = makeSession(delegate);
  auto task = session->downloadTask(get(url("/_echo?drop=1")));
  task->resume();
  ASSERT_TRUE(delegate->waitForCompletions(1));
  EXPECT_EQ(
      delegate->events(),
      (std::vector<std::string>{"complete " + std::to_string(task->taskIdentifier()) + " error -1005"}));
  EXPECT_TRUE(std::filesystem::is_empty(temp.path()));
}

TEST_F(HttpSessionTest, UploadSendsTheFileAndReportsProgress) {
  auto delegate = std::make_shared<RecordingDelegate>();
  auto session = makeSession(delegate);
  std::string payload(300000, '\0');
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(i * 7919 % 256);
  test::writeFile(temp / "payload", payload);

  HttpRequest r = get(url("/_echo"));
  r.headers["Content-Encoding"] = "deflate";
  auto task = session->uploadTask(r, temp / "payload");
  task->setNumberOfFeedbacks(7);
  task->resume();
  ASSERT_TRUE(delegate->waitForCompletions(1));

  EXPECT_EQ(delegate->events().back(), "complete " + std::to_string(task->taskIdentifier()) + " ok");
  EXPECT_EQ(task->response()->status, 200);
  EXPECT_EQ(task->numberOfFeedbacks(), 7u);
  auto recorded = server.requests();
  ASSERT_EQ(recorded.size(), 1u);
  EXPECT_EQ(recorded[0].method, "POST");
  EXPECT_EQ(recorded[0].header("Content-Encoding"), "deflate");
  EXPECT_TRUE(recorded[0].body == payload);
  EXPECT_GE(delegate->progressCalls(), 1);
  EXPECT_EQ(delegate->sentSum(), 300000);
  EXPECT_EQ(delegate->lastTotal(), 300000);
  EXPECT_EQ(delegate->lastExpected(), 300000);
  EXPECT_EQ(task->metrics()->bodyBytesSent, 300000);
  EXPECT_FALSE(delegate->wrongQueue());

  auto missing = session->uploadTask(get(url("/_echo")), temp / "absent");
  missing->resume();
  ASSERT_TRUE(delegate->waitForCompletions(2));
  EXPECT_EQ(delegate->events().back(), "complete " + std::to_string(missing->taskIdentifier()) + " error " +
                                           std::to_string(HttpError::kFileDoesNotExist));
  EXPECT_EQ(server.requestCount("/_echo"), 1u);
}

TEST_F(HttpSessionTest, ResponseCacheServesFreshGetsUntilPurgedOrStale) {
  auto clock = std::make_shared<ManualClock>();
  auto session = makeSession({}, 4194304, clock);
  auto echoCount = [](const CompletionProbe::Call& c) {
    return c.response->header("X-Ref-Echo-Count").value_or("");
  };

  std::shared_ptr<HttpTask> task;
  auto first = run(session, get(url("/_echo?max_age=60")));
  auto second = run(session, get(url("/_echo?max_age=60")), &task);
  EXPECT_EQ(echoCount(second), echoCount(first));
  EXPECT_EQ(second.data, first.data);
  EXPECT_TRUE(task->metrics()->servedFromCache);
  EXPECT_EQ(server.requestCount("/_echo"), 1u);

  HttpRequest reload = get(url("/_echo?max_age=60"));
  reload.cachePolicy = HttpCachePolicy::ReloadIgnoringLocalCacheData;
  EXPECT_NE(echoCount(run(session, reload)), echoCount(first));
  EXPECT_EQ(server.requestCount("/_echo"), 2u);

  session->purgeInMemoryCache();
  auto afterPurge = run(session, get(url("/_echo?max_age=60")));
  EXPECT_EQ(server.requestCount("/_echo"), 3u);
  EXPECT_EQ(echoCount(run(session, get(url("/_echo?max_age=60")))), echoCount(afterPurge));

  clock->advance(std::chrono::seconds(60));  // max-age reached: stale
  run(session, get(url("/_echo?max_age=60")));
  EXPECT_EQ(server.requestCount("/_echo"), 4u);

  // Without max-age nothing is kept, and a session without a cache never answers from one.
  run(session, get(url("/_echo")));
  run(session, get(url("/_echo")));
  EXPECT_EQ(server.requestCount("/_echo"), 6u);
  auto plain = makeSession();
  run(plain, get(url("/_echo?max_age=60")));
  EXPECT_EQ(server.requestCount("/_echo"), 7u);
}

}  // namespace
}  // namespace vorlen
