#include "ipc/IpcConnection.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>

#include "ipc/IpcTestSupport.h"

namespace vorlen {
namespace {

using test::eventually;
using test::Inbox;
using Reason = IpcConnection::CloseReason;

class IpcConnectionTest : public test::IpcFixture {};

TEST_F(IpcConnectionTest, RepliesCarryEveryValueKindAndRunInOrderOnTheCallersQueueOnce) {
  auto server = startServer();
  auto client = connectClient(server);
  ASSERT_TRUE(client);
  ScopedLogCapture capture;
  // The plist coding itself is the archive's; here: values that need care on the wire survive the trip.
  Value payload =
      Value::dict({{"huge", Value(uint64_t{18446744073709551615ull})},
                   {"date", Value(Time(std::chrono::milliseconds(1767225600250)))},
                   {"error", Value::record("VORError").set("domain", "VORErrorDomain").set("code", 500)}});
  auto inbox = std::make_shared<Inbox<std::pair<Value, bool>>>();
  auto collect = [inbox, client](const IpcMessage& m) {
    inbox->put({m.arg(0), client->queue()->isCurrent()});
  };
  ASSERT_TRUE(client->call("echo:reply:", {payload}, collect));
  ASSERT_TRUE(client->call("twice:reply:", {}, collect));
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(client->call("echo:reply:", {Value(i)}, collect));
  ASSERT_TRUE(inbox->waitFor(22));
  auto got = inbox->items();
  EXPECT_EQ(got[0].first, payload) << got[0].first.describe();
  EXPECT_EQ(got[1].first, Value("first"));
  for (int i = 0; i < 20; ++i) EXPECT_EQ(got[i + 2].first, Value(i));
  for (const auto& [value, onQueue] : got) EXPECT_TRUE(onQueue) << value.describe();
  EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Fault, "sent twice"), 1u);
  EXPECT_EQ(client->pendingReplyCount(), 0u);

  // Without a reply handler the call carries no serial, so the server has nobody to answer.
  ASSERT_TRUE(client->send("echo:reply:", {Value("unanswered")}));
  EXPECT_EQ(echo(client, "answered"), Value("answered"));
  EXPECT_EQ(inbox->size(), 22u);
}

TEST_F(IpcConnectionTest, CallsAreServedInOrderOnTheConnectionQueueEachAfterTheHook) {
  IpcListenerOptions options = listenerOptions();
  // A tiny backlog makes the connection stop and restart reading many times along the way.
  options.connection.maxIncomingBacklogBytes = 4096;
  auto server = startServer(options);
  auto client = connectClient(server);
  ASSERT_TRUE(client);
  constexpr uint64_t kCalls = 400;
  for (uint64_t i = 0; i < kCalls; ++i) ASSERT_TRUE(client->send("record:", {Value(i)}));
  ASSERT_TRUE(recorded->calls.waitFor(kCalls));
  auto calls = recorded->calls.items();
  for (uint64_t i = 0; i < kCalls; ++i) {
    EXPECT_EQ(calls[i].value, i);
    EXPECT_TRUE(calls[i].onConnectionQueue);
    EXPECT_EQ(calls[i].hooksBefore, static_cast<int>(i + 1));
  }
}

TEST_F(IpcConnectionTest, ClosingEitherSideRunsEachInvalidationHandlerOnceAndInterruptionOnlyForThePeer) {
  auto server = startServer();
  auto a = connectClient(server);
  auto serverA = server->waitAccepted(0);
  ASSERT_TRUE(a && serverA);
  a->invalidate();
  EXPECT_EQ(server->waitClosed(serverA), Reason::PeerClosed);
  EXPECT_EQ(server->interruptions(serverA), 1);
  ASSERT_TRUE(eventually([&] { return *clientInvalidations[0] == 1; }));
  EXPECT_EQ(a->closeReason(), Reason::Invalidated);

  auto b = connectClient(server);
  auto serverB = server->waitAccepted(1);
  ASSERT_TRUE(b && serverB);
  auto interrupted = std::make_shared<std::atomic<int>>(0);
  b->setInterruptionHandler([interrupted] { ++*interrupted; });
  serverB->invalidate();
  serverB->invalidate();
  EXPECT_EQ(server->waitClosed(serverB), Reason::Invalidated);
  ASSERT_TRUE(eventually([&] { return *clientInvalidations[1] == 1; }));
  EXPECT_EQ(b->closeReason(), Reason::PeerClosed);
  EXPECT_EQ(*interrupted, 1);
  EXPECT_EQ(server->interruptions(serverB), 0);

  // Nothing runs twice: drain the queues and count again.
  a->queue()->sync([] {});
  serverB->queue()->sync([] {});
  EXPECT_EQ(*clientInvalidations[0], 1);
  EXPECT_EQ(server->invalidations(serverA), 1);
  EXPECT_EQ(server->invalidations(serverB), 1);
}

