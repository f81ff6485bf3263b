// Peers that break the protocol lose their own connection, with one error line, and nobody else notices.
#include <gtest/gtest.h>

#include "base/Archive.h"
#include "ipc/IpcMemoryBudget.h"
#include "ipc/IpcTestSupport.h"
#include "support/PlistBomb.h"

namespace vorlen {
namespace {

using test::RawClient;
using Reason = IpcConnection::CloseReason;

std::vector<uint8_t> framed(const Value& root) {
  return IpcFraming::encode(root);
}
std::vector<uint8_t> framedCall(const char* op, Value::Array args = {}) {
  return framed(IpcMessage::call(op, std::move(args)).toValue());
}
std::vector<uint8_t> framedBytes(std::vector<uint8_t> payload) {
  std::vector<uint8_t> out = test::frameHeader(static_cast<uint32_t>(payload.size()));
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

class IpcRobustnessTest : public test::IpcFixture {
 protected:
  void SetUp() override {
    IpcListenerOptions options = listenerOptions();
    options.connection.maxFrameBytes = 64 * 1024;
    options.connection.maxOutgoingBytes = 1 << 20;
    server = startServer(options);
    ASSERT_TRUE(server);
    good = connectClient(server);
    ASSERT_EQ(echo(good, "before"), Value("before"));
  }
  void TearDown() override {
    good.reset();
    server.reset();
    IpcFixture::TearDown();
  }

  // Connects a raw client and returns the server's side of it.
  std::shared_ptr<IpcConnection> connectRaw() {
    size_t index = server->acceptedCount();
    raw = std::make_unique<RawClient>(server->listener->path());
    EXPECT_TRUE(raw->connected());
    return server->waitAccepted(index);
  }

  // The bad peer was cut off alone: the well-behaved client still gets answers.
  void expectOthersUnaffected() {
    EXPECT_EQ(echo(good, "after"), Value("after"));
    EXPECT_EQ(*clientInvalidations[0], 0);
  }

  std::shared_ptr<test::TestServer> server;
  std::shared_ptr<IpcConnection> good;
  std::unique_ptr<RawClient> raw;
};

TEST_F(IpcRobustnessTest, EachMalformedFrameClosesOnlyItsConnectionAfterOneErrorLine) {
  std::vector<uint8_t> truncated = Archive::encodeBinary(Value::dict({{"op", "echo:reply:"}}));
  truncated.resize(truncated.size() - 6);
  std::pair<std::vector<uint8_t>, const char*> cases[] = {
      {test::frameHeader(64 * 1024 + 1), "frame length 65537 exceeds the limit of 65536 bytes"},
      {test::frameHeader(0xffffffffu), "frame length 4294967295 exceeds the limit"},
      {framedBytes({'g', 'a', 'r', 'b', 'a', 'g', 'e', '!', '!', '!'}),
       "payload is not a binary property list"},
      {framedBytes(truncated), "undecodable payload"},
      // 60 KB on the wire that would decode into 13 MB.
      {framedBytes(test::referenceBomb(60000)), "undecodable payload: decodes to more than 4194304 bytes"},
      {framed(Value::array({"op", "echo:reply:"})), "payload root is not a dictionary"},
      {test::frameHeader(0), "payload is not a binary property list"},
      // A message the decoder refuses (its reasons are tabled in the message tests).
      {framed(Value::dict({{"args", Value::array({})}})), "message has neither \"op\" nor \"reply\""},
  };
  for (const auto& [bytes, logged] : cases) {
    SCOPED_TRACE(logged);
    ScopedLogCapture capture;
    auto serverSide = connectRaw();
    ASSERT_TRUE(serverSide && raw->write(bytes));
    EXPECT_TRUE(raw->waitForClose());
    EXPECT_EQ(server->waitClosed(serverSide), Reason::ProtocolError);
    EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error, logged), 1u);
    EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error, "closing connection"), 1u);
    expectOthersUnaffected();
  }
}

TEST_F(IpcRobustnessTest, MessagesBeforeABadFrameAreServedAndNothingAfterIt) {
  ScopedLogCapture capture;
  auto serverSide = connectRaw();
  std::vector<uint8_t> stream = framedCall("record:", {Value(1u)});
  for (auto part : {framedBytes({'x', 'x', 'x', 'x'}), framedCall("record:", {Value(2u)})}) {
    stream.insert(stream.end(), part.begin(), part.end());
  }
  ASSERT_TRUE(serverSide && raw->write(stream));
  EXPECT_EQ(server->waitClosed(serverSide), Reason::ProtocolError);
  serverSide->queue()->sync([] {});
  ASSERT_EQ(recorded->calls.size(), 1u);
  EXPECT_EQ(recorded->calls.items()[0].value, 1u);
  expectOthersUnaffected();
}

