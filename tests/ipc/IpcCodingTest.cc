// Frames, messages and argument checks, without sockets.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "base/Archive.h"
#include "ipc/IpcExportedInterface.h"
#include "ipc/IpcFrameDecoder.h"
#include "ipc/IpcFraming.h"
#include "ipc/IpcMessage.h"
#include "ipc/IpcTestSupport.h"

namespace vorlen {
namespace {

std::vector<uint8_t> frameOf(const Value& root) {
  return IpcFraming::encode(root);
}

UniqueFd pipeEnd() {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return UniqueFd();
  ::close(fds[1]);
  return UniqueFd(fds[0]);
}

bool isOpen(int fd) {
  return ::fcntl(fd, F_GETFD) != -1;
}

TEST(IpcFramingTest, FrameIsBigEndianLengthThenABinaryPlistWithADictionaryRoot) {
  Value root = Value::dict({{"op", "ping:"}, {"args", Value::array({1, "two"})}});
  std::vector<uint8_t> frame = frameOf(root);
  EXPECT_EQ(IpcFraming::payloadLength(frame), frame.size() - 4);
  EXPECT_EQ(std::string(frame.begin() + 4, frame.begin() + 12), "bplist00");
  std::string why;
  EXPECT_EQ(IpcFraming::decodePayload(std::span(frame).subspan(4), &why), root);

  std::vector<uint8_t> truncated = Archive::encodeBinary(root);
  truncated.resize(truncated.size() - 10);
  std::string xml = Archive::encodeXML(root);
  std::vector<std::vector<uint8_t>> rejected = {{},
                                                {'n', 'o', 't', ' ', 'p', 'l', 'i', 's', 't'},
                                                truncated,
                                                Archive::encodeBinary(Value::array({1})),
                                                std::vector<uint8_t>(xml.begin(), xml.end())};
  for (const auto& payload : rejected) {
    why.clear();
    EXPECT_FALSE(IpcFraming::decodePayload(payload, &why)) << payload.size();
    EXPECT_FALSE(why.empty());
  }
}

TEST(IpcFrameDecoderTest, ReassemblesFramesSplitAtEveryByte) {
  Value a = Value::dict({{"op", "a:"}});
  Value b = Value::dict({{"op", "b:"}, {"args", Value::array({Value::Data(1000, 7)})}});
  std::vector<uint8_t> stream = frameOf(a), fb = frameOf(b);
  stream.insert(stream.end(), fb.begin(), fb.end());
  IpcFrameDecoder decoder(1 << 20, 16);
  std::vector<Value> got;
  for (size_t i = 0; i < stream.size(); ++i) {
    decoder.append(std::span(stream).subspan(i, 1));
    EXPECT_TRUE(decoder.midFrame());
    IpcRawFrame frame;
    std::string why;
    while (decoder.next(&frame, &why) == IpcFrameDecoder::Status::Frame) {
      got.push_back(*IpcFraming::decodePayload(frame.payload, &why));
    }
  }
  EXPECT_EQ(got, (std::vector<Value>{a, b}));
  EXPECT_FALSE(decoder.midFrame());
}

TEST(IpcFrameDecoderTest, DescriptorsGoToTheFrameHoldingTheLastByteOfTheirReadUpToTheCap) {
  std::vector<uint8_t> f1 = frameOf(Value::dict({{"op", "one:"}}));
  std::vector<uint8_t> f2 = frameOf(Value::dict({{"op", "two:"}}));
  IpcFrameDecoder decoder(1 << 20, 2);
  auto batch = [](int n, std::vector<int>* raw) {
    std::vector<UniqueFd> fds;
    for (int i = 0; i < n; ++i) {
      fds.push_back(pipeEnd());
      raw->push_back(fds.back().get());
    }
    return fds;
  };
  std::vector<int> first, second;
  // Read 1 ends exactly at the end of frame 1; read 2 has three bytes of frame 2; read 3 the rest, with
  // three descriptors, one more than the cap.
  decoder.append(f1, batch(1, &first));
  decoder.append(std::span(f2).first(3));
  decoder.append(std::span(f2).subspan(3), batch(3, &second));

  IpcRawFrame frame;
  std::string why;
  ASSERT_EQ(decoder.next(&frame, &why), IpcFrameDecoder::Status::Frame);
  ASSERT_EQ(frame.descriptors.size(), 1u);
  EXPECT_EQ(frame.descriptors[0].get(), first[0]);
  ASSERT_EQ(decoder.next(&frame, &why), IpcFrameDecoder::Status::Frame);
  ASSERT_EQ(frame.descriptors.size(), 2u);
  EXPECT_EQ(frame.descriptors[1].get(), second[1]);
  EXPECT_EQ(frame.droppedDescriptors, 1u);
  EXPECT_FALSE(isOpen(second[2]));
}

TEST(IpcMessageTest, CallsAndRepliesRoundTripWithAbsentArgumentsKeepingTheirPlace) {
  IpcMessage call = IpcMessage::call("request:reply:", {Value(7u), Value(), Value::record("VORError")});
  call.setSerial(42);
  Value wire = call.toValue();
  EXPECT_EQ(wire.find("args")->getArray()->at(1), Value::record("Null"));
  // Through the real codec, where a bare null would have vanished from the array.
  std::vector<uint8_t> frame = IpcFraming::encode(wire);
  std::string why;
  auto back = IpcMessage::fromValue(*IpcFraming::decodePayload(std::span(frame).subspan(4), &why), {}, &why);
  ASSERT_TRUE(back) << why;
  EXPECT_TRUE(back->isCall());
  EXPECT_EQ(back->op(), "request:reply:");
  EXPECT_EQ(back->serial(), 42u);
  ASSERT_EQ(back->args().size(), 3u);
  EXPECT_TRUE(back->arg(1).isNull());
  EXPECT_EQ(back->arg(2).className(), "VORError");

  IpcMessage reply = IpcMessage::reply({Value("x")});
  reply.setSerial(42);
  auto r = IpcMessage::fromValue(reply.toValue(), {}, &why);
  ASSERT_TRUE(r && r->isReply());
  EXPECT_EQ(r->serial(), 42u);
  EXPECT_FALSE(IpcMessage::fromValue(IpcMessage::call("noReply:").toValue(), {}, &why)->serial());
}

TEST(IpcMessageTest, MalformedMessagesAreRejectedWithAReason) {
  std::pair<Value, const char*> cases[] = {
      {Value::dict({}), "message has neither \"op\" nor \"reply\""},
      {Value::dict({{"op", "a:"}, {"reply", 1}}), "message is both a call and a reply"},
      {Value::dict({{"op", 5}}), "\"op\" is not a non-empty string"},
      {Value::dict({{"op", ""}}), "\"op\" is not a non-empty string"},
      {Value::dict({{"op", "a:"}, {"serial", -1}}), "\"serial\" is not an unsigned integer"},
      {Value::dict({{"reply", 1.5}}), "\"reply\" is not an unsigned integer"},
      {Value::dict({{"op", "a:"}, {"args", "x"}}), "\"args\" is not an array"},
  };
  for (const auto& [root, reason] : cases) {
    std::string why;
    EXPECT_FALSE(IpcMessage::fromValue(root, {}, &why)) << reason;
    EXPECT_EQ(why, reason);
  }
}

TEST(IpcMessageTest, IncomingDescriptorsAreTakenOnceSharedByCopiesAndClosedWhenUntaken) {
  std::vector<UniqueFd> fds;
  fds.push_back(pipeEnd());
  fds.push_back(pipeEnd());
  int first = fds[0].get(), second = fds[1].get();
  std::string why;
  Value root = Value::dict({{"op", "f:"}, {"args", Value::array({IpcMessage::fileHandleRecord(0)})}});
  {
    auto message = IpcMessage::fromValue(root, std::move(fds), &why);
    ASSERT_TRUE(message);
    IpcMessage copy = *message;
    UniqueFd taken = copy.takeFileHandle(copy.arg(0));
    EXPECT_EQ(taken.get(), first);
    EXPECT_FALSE(message->takeFileHandle(message->arg(0)));  // already taken through the copy
    EXPECT_FALSE(message->takeDescriptor(2));
    EXPECT_FALSE(message->takeFileHandle(Value::dict({{"fd", 1}})));  // not a FileHandle record
    EXPECT_TRUE(isOpen(second));
  }
  EXPECT_FALSE(isOpen(first));
  EXPECT_FALSE(isOpen(second));  // never taken, closed with the last copy
}

TEST(IpcExportedInterfaceTest, ChecksOperationArgumentCountAndTypesBeforeServing) {
  using Arg = IpcExportedInterface::Arg;
  int served = 0;
  auto handler = [&](const IpcMessage&, IpcReplier) { ++served; };
  IpcExportedInterface iface("TestIPC");
  iface.add("configure:reply:", {Arg::record({"VORSessionConfiguration"})}, handler)
      .add("report:queryId:feedback:", {Arg::string(), Arg::unsignedInteger(), Arg::record().orNull()},
           handler)
      .add("file:", {Arg::fileHandle()}, handler);
  auto dispatch = [&](IpcMessage m) { return iface.dispatch(m, IpcReplier()); };

  EXPECT_EQ(dispatch(IpcMessage::call("configure:reply:", {Value::record("VORSessionConfiguration")})),
            std::nullopt);
  EXPECT_EQ(dispatch(IpcMessage::call("report:queryId:feedback:", {"e", 3u, Value()})), std::nullopt);
  IpcMessage withFd = IpcMessage::call("file:", {});
  withFd.args().push_back(withFd.attach(pipeEnd()));
  EXPECT_EQ(dispatch(withFd), std::nullopt);
  EXPECT_EQ(served, 3);

  // Count and plain types are also exercised through sockets; these are the record and descriptor rules.
  std::pair<IpcMessage, const char*> rejected[] = {
      {IpcMessage::call("configure:reply:", {Value::record("VORRequest")}),
       "configure:reply: argument 0: unexpected record class VORRequest"},
      {IpcMessage::call("configure:reply:", {Value::dict({{"identifier", "x"}})}),
       "configure:reply: argument 0: expected record"},
      {IpcMessage::call("report:queryId:feedback:", {Value(), 3u, Value()}),
       "report:queryId:feedback: argument 0: expected string, got nothing"},
      {IpcMessage::call("file:", {IpcMessage::fileHandleRecord(0)}),
       "file: argument 0: file handle 0 refers to none of the 0 descriptors received"},
  };
  for (const auto& [message, reason] : rejected) EXPECT_EQ(dispatch(message), reason);
  EXPECT_EQ(served, 3);
}

}  // namespace
}  // namespace vorlen
