// libvorlen-client against a real listener on a private folder (ScriptedDaemon).
#include "client/VorlenClient.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "client/ScriptedDaemon.h"
#include "model/QXFeedback.h"
#include "model/VORRequest.h"

namespace vorlen::test {
namespace {

VORSessionConfiguration testConfiguration() {
  VORSessionConfiguration c;
  c.identifier = "com.example.client";
  c.userAgent = "ClientTest/1.0";
  return c;
}

class VorlenClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Log::setSink(sink);
    daemon = std::make_unique<ScriptedDaemon>(socket, dir.path(), runtime);
    client = makeClient();
  }
  void TearDown() override {
    client.reset();
    daemon.reset();
    Log::setSink(nullptr);
  }

  std::shared_ptr<VorlenClient> makeClient(std::shared_ptr<Clock> clock = nullptr) {
    VorlenClientOptions o;
    o.socketPath = socket;
    o.runtime = runtime;
    o.clock = std::move(clock);
    return VorlenClient::create(o);
  }

  TempDir dir;
  std::filesystem::path socket = dir / "vorlend.sock";
  std::shared_ptr<IpcRuntime> runtime = IpcRuntime::create();
  std::shared_ptr<CapturingSink> sink = std::make_shared<CapturingSink>();
  std::unique_ptr<ScriptedDaemon> daemon;
  std::shared_ptr<VorlenClient> client;
};

TEST_F(VorlenClientTest, ConfigureThenCallsGoOutInOrderOnOneConnection) {
  ClientResult<IpcEndpoint> endpoint = client->configure(testConfiguration());
  ASSERT_TRUE(endpoint.ok()) << endpoint.errorText();
  EXPECT_EQ(*endpoint.value, daemon->endpoint());
  EXPECT_EQ(client->endpoint(), daemon->endpoint());

  ClientResult<std::vector<SessionInfo>> sessions = client->listSessions();
  ASSERT_TRUE(sessions.ok()) << sessions.errorText();
  EXPECT_EQ(*sessions.value, (std::vector<SessionInfo>{{"com.example.a", "A/1"}}));

  VORSearchRequest search;
  search.queryId = 17;
  search.queryString = "weather";
  ClientResult<RequestReply> reply = client->request(search);
  ASSERT_TRUE(reply.ok()) << reply.errorText();
  EXPECT_EQ(reply.value->queryId, 17u);
  ASSERT_TRUE(reply.value->reply);
  EXPECT_EQ(reply.value->reply->data, (Value::Data{'o', 'k'}));
  EXPECT_FALSE(reply.value->error);

  ClientResult<BagReply> bag = client->bag();
  ASSERT_TRUE(bag.ok()) << bag.errorText();
  ASSERT_TRUE(bag.value->bag);
  EXPECT_EQ(bag.value->bag->version(), "42");

  ClientResult<Value::Dict> images = client->getImageMap();
  ASSERT_TRUE(images.ok()) << images.errorText();
  EXPECT_EQ(images.value->size(), 1u);

  EXPECT_EQ(daemon->opsOn(0), (std::vector<std::string>{"configure:reply:", "listSessions:", "request:reply:",
                                                        "bag:", "getImageMap:"}));
  // The configuration and the request travel as records the daemon can decode.
  std::vector<ScriptedDaemon::Call> calls = daemon->calls();
  EXPECT_EQ(VORSessionConfiguration::fromRecord(calls[0].args[0]), testConfiguration());
  std::shared_ptr<VORRequest> sent = VORRequest::fromRecord(calls[2].args[0]);
  ASSERT_TRUE(sent);
  EXPECT_TRUE(sent->equals(search));
}