// How a peer leaves decides only the log: a stream that ends inside a frame is worth one error line; a
// clean end, and a reset (the peer closed with our answer unread, so the next read fails with
// ECONNRESET), are ordinary closes. Nothing of a cut frame is served.
TEST_F(IpcRobustnessTest, APeerThatLeavesClosesAsPeerClosedAndOnlyACutFrameIsLogged) {
  std::vector<uint8_t> half = framedCall("record:", {Value(9u)});
  half.resize(half.size() / 2);
  IpcMessage echo = IpcMessage::call("echo:reply:", {Value("x")});
  echo.setSerial(1);
  const std::vector<uint8_t> answered = framed(echo.toValue());
  struct Case {
    const char* what;
    std::vector<uint8_t> bytes;
    bool leaveTheAnswerUnread;
    size_t cutLines;
  };
  const Case cases[] = {{"end after a whole frame", framedCall("record:", {Value(1u)}), false, 0},
                        {"end inside a frame", half, false, 1},
                        {"reset", answered, true, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ScopedLogCapture capture;
    auto serverSide = connectRaw();
    ASSERT_TRUE(serverSide && raw->write(c.bytes));
    if (c.leaveTheAnswerUnread) {
      pollfd p{raw->fd(), POLLIN, 0};
      ASSERT_EQ(::poll(&p, 1, 30000), 1);
    } else {
      serverSide->queue()->sync([] {});
    }
    raw->close();
    EXPECT_EQ(server->waitClosed(serverSide), Reason::PeerClosed);
    EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error, "ended in the middle of a frame"),
              c.cutLines);
    EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error, "failed"), 0u);
    expectOthersUnaffected();
  }
  ASSERT_EQ(recorded->calls.size(), 1u);  // the whole frame only
}

// A peer that stops reading but goes on sending (EPIPE on our side): what it sends is still served, what we
// had for it is dropped without an error, and its end closes the connection as usual.
TEST_F(IpcRobustnessTest, APeerThatShutsItsReadingSideIsStillServed) {
  ScopedLogCapture capture;
  auto serverSide = connectRaw();
  ASSERT_TRUE(serverSide);
  ASSERT_EQ(::shutdown(raw->fd(), SHUT_RD), 0);
  EXPECT_TRUE(serverSide->send(IpcMessage::call("note:", {Value("unread")})));
  ASSERT_TRUE(raw->write(framedCall("record:", {Value(5u)})));
  ASSERT_TRUE(test::eventually([&] { return recorded->calls.size() == 1; }));
  EXPECT_EQ(recorded->calls.items()[0].value, 5u);
  EXPECT_TRUE(serverSide->isValid());
  raw->close();
  EXPECT_EQ(server->waitClosed(serverSide), Reason::PeerClosed);
  EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error, "write failed"), 0u);
  expectOthersUnaffected();
}

// Our own messages are held to the limits we hold peers to: one too big or carrying too many descriptors
// is refused with a line, and the connection carries the next one.
TEST_F(IpcRobustnessTest, MessagesBeyondTheSendLimitsAreRefusedAndTheConnectionStays) {
  ScopedLogCapture capture;
  auto serverSide = connectRaw();
  ASSERT_TRUE(serverSide);
  EXPECT_FALSE(serverSide->send(IpcMessage::call("note:", {Value(Value::Data(64 * 1024, 1))})));
  IpcMessage crowded = IpcMessage::call("note:");
  for (int i = 0; i < 17; ++i) crowded.args().push_back(crowded.attach(UniqueFd(::dup(raw->fd()))));
  EXPECT_FALSE(serverSide->send(std::move(crowded)));
  EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error, "exceed the frame limit of 65536"), 1u);
  EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error, "17 descriptors, the limit is 16"), 1u);

  const std::vector<uint8_t> next = framed(IpcMessage::call("note:", {Value("next")}).toValue());
  ASSERT_TRUE(serverSide->send(IpcMessage::call("note:", {Value("next")})));
  std::vector<uint8_t> got(next.size());
  size_t have = 0;
  for (pollfd p{raw->fd(), POLLIN, 0}; have < got.size() && ::poll(&p, 1, 30000) == 1;) {
    ssize_t n = ::recv(raw->fd(), got.data() + have, got.size() - have, 0);
    if (n <= 0) break;
    have += static_cast<size_t>(n);
  }
  EXPECT_EQ(got, next);
  EXPECT_TRUE(serverSide->isValid());
}

TEST_F(IpcRobustnessTest, HalfAFrameThenSilenceIsClosedAfterTheStallTimeout) {
  ScopedLogCapture capture;
  auto serverSide = connectRaw();
  std::vector<uint8_t> frame = framedCall("record:", {Value(9u)});
  frame.resize(frame.size() / 2);
  ASSERT_TRUE(serverSide && raw->write(frame));
  // The idle good client is not in the middle of a frame, so the same passage of time leaves it alone.
  EXPECT_EQ(advanceUntilClosed(server, serverSide), Reason::Stalled);
  EXPECT_TRUE(raw->waitForClose());
  EXPECT_EQ(
      test::countLogLines(capture.sink(), LogLevel::Error, "no progress for 5 s while it sends a frame"), 1u);
  EXPECT_EQ(recorded->calls.size(), 0u);
  expectOthersUnaffected();
}

