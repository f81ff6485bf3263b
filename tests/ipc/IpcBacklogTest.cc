// A peer can keep only a bounded amount of work waiting on its connection, and that work dies with it.
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

#include "ipc/IpcFraming.h"
#include "ipc/IpcTestSupport.h"
#include "support/WaitCounter.h"

namespace vorlen {
namespace {

using test::waitUntil;

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
        [this](const std::shared_ptr<IpcConnection>&) {
          auto iface = std::make_shared<IpcExportedInterface>("BacklogIPC");
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

  test::WaitCounter entered, gate, held, recordedCalls;
  std::shared_ptr<test::TestServer> server;
  std::shared_ptr<IpcConnection> serverSide;
  std::unique_ptr<test::RawClient> raw;
};

TEST_F(IpcBacklogTest, AFastSenderWaitsInItsOwnSocketAtTheCapAndLosesNothing) {
  sendHeldCalls();
  ASSERT_TRUE(waitUntil([&] { return serverSide->incomingBacklog() >= kCap; }));
  // The connection stopped reading at the cap: the rest stays in the sender's socket, not in our memory.
  EXPECT_EQ(serverSide->incomingBacklog(), kCap);
  EXPECT_GT(unreadByServer(), 0u);
  gate.add();
  ASSERT_TRUE(held.waitFor(static_cast<int>(kCalls)));
  EXPECT_EQ(held.value(), static_cast<int>(kCalls));
  EXPECT_EQ(serverSide->droppedCallCount(), 0u);
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