TEST_F(VorlenClientTest, AfterThePeerClosesTheNextCallReconnectsAndConfiguresFirst) {
  ASSERT_TRUE(client->configure(testConfiguration()).ok());
  ASSERT_TRUE(client->listSessions().ok());

  // The daemon closes the connection (idle time-out, restart): the client notices.
  daemon->server->waitAccepted(0)->invalidate();
  ASSERT_TRUE(eventually([&] { return !client->isConnected(); }));

  ClientResult<std::vector<SessionInfo>> sessions = client->listSessions();
  ASSERT_TRUE(sessions.ok()) << sessions.errorText();
  EXPECT_EQ(daemon->opsOn(1), (std::vector<std::string>{"configure:reply:", "listSessions:"}));
  std::vector<ScriptedDaemon::Call> calls = daemon->calls();
  EXPECT_EQ(VORSessionConfiguration::fromRecord(calls[2].args[0]), testConfiguration());

  // A whole daemon restart on the same socket path is survived the same way.
  daemon.reset();
  ASSERT_TRUE(eventually([&] { return !client->isConnected(); }));
  ClientResult<BagReply> down = client->bag();
  ASSERT_FALSE(down.ok());
  EXPECT_EQ(down.error->kind, ClientError::Kind::Unreachable);
  EXPECT_NE(down.errorText().find(socket.string()), std::string::npos) << down.errorText();

  daemon = std::make_unique<ScriptedDaemon>(socket, dir.path(), runtime);
  ASSERT_TRUE(client->bag().ok());
  EXPECT_EQ(daemon->opsOn(0), (std::vector<std::string>{"configure:reply:", "bag:"}));
}

TEST_F(VorlenClientTest, WithoutConfigurationNothingIsSentBeforeTheCall) {
  ASSERT_TRUE(client->bag().ok());
  EXPECT_EQ(daemon->opsOn(0), std::vector<std::string>{"bag:"});
}

TEST_F(VorlenClientTest, CallPendingWhenThePeerClosesEndsWithConnectionLost) {
  daemon->neverAnswer("bag:");
  auto closer = std::thread([&] {
    auto c = daemon->server->waitAccepted(0);
    eventually([&] { return daemon->calls().size() == 1; });
    c->invalidate();
  });
  ClientResult<BagReply> bag = client->bag();
  closer.join();
  ASSERT_FALSE(bag.ok());
  EXPECT_EQ(bag.error->kind, ClientError::Kind::ConnectionLost);
  EXPECT_EQ(client->pendingCallCount(), 0u);
}

TEST_F(VorlenClientTest, NoDaemonIsAnUnreachableErrorNotAHang) {
  daemon.reset();
  ClientResult<IpcEndpoint> r = client->configure(testConfiguration());
  ASSERT_FALSE(r.ok());
  EXPECT_EQ(r.error->kind, ClientError::Kind::Unreachable);
  // Callback form: the callback still runs, once, on the client's queue.
  Inbox<bool> onQueue;
  client->listSessions([&](ClientResult<std::vector<SessionInfo>> s) {
    onQueue.put(!s.ok() && client->queue()->isCurrent());
  });
  ASSERT_TRUE(onQueue.waitFor(1));
  EXPECT_TRUE(onQueue.items()[0]);
}

TEST_F(VorlenClientTest, UnansweredCallTimesOutAndALateReplyIsDropped) {
  auto clock = std::make_shared<ManualClock>();
  client = makeClient(clock);
  daemon->neverAnswer("request:reply:");
  auto advancer = std::thread([&] {
    eventually([&] { return client->pendingCallCount() == 1 && daemon->calls().size() == 1; });
    clock->advance(seconds(9));  // not yet
    clock->advance(seconds(1.5));
  });
  VORSearchRequest search;
  search.queryId = 3;
  ClientResult<RequestReply> r = client->request(search);
  advancer.join();
  ASSERT_FALSE(r.ok());
  EXPECT_EQ(r.error->kind, ClientError::Kind::TimedOut);
  EXPECT_EQ(r.errorText(), "timed out after 10 s");
  EXPECT_EQ(client->pendingCallCount(), 0u);

  // The connection stays usable, and the time-out of the first call does not touch the next one.
  daemon->script("request:reply:", Value::Array{});
  search.queryId = 4;
  ClientResult<RequestReply> next = client->request(search);
  ASSERT_TRUE(next.ok()) << next.errorText();
  EXPECT_EQ(next.value->queryId, 4u);
}

