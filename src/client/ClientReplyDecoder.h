// ClientReplyDecoder: the strict reading of the daemon's replies into the values of ClientReplies.h.
//
// Each decoder takes the reply message of one operation and checks it completely before anything is
// handed out: the exact number of arguments, the type of each, every record through its class's
// fromRecord (which checks it against the record schema). An absent argument is the Null marker, which
// arrives as a null Value. Any deviation makes the whole reply a ClientError of kind MalformedReply,
// after one error line in the Connection category naming the operation and the fault; nothing half-read
// is returned.
//
// Threading: stateless; safe from any thread. Decoding a file handle takes its descriptor out of the
// message (once).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Value.h"
#include "client/ClientReplies.h"
#include "client/ClientResult.h"
#include "ipc/IpcEndpoint.h"
#include "ipc/IpcMessage.h"
#include "model/Operations.h"

namespace vorlen {

class ClientReplyDecoder {
 public:
  // configure:reply: and listenToFlusher: -> (Endpoint); `op` names the operation in the error.
  static ClientResult<IpcEndpoint> endpoint(const IpcMessage& reply, const char* op);
  // bag: and refreshBag: -> (VORBag?, VORError?)
  static ClientResult<BagReply> bag(const IpcMessage& reply, const char* op = op::kBag);
  // `op`: request:reply: or request:configuration:reply:, for the error text.
  static ClientResult<RequestReply> request(const IpcMessage& reply, const char* op = op::kRequest);
  static ClientResult<FeedbackReply> feedback(const IpcMessage& reply);
  static ClientResult<std::vector<SessionInfo>> sessions(const IpcMessage& reply);
  static ClientResult<ResourceFile> resourceFile(const IpcMessage& reply);
  // getImageMap: -> (dictionary)
  static ClientResult<Value::Dict> imageMap(const IpcMessage& reply);
};

}  // namespace vorlen