TEST_F(IpcRobustnessTest, APeerThatStopsReadingIsClosedByTheBacklogLimitOrTheStallTimeout) {
  ScopedLogCapture capture;
  // 64 blobs of 60 KiB: far more than the socket buffers plus the 1 MiB allowed to wait.
  auto flooded = connectRaw();
  ASSERT_TRUE(flooded && raw->write(framedCall("flood:", {Value(64u), Value(60u * 1024)})));
  EXPECT_EQ(server->waitClosed(flooded), Reason::OutgoingOverflow);
  EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error, "does not read (limit 1048576)"), 1u);
  expectOthersUnaffected();

  // 12 blobs: within the limit, but more than the socket buffers take, so the writer waits for ever.
  auto stalled = connectRaw();
  ASSERT_TRUE(stalled && raw->write(framedCall("flood:", {Value(12u), Value(60u * 1024)})));
  EXPECT_EQ(advanceUntilClosed(server, stalled), Reason::Stalled);
  EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error, "while it does not read what we send"), 1u);
  expectOthersUnaffected();
}

// What all connections hold together is bounded too: half frames of one peer hold every reader back only
// until the stall rule cuts that peer off, and a peer that does not read is cut off at the process's
// outgoing limit although its own limit is far away.
TEST_F(IpcRobustnessTest, TheProcessBudgetBoundsAllConnectionsTogether) {
  ScopedLogCapture capture;
  auto budget = std::make_shared<IpcMemoryBudget>(48 * 1024, 256 * 1024);
  IpcListenerOptions options = listenerOptions();
  options.connection.maxFrameBytes = 64 * 1024;
  options.connection.maxOutgoingBytes = 1 << 20;
  options.connection.budget = budget;
  server = startServer(options);
  ASSERT_TRUE(server);
  auto other = connectClient(server);
  ASSERT_EQ(echo(other, "before"), Value("before"));

  // 50 KiB of a 60 KiB frame: the process holds more than it allows, so nobody reads until that peer goes.
  auto halfSender = connectRaw();
  std::vector<uint8_t> half = test::frameHeader(60 * 1024);
  half.resize(half.size() + 50 * 1024, 0);
  ASSERT_TRUE(halfSender && raw->write(half));
  ASSERT_TRUE(test::eventually([&] { return budget->incomingFull(); }));
  auto answers = std::make_shared<test::Inbox<Value>>();
  ASSERT_TRUE(other->call("echo:reply:", {Value("waits")},
                          [answers](const IpcMessage& m) { answers->put(m.arg(0)); }));
  EXPECT_EQ(answers->size(), 0u);
  EXPECT_EQ(advanceUntilClosed(server, halfSender), Reason::Stalled);
  ASSERT_TRUE(answers->waitFor(1));
  EXPECT_EQ(answers->items()[0], Value("waits"));
  EXPECT_TRUE(test::eventually([&] { return budget->incomingBytes() == 0; }));

  // 12 blobs of 60 KiB: within the connection's 1 MiB, past the process's 256 KiB.
  auto nonReader = connectRaw();
  ASSERT_TRUE(nonReader && raw->write(framedCall("flood:", {Value(12u), Value(60u * 1024)})));
  EXPECT_EQ(server->waitClosed(nonReader), Reason::OutgoingOverflow);
  EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error,
                                "bytes waiting for peers that do not read (limit 262144)"),
            1u);
  EXPECT_TRUE(test::eventually([&] { return budget->outgoingBytes() == 0; }));
  EXPECT_EQ(echo(other, "after"), Value("after"));
}

TEST_F(IpcRobustnessTest, DescriptorsBeyondThePerMessageCapAreClosedAndTheConnectionStays) {
  ScopedLogCapture capture;
  auto serverSide = connectRaw();
  int p[2];
  ASSERT_EQ(::pipe2(p, O_CLOEXEC), 0);
  UniqueFd readEnd(p[0]), writeEnd(p[1]);
  ASSERT_TRUE(serverSide && raw->write(framedCall("count:"), std::vector<int>(20, writeEnd.get())));
  ASSERT_TRUE(recorded->descriptorCounts.waitFor(1));
  EXPECT_EQ(recorded->descriptorCounts.items()[0], 16u);
  EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error, "4 descriptors from"), 1u);

  // Nobody took the 16 that were kept either: once our own copy goes, the pipe has no writer left.
  writeEnd.reset();
  pollfd hangup{readEnd.get(), POLLIN, 0};
  ASSERT_EQ(::poll(&hangup, 1, 30000), 1);
  char c;
  EXPECT_EQ(::read(readEnd.get(), &c, 1), 0);
  ASSERT_TRUE(raw->write(framedCall("record:", {Value(3u)})));
  ASSERT_TRUE(recorded->calls.waitFor(1));
  EXPECT_TRUE(serverSide->isValid());
  expectOthersUnaffected();
}

}  // namespace
}  // namespace vorlen