TEST_F(VorlenClientTest, MalformedRepliesAreErrorsAndTheClientCarriesOn) {
  struct Case {
    const char* name;
    std::string op;
    Value::Array reply;
    std::function<std::optional<ClientError>(VorlenClient&)> call;
  };
  auto bag = [](VorlenClient& c) { return c.bag().error; };
  auto request = [](VorlenClient& c) {
    VORSearchRequest r;
    r.queryId = 1;
    return c.request(r).error;
  };
  auto sessions = [](VorlenClient& c) { return c.listSessions().error; };
  auto images = [](VorlenClient& c) { return c.getImageMap().error; };
  auto feedback = [](VorlenClient& c) { return c.feedback().error; };
  auto configure = [](VorlenClient& c) { return c.configure(testConfiguration()).error; };
  Value badBag = ScriptedDaemon::bagRecord();
  badBag.set("unexpected", 1);
  std::vector<Case> cases = {
      {"bag with one argument", "bag:", {ScriptedDaemon::bagRecord()}, bag},
      {"error record where the bag belongs", "bag:", {VORError::make(2, "x").toRecord(), Value()}, bag},
      {"bag with an unknown key", "bag:", {badBag, Value()}, bag},
      {"bag as a plain string", "bag:", {Value("bag"), Value()}, bag},
      {"negative query id", "request:reply:", {Value(-1), Value(), Value()}, request},
      {"query id as text", "request:reply:", {Value("1"), Value(), Value()}, request},
      {"error without code",
       "request:reply:",
       {Value(1), Value(), Value::dict({{"$class", "VORError"}, {"domain", "d"}})},
       request},
      {"session without agent",
       "listSessions:",
       {Value::array({Value::dict({{"identifier", "a"}})})},
       sessions},
      {"sessions not an array", "listSessions:", {Value::dict({})}, sessions},
      {"image map as a record", "getImageMap:", {ScriptedDaemon::bagRecord()}, images},
      {"feedback event not a dictionary", "feedback:reply:", {Value::array({Value(1)}), Value()}, feedback},
      {"endpoint without path", "configure:reply:", {Value::dict({{"$class", "Endpoint"}})}, configure},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    daemon->script(c.op, c.reply);
    sink->clear();
    std::optional<ClientError> error = c.call(*client);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind, ClientError::Kind::MalformedReply) << error->message;
    EXPECT_NE(error->message.find(c.op), std::string::npos) << error->message;
    EXPECT_EQ(countLogLines(*sink, LogLevel::Error, "malformed reply to " + c.op), 1u);
  }
  // Every bad reply was answered on the first connection, which is still in use.
  EXPECT_EQ(daemon->server->acceptedCount(), 1u);
  daemon->script("bag:", Value::Array{ScriptedDaemon::bagRecord(), Value()});
  EXPECT_TRUE(client->bag().ok());
}

