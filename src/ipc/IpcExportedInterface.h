// IpcExportedInterface: the operations one side of a connection offers to the other, as a table from
// operation name to the argument types it takes and the handler that serves it.
//
// dispatch() checks the call against the table before the handler runs: the operation must be known, the
// argument count must match exactly, and each argument must have its declared type (null only where the
// argument is optional). A call that fails the check is not served and not answered; dispatch() returns
// the reason, and the connection logs it as one error line.
//
// Threading: build the table before the interface is exported; afterwards it is read-only and dispatch()
// is safe from any thread. Handlers run on the connection's queue.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/Value.h"
#include "ipc/IpcMessage.h"
#include "ipc/IpcReplier.h"

namespace vorlen {

class IpcExportedInterface {
 public:
  enum class ArgType {
    Any,  // any value, null included
    String,
    Signed,    // an integer that fits in signed 64 bits
    Unsigned,  // a non-negative integer
    Number,    // integer or real
    Bool,
    Date,
    Data,
    Array,
    Dict,        // a plain dictionary (not a record)
    Record,      // a record, of one of `classes` when that list is not empty
    FileHandle,  // a FileHandle record whose descriptor arrived with the message
    Endpoint,    // an Endpoint record
  };

  struct Arg {
    ArgType type = ArgType::Any;
    bool optional = false;             // null accepted
    std::vector<std::string> classes;  // for Record

    static Arg of(ArgType type, bool optional = false) {
      Arg a;
      a.type = type;
      a.optional = optional;
      return a;
    }
    static Arg any() { return of(ArgType::Any, true); }
    static Arg string() { return of(ArgType::String); }
    static Arg signedInteger() { return of(ArgType::Signed); }
    static Arg unsignedInteger() { return of(ArgType::Unsigned); }
    static Arg number() { return of(ArgType::Number); }
    static Arg boolean() { return of(ArgType::Bool); }
    static Arg date() { return of(ArgType::Date); }
    static Arg data() { return of(ArgType::Data); }
    static Arg array() { return of(ArgType::Array); }
    static Arg dict() { return of(ArgType::Dict); }
    static Arg record(std::vector<std::string> classes = {}) {
      Arg a = of(ArgType::Record);
      a.classes = std::move(classes);
      return a;
    }
    static Arg fileHandle() { return of(ArgType::FileHandle); }
    static Arg endpoint() { return of(ArgType::Endpoint); }
    // The same argument, null accepted.
    Arg orNull() const {
      Arg a = *this;
      a.optional = true;
      return a;
    }
  };

  using Handler = std::function<void(const IpcMessage& call, IpcReplier reply)>;

  // `name` names the interface in log lines (e.g. "VORDaemonIPC").
  explicit IpcExportedInterface(std::string name);

  // Adds or replaces an operation; returns *this so that calls chain.
  IpcExportedInterface& add(std::string op, std::vector<Arg> args, Handler handler);

  const std::string& name() const { return name_; }
  bool has(const std::string& op) const { return ops_.count(op) != 0; }

  // Runs the handler of a call that passes the checks and returns nullopt; otherwise returns the reason.
  std::optional<std::string> dispatch(const IpcMessage& call, IpcReplier reply) const;

  // Why `v` is not an acceptable `arg` of `message`, or nullopt when it is.
  static std::optional<std::string> check(const Arg& arg, const Value& v, const IpcMessage& message);

 private:
  struct Operation {
    std::vector<Arg> args;
    Handler handler;
  };
  std::string name_;
  std::map<std::string, Operation, std::less<>> ops_;
};

}  // namespace vorlen
