// ClientReplies: the values the client library hands out for the daemon's answers (a bag, a request's
// reply, a session's events, the sessions, a resource file). Plain records; the checks that make them
// trustworthy are ClientReplyDecoder's.
//
// Threading: plain values; no synchronisation of their own.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/UniqueFd.h"
#include "base/Value.h"
#include "model/VORBag.h"
#include "model/VORError.h"
#include "model/VORReply.h"

namespace vorlen {

struct BagReply {
  std::optional<VORBag> bag;
  std::optional<VORError> error;
};

// request:reply: and request:configuration:reply: -> (query id, VORReply?, VORError?). A search that a
// newer search overtook has neither a reply nor an error.
struct RequestReply {
  uint64_t queryId = 0;
  std::optional<VORReply> reply;
  std::optional<VORError> error;
};

// feedback:reply: -> (events of the current session, VORError?)
struct FeedbackReply {
  std::vector<Value::Dict> events;
  std::optional<VORError> error;
};

// One entry of listSessions:.
struct SessionInfo {
  std::string identifier;
  std::string agent;
  bool operator==(const SessionInfo&) const = default;
};

// fileHandleAndAttributesForResource:completion: -> (FileHandle?, attributes?, VORError?). `file` is a
// read-only descriptor owned by the caller; invalid when the daemon sent none.
struct ResourceFile {
  UniqueFd file;
  Value::Dict attributes;
  std::optional<VORError> error;
};

}  // namespace vorlen
