#include "client/ClientResult.h"

namespace vorlen {

const char* ClientError::kindName(Kind kind) {
  switch (kind) {
    case Kind::Unreachable:
      return "unreachable";
    case Kind::TimedOut:
      return "timed out";
    case Kind::ConnectionLost:
      return "connection lost";
    case Kind::MalformedReply:
      return "malformed reply";
    case Kind::InvalidArgument:
      return "invalid argument";
  }
  return "unknown";
}

}  // namespace vorlen
