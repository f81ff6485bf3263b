// ClientResult<T>: the outcome of one call of libvorlen-client: the decoded answer, or why there is none.
//
// `error` is set exactly when `value` is not. Its kind tells a caller (and vorlenctl's exit codes) whether
// the daemon could not be reached or did not answer in time, the connection broke, or the daemon answered
// with something the protocol does not allow. An error the daemon reports on purpose (a VORError record in
// the reply) is not a ClientError: it is part of the value (e.g. RequestReply::error).
//
// Threading: plain values.
#pragma once

#include <optional>
#include <string>
#include <utility>

namespace vorlen {

struct ClientError {
  enum class Kind {
    Unreachable,      // no connection could be made to the socket
    TimedOut,         // no answer within the call's time-out
    ConnectionLost,   // the connection closed (or refused the message) before the answer came
    MalformedReply,   // the answer broke the protocol: wrong count or type of arguments, bad record
    InvalidArgument,  // refused before sending: the caller's own record fails the record check
  };

  Kind kind = Kind::ConnectionLost;
  std::string message;

  static const char* kindName(Kind kind);
};

template <class T>
struct ClientResult {
  std::optional<T> value;
  std::optional<ClientError> error;

  static ClientResult success(T v) {
    ClientResult r;
    r.value.emplace(std::move(v));
    return r;
  }
  static ClientResult failure(ClientError e) {
    ClientResult r;
    r.error = std::move(e);
    return r;
  }

  bool ok() const { return value.has_value(); }
  // The error's message, or empty on success.
  std::string errorText() const { return error ? error->message : std::string(); }
};

// The outcome of a call that has no answer: the message was handed to the transport, or not.
struct Sent {};

}  // namespace vorlen
