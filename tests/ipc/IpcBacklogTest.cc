// A peer can keep only a bounded amount of work waiting on its connection, and that work dies with it.
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

#include "ipc/IpcFraming.h"
#include "ipc/IpcTestSupport.h"
#include "support/WaitCounter.h"

namespace vorlen {
namespace {

using test::eventually;

constexpr size_t kCap = 8;
// 1 KiB each: more than one read of the connection takes, less than the socket holds.
constexpr uint64_t kCalls = 100;

class IpcBacklogTest : public test::IpcFixture {
 protected:
  void SetUp() override {
    IpcListenerOptions options = listenerOptions();
    options.connection.maxIncomingBacklogMessages = kCap;
    std::string error;
    // hold:reply: (any) waits for the gate, then counts itself and answers; record: counts itself.
    server = test::TestServer::serve(
        IpcListener::anonymous(dir.path(), std::move(options), &error),
        [this](const std::shared_ptr<IpcConnection>& connection) {
          auto iface = std::make_shared<IpcExportedInterface>("BacklogIPC");
          // pass: hands its work on: it stays counted until the test releases its hold.
          std::weak_ptr<IpcConnection> weak = connection;
          iface->add("pass:", {}, [this, weak](const IpcMessage&, IpcReplier) {
            if (auto c = weak.lock()) {
              std::lock_guard lock(holdsMu);
              holds.push_back(c->holdIncomingBacklog());
            }
            recordedCalls.add();
          });
          iface->add("hold:reply:", {IpcExportedInterface::Arg::any()},
                     [this](const IpcMessage&, IpcReplier reply) {
                       entered.add();
                       gate.waitFor(1);
                       held.add();
                       reply({Value("done")});
                     });
          iface->add("record:", {}, [this](const IpcMessage&, IpcReplier) { recordedCalls.add(); });
          return iface;
        });
    ASSERT_TRUE(server) << error;
    servers.push_back(server);
    raw = std::make_unique<test::RawClient>(server->listener->path());
    ASSERT_TRUE(raw->connected());
    serverSide = server->waitAccepted(0);
    ASSERT_TRUE(serverSide);
  }
  void TearDown() override {
    gate.add();
    releaseHolds();
    serverSide.reset();
    server.reset();
    IpcFixture::TearDown();
  }

  // Writes kCalls calls that want a reply; the first one holds the queue until the gate opens.
  void sendHeldCalls() {
    std::vector<uint8_t> bytes;
    for (uint64_t i = 1; i <= kCalls; ++i) {
      IpcMessage call = IpcMessage::call("hold:reply:", {Value(Value::Data(1024, 0x5a))});
      call.setSerial(i);
      std::vector<uint8_t> frame = IpcFraming::encode(call.toValue());
      bytes.insert(bytes.end(), frame.begin(), frame.end());
    }
    ASSERT_TRUE(raw->write(bytes));
  }

  // Bytes the client sent that the server has not read yet.
  size_t unreadByServer() const {
    int n = 0;
    EXPECT_EQ(::ioctl(raw->fd(), SIOCOUTQ, &n), 0);
    return static_cast<size_t>(n);
  }

  void releaseHolds() {
    std::lock_guard lock(holdsMu);
    holds.clear();
  }

  test::WaitCounter entered, gate, held, recordedCalls;
  std::mutex holdsMu;
  std::vector<std::shared_ptr<void>> holds;
  std::shared_ptr<test::TestServer> server;
  std::shared_ptr<IpcConnection> serverSide;
  std::unique_ptr<test::RawClient> raw;
};

TEST_F(IpcBacklogTest, AFastSenderWaitsInItsOwnSocketAtTheCapAndLosesNothing) {
  sendHeldCalls();
  ASSERT_TRUE(eventually([&] { return serverSide->incomingBacklog() >= kCap; }));
  // The connection stopped reading at the cap: the rest stays in the sender's socket, not in our memory.
  EXPECT_EQ(serverSide->incomingBacklog(), kCap);
  EXPECT_GT(unreadByServer(), 0u);
  gate.add();
  ASSERT_TRUE(held.waitFor(static_cast<int>(kCalls)));
  EXPECT_EQ(held.value(), static_cast<int>(kCalls));
  EXPECT_EQ(serverSide->droppedCallCount(), 0u);
}

TEST_F(IpcBacklogTest, WorkHandedOnKeepsCountingUntilItsHoldIsReleased) {
  std::vector<uint8_t> bytes;
  for (uint64_t i = 1; i <= kCalls; ++i) {
    std::vector<uint8_t> frame = IpcFraming::encode(IpcMessage::call("pass:", {}).toValue());
    bytes.insert(bytes.end(), frame.begin(), frame.end());
  }
  ASSERT_TRUE(raw->write(bytes));
  // Every served call still holds its place: the connection stops at the cap as if nothing had been served.
  ASSERT_TRUE(recordedCalls.waitFor(static_cast<int>(kCap)));
  ASSERT_TRUE(eventually([&] { return serverSide->incomingBacklog() == kCap; }));
  EXPECT_EQ(recordedCalls.value(), static_cast<int>(kCap));
  // Releasing the holds lets the rest in, a cap's worth at a time.
  ASSERT_TRUE(eventually([&] {
    releaseHolds();
    return recordedCalls.value() == static_cast<int>(kCalls);
  }));
  releaseHolds();
  ASSERT_TRUE(eventually([&] { return serverSide->incomingBacklog() == 0; }));
}

TEST_F(IpcBacklogTest, CallsThatWantAReplyAreDroppedOnceThePeerHungUpAndOthersStillRun) {
  sendHeldCalls();
  ASSERT_TRUE(raw->write(IpcFraming::encode(IpcMessage::call("record:", {}).toValue())));
  ASSERT_TRUE(entered.waitFor(1));
  raw->close();
  gate.add();
  ASSERT_TRUE(server->waitClosed(serverSide));
  // The call being served when the peer left finishes; nothing queued behind it that wanted a reply runs,
  // while the call that wants none is still delivered.
  ASSERT_TRUE(recordedCalls.waitFor(1));
  EXPECT_EQ(held.value(), 1);
  EXPECT_EQ(serverSide->droppedCallCount(), kCalls - 1);
}

}  // namespace
}  // namespace vorlen
