// Fuzz target for what a peer can put on an IPC socket: the byte stream is cut into reads of a size taken
// from the first input byte and fed to the frame decoder; every complete frame goes through payload
// decoding, message parsing and the exported-interface argument checks. Nothing may crash, and a parsed
// message must survive being written and parsed again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "base/Log.h"
#include "ipc/IpcEndpoint.h"
#include "ipc/IpcExportedInterface.h"
#include "ipc/IpcFrameDecoder.h"
#include "ipc/IpcFraming.h"
#include "ipc/IpcMessage.h"

namespace {

using vorlen::IpcExportedInterface;
using Arg = IpcExportedInterface::Arg;

const IpcExportedInterface& interface() {
  static const IpcExportedInterface* iface = [] {
    auto* i = new IpcExportedInterface("FuzzIPC");
    auto noop = [](const vorlen::IpcMessage&, vorlen::IpcReplier) {};
    i->add("configure:reply:", {Arg::record({"VORSessionConfiguration"})}, noop);
    i->add("request:reply:", {Arg::record()}, noop);
    i->add("reportEvent:queryId:feedback:", {Arg::string(), Arg::unsignedInteger(), Arg::record().orNull()},
           noop);
    i->add("clearEngagedCompletionsFromDate:toDate:", {Arg::date(), Arg::date()}, noop);
    i->add("updateParameters:", {Arg::number(), Arg::signedInteger(), Arg::boolean(), Arg::data()}, noop);
    i->add("take:", {Arg::fileHandle(), Arg::endpoint(), Arg::array(), Arg::dict()}, noop);
    i->add("any:", {Arg::any()}, noop);
    return i;
  }();
  return *iface;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool quiet = [] {
    vorlen::Log::setThreshold(vorlen::LogLevel::Fault);
    return true;
  }();
  (void)quiet;
  if (size == 0) return 0;
  size_t chunk = size_t{data[0]} + 1;
  vorlen::IpcFrameDecoder decoder(1 << 20, 16);
  for (size_t offset = 1; offset < size && !decoder.failed(); offset += chunk) {
    decoder.append({data + offset, std::min(chunk, size - offset)});
    for (;;) {
      vorlen::IpcRawFrame frame;
      std::string why;
      if (decoder.next(&frame, &why) != vorlen::IpcFrameDecoder::Status::Frame) break;
      std::optional<vorlen::Value> root = vorlen::IpcFraming::decodePayload(frame.payload, &why);
      if (!root) continue;
      std::optional<vorlen::IpcMessage> message = vorlen::IpcMessage::fromValue(*root, {}, &why);
      if (!message) continue;
      std::vector<uint8_t> again = vorlen::IpcFraming::encode(message->toValue());
      std::optional<vorlen::Value> reread = vorlen::IpcFraming::decodePayload(
          {again.data() + vorlen::IpcFraming::kHeaderBytes, again.size() - vorlen::IpcFraming::kHeaderBytes},
          &why);
      if (!reread || !vorlen::IpcMessage::fromValue(*reread, {}, &why)) std::abort();
      if (message->isCall()) interface().dispatch(*message, vorlen::IpcReplier());
      for (const vorlen::Value& arg : message->args()) {
        vorlen::IpcEndpoint::fromValue(arg);
        message->takeFileHandle(arg);
      }
    }
  }
  return 0;
}