TEST_F(VorlenClientTest, DaemonCallbacksArriveCheckedOnTheClientQueue) {
  struct Seen {
    std::string what;
    bool onQueue;
  };
  Inbox<Seen> seen;
  client->onBagDidLoad([&](std::optional<VORBag> bag, std::optional<VORError> error) {
    seen.put({"bag " + bag.value_or(VORBag({}, "")).version().value_or("-") + (error ? " error" : ""),
              client->queue()->isCurrent()});
  });
  client->onDidDownloadResource([&](const std::string& id) {
    seen.put({"downloaded " + id, client->queue()->isCurrent()});
  });
  client->onDidDeleteResource([&](const std::string& id) {
    seen.put({"deleted " + id, client->queue()->isCurrent()});
  });
  Value badBag = ScriptedDaemon::bagRecord();
  badBag.set("rawBag", "not a dictionary");
  daemon->afterConfigure([&](IpcConnection& c) {
    c.send("bagDidLoad:error:", {badBag, Value()});        // bad record: dropped
    c.send("bagDidLoad:error:", {Value("bag"), Value()});  // wrong type: dropped
    c.send("didDownloadResource:", {Value(5)});            // wrong type: dropped
    c.send("bagDidLoad:error:", {ScriptedDaemon::bagRecord(), Value()});
    c.send("bagDidLoad:error:", {Value(), VORError::make(1, "timeout").toRecord()});
    c.send("didDownloadResource:", {Value("lookup_hints_weekly")});
    c.send("didDeleteResource:", {Value("installed_app_whitelist")});
  });
  ASSERT_TRUE(client->configure(testConfiguration()).ok());
  ASSERT_TRUE(seen.waitFor(4));
  // A listSessions round trip after the callbacks flushes anything that was still on its way.
  ASSERT_TRUE(client->listSessions().ok());
  std::vector<Seen> items = seen.items();
  ASSERT_EQ(items.size(), 4u);
  EXPECT_EQ(items[0].what, "bag 42");
  EXPECT_EQ(items[1].what, "bag - error");
  EXPECT_EQ(items[2].what, "downloaded lookup_hints_weekly");
  EXPECT_EQ(items[3].what, "deleted installed_app_whitelist");
  for (const Seen& s : items) EXPECT_TRUE(s.onQueue) << s.what;
}

TEST_F(VorlenClientTest, ResourceFileArrivesAsAReadableDescriptor) {
  writeFile(dir / "hints.bin", "hint-bytes");
  daemon->serveResource(dir / "hints.bin");
  ClientResult<ResourceFile> r = client->fileHandleForResource("lookup_hints_weekly");
  ASSERT_TRUE(r.ok()) << r.errorText();
  ASSERT_TRUE(r.value->file.valid());
  char buf[64] = {};
  ssize_t n = ::pread(r.value->file.get(), buf, sizeof(buf), 0);
  EXPECT_EQ(std::string(buf, n > 0 ? n : 0), "hint-bytes");
  EXPECT_EQ(r.value->attributes.at("version"), Value("7"));
  EXPECT_FALSE(r.value->error);
  EXPECT_EQ(daemon->calls().back().args, Value::Array{Value("lookup_hints_weekly")});

  daemon->serveResource({});
  ClientResult<ResourceFile> missing = client->fileHandleForResource("nothing");
  ASSERT_TRUE(missing.ok()) << missing.errorText();
  EXPECT_FALSE(missing.value->file.valid());
  ASSERT_TRUE(missing.value->error);
  EXPECT_EQ(missing.value->error->code, 404);

  // A FileHandle record whose descriptor never came is a malformed reply, not a crash.
  daemon->script("fileHandleAndAttributesForResource:completion:",
                 Value::Array{IpcMessage::fileHandleRecord(0), Value(), Value()});
  ClientResult<ResourceFile> broken = client->fileHandleForResource("lookup_hints_weekly");
  ASSERT_FALSE(broken.ok());
  EXPECT_EQ(broken.error->kind, ClientError::Kind::MalformedReply);
}

TEST_F(VorlenClientTest, OneWayOperationsSendTheirArgumentsAndCheckFeedbackFirst) {
  QXFeedback start("QXStartSearchFeedback", 123);
  ASSERT_TRUE(client->reportEvent("ignored", 9, start.toRecord()).ok());
  Value bad = start.toRecord();
  bad.set("noSuchField", 1);
  ClientResult<Sent> refused = client->reportEvent("ignored", 9, bad);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error->kind, ClientError::Kind::InvalidArgument);

  Time from = fromUnixSeconds(1000), to = fromUnixSeconds(2000);
  ASSERT_TRUE(client->clearEngagedCompletions(from, to).ok());
  ASSERT_TRUE(client->addCompletion("weather today", "wea").ok());
  ASSERT_TRUE(client->updateParameters({1, 2, 3, 4, 5, 6, 7}).ok());
  ASSERT_TRUE(daemon->waitForCalls(4));
  std::vector<ScriptedDaemon::Call> calls = daemon->calls();
  ASSERT_EQ(calls.size(), 4u);  // the refused event never went out
  EXPECT_EQ(calls[0].op, "reportEvent:queryId:feedback:");
  EXPECT_EQ(calls[0].args[1], Value(9));
  EXPECT_EQ(QXFeedback::fromRecord(calls[0].args[2]), start);
  EXPECT_EQ(calls[1].args, (Value::Array{Value(from), Value(to)}));
  EXPECT_EQ(calls[2].args, (Value::Array{Value("weather today"), Value("wea")}));
  EXPECT_EQ(calls[3].args, (Value::Array{Value(1.0), Value(2.0), Value(3.0), Value(4.0), Value(5.0),
                                         Value(6.0), Value(7.0)}));
}