TEST_F(IpcConnectionTest, PendingRepliesAreDroppedWhenTheConnectionClosesAndReportedAsProxyErrors) {
  auto server = startServer();
  auto client = connectClient(server);
  auto serverSide = server->waitAccepted(0);
  ASSERT_TRUE(client && serverSide);
  auto errors = std::make_shared<Inbox<std::string>>();
  client->setProxyErrorHandler([errors](const std::string& why) { errors->put(why); });
  auto replies = std::make_shared<std::atomic<int>>(0);
  auto count = [replies](const IpcMessage&) { ++*replies; };
  ASSERT_TRUE(client->call("ignore:reply:", {}, count));
  ASSERT_TRUE(client->call("ignore:reply:", {}, count));
  ASSERT_TRUE(eventually([&] { return recorded->ignored == 2; }));
  EXPECT_EQ(client->pendingReplyCount(), 2u);

  serverSide->invalidate();
  ASSERT_TRUE(eventually([&] { return *clientInvalidations[0] == 1; }));
  EXPECT_EQ(errors->size(), 2u);
  EXPECT_EQ(client->pendingReplyCount(), 0u);

  // Handlers were released at invalidation; a new one hears of calls refused on the closed connection.
  client->setProxyErrorHandler([errors](const std::string& why) { errors->put(why); });
  EXPECT_FALSE(client->call("echo:reply:", {Value(1)}, count));
  ASSERT_TRUE(errors->waitFor(3));
  EXPECT_EQ(errors->items()[2], "call echo:reply: (1 args) not sent: connection closed");
  EXPECT_EQ(client->pendingReplyCount(), 0u);
  EXPECT_EQ(*replies, 0);
}

TEST_F(IpcConnectionTest, UnknownOperationsAndBadArgumentsAreLoggedOnceAndIgnored) {
  auto server = startServer();
  auto client = connectClient(server);
  ASSERT_TRUE(client);
  ScopedLogCapture capture;
  auto replies = std::make_shared<std::atomic<int>>(0);
  ASSERT_TRUE(client->call("bogus:reply:", {}, [replies](const IpcMessage&) { ++*replies; }));
  ASSERT_TRUE(
      client->call("echo:reply:", {Value(1), Value(2)}, [replies](const IpcMessage&) { ++*replies; }));
  ASSERT_TRUE(client->send("record:", {Value("not a number")}));
  EXPECT_EQ(echo(client, "still here"), Value("still here"));

  EXPECT_EQ(*replies, 0);
  EXPECT_EQ(client->pendingReplyCount(), 2u);
  EXPECT_EQ(recorded->calls.size(), 0u);
  for (const char* line :
       {"unknown operation bogus:reply: on TestIPC", "echo:reply: takes 1 arguments, got 2",
        "record: argument 0: expected unsigned integer"}) {
    EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error, line), 1u) << line;
  }
  EXPECT_TRUE(client->isValid());
}

TEST_F(IpcConnectionTest, FileHandlesTravelBothWaysAsDescriptors) {
  auto server = startServer();
  auto client = connectClient(server);
  ASSERT_TRUE(client);
  // Client to server: the read end of a pipe, read through on the other side.
  int p[2];
  ASSERT_EQ(::pipe2(p, O_CLOEXEC), 0);
  UniqueFd writeEnd(p[1]);
  IpcMessage call = IpcMessage::call("readFd:reply:");
  call.args().push_back(call.attach(UniqueFd(p[0])));
  auto data = std::make_shared<Inbox<Value>>();
  ASSERT_TRUE(client->call(std::move(call), [data](const IpcMessage& m) { data->put(m.arg(0)); }));
  ASSERT_EQ(::write(writeEnd.get(), "through the pipe", 16), 16);
  writeEnd.reset();
  ASSERT_TRUE(data->waitFor(1));
  Value received = data->items()[0];
  ASSERT_TRUE(received.isData());
  EXPECT_EQ(std::string(received.getData()->begin(), received.getData()->end()), "through the pipe");

  // Server to client: a reply carrying an open file.
  test::writeFile(dir / "resource", "abc");
  auto file = std::make_shared<Inbox<std::string>>();
  ASSERT_TRUE(
      client->call("openFile:reply:", {Value((dir / "resource").string())}, [file](const IpcMessage& m) {
        UniqueFd fd = m.takeFileHandle(m.arg(0));
        char buf[16];
        ssize_t n = fd ? ::read(fd.get(), buf, sizeof(buf)) : -1;
        file->put(n > 0 ? std::string(buf, static_cast<size_t>(n)) : "<none>");
      }));
  ASSERT_TRUE(file->waitFor(1));
  EXPECT_EQ(file->items()[0], "abc");
}

TEST_F(IpcConnectionTest, PeerCredentialsNameThisProcessAndConnectFailuresSayWhy) {
  auto server = startServer();
  auto client = connectClient(server);
  auto serverSide = server->waitAccepted(0);
  ASSERT_TRUE(client && serverSide);
  EXPECT_EQ(serverSide->peer().pid, ::getpid());
  EXPECT_EQ(serverSide->peer().uid, ::getuid());
  EXPECT_EQ(serverSide->peer().executableName,
            std::filesystem::read_symlink("/proc/self/exe").filename().string());
  int err = 0;
  EXPECT_FALSE(IpcPeer::executableNameForPid(INT_MAX, &err));
  EXPECT_EQ(err, ENOENT);
  std::string error;
  EXPECT_FALSE(IpcConnection::connect(dir / "nobody-listens", connectionOptions(), &error));
  EXPECT_NE(error.find("No such file or directory"), std::string::npos) << error;
}

}  // namespace
}  // namespace vorlen