TEST_F(VorlenClientTest, ConfigurationWithoutAgentIsRefusedBeforeSending) {
  VORSessionConfiguration c = testConfiguration();
  c.userAgent.clear();
  ClientResult<IpcEndpoint> r = client->configure(c);
  ASSERT_FALSE(r.ok());
  EXPECT_EQ(r.error->kind, ClientError::Kind::InvalidArgument);
  EXPECT_EQ(daemon->server->acceptedCount(), 0u);
}

TEST_F(VorlenClientTest, EndpointRequestUsesItsOwnConnectionAndClosesIt) {
  // The client-state endpoint: a second listener answering request:configuration:reply:.
  Inbox<Value::Array> received;
  auto endpointServer =
      TestServer::serve(IpcListener::anonymous(dir.path(),
                                               [&] {
                                                 IpcListenerOptions o;
                                                 o.connection.runtime = runtime;
                                                 return o;
                                               }()),
                        [&](const std::shared_ptr<IpcConnection>&) {
                          auto iface = std::make_shared<IpcExportedInterface>("VOREndpointIPC");
                          iface->add("request:configuration:reply:",
                                     {IpcExportedInterface::Arg::any(), IpcExportedInterface::Arg::any()},
                                     [&](const IpcMessage& m, IpcReplier reply) {
                                       received.put(m.args());
                                       reply({*m.arg(0).find("queryId"), Value(),
                                              VORError::make(500, "invalid configuration").toRecord()});
                                     });
                          return iface;
                        });
  ASSERT_TRUE(endpointServer);
  VORCardRequest card;
  card.queryId = 88;
  ClientResult<RequestReply> r =
      client->requestViaEndpoint(endpointServer->listener->endpoint(), card, testConfiguration());
  ASSERT_TRUE(r.ok()) << r.errorText();
  EXPECT_EQ(r.value->queryId, 88u);
  ASSERT_TRUE(r.value->error);
  EXPECT_EQ(r.value->error->reason(), "invalid configuration");
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received.items()[0][0].className(), "VORCardRequest");
  EXPECT_EQ(VORSessionConfiguration::fromRecord(received.items()[0][1]), testConfiguration());
  // Nothing went to the service socket, and the endpoint connection is closed once answered.
  EXPECT_EQ(daemon->server->acceptedCount(), 0u);
  EXPECT_TRUE(endpointServer->waitClosed(endpointServer->waitAccepted(0)));
  endpointServer->stop();
}

TEST_F(VorlenClientTest, DestroyingTheClientEndsItsPendingCallbacks) {
  daemon->neverAnswer("bag:");
  Inbox<ClientError::Kind> ended;
  client->bag(
      [&](ClientResult<BagReply> r) { ended.put(r.error ? r.error->kind : ClientError::Kind::TimedOut); });
  ASSERT_TRUE(eventually([&] { return client->pendingCallCount() == 1; }));
  client.reset();
  ASSERT_TRUE(ended.waitFor(1));
  EXPECT_EQ(ended.items()[0], ClientError::Kind::ConnectionLost);
}

using VorlenClientDeathTest = VorlenClientTest;

TEST_F(VorlenClientDeathTest, BlockingFormOnTheClientQueueAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        Log::setSink(nullptr);
        client->queue()->sync([&] { client->bag(); });
      },
      "blocking bag: called on the client's own queue");
}

}  // namespace
}  // namespace vorlen::test
