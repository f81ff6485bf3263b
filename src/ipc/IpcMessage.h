// IpcMessage: one message of the IPC protocol, a call or a reply, with the descriptors that travel with it.
//
// Wire form (the root dictionary of one frame):
//   call   {"op": <operation name>, "args": [...], "serial": <unsigned>}   serial only when a reply is wanted
//   reply  {"reply": <serial of the call>, "args": [...]}
// An absent argument (a null Value) is written as the record {"$class": "Null"} so that the positions of
// the others keep their meaning; it reads back as null. A file handle argument is the record
// {"$class": "FileHandle", "fd": <index>} indexing the descriptors that arrived with the message.
//
// Descriptors: outgoing ones are attached with attach(), which returns the FileHandle record to place in
// the arguments; the connection closes them once they are sent. Incoming ones are owned by the message:
// copies of a message share them, takeDescriptor() hands one out at most once, and whatever nobody took is
// closed when the last copy goes.
//
// Threading: a value; a const message may be read from many threads, and takeDescriptor() is safe from
// any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/UniqueFd.h"
#include "base/Value.h"

namespace vorlen {

class IpcMessage {
 public:
  enum class Kind { Call, Reply };

  static IpcMessage call(std::string op, Value::Array args = {});
  // A reply; its serial is set by the IpcReplier that sends it.
  static IpcMessage reply(Value::Array args = {});

  // Parses the root dictionary of a frame; nullopt with a short reason in *error when it is neither a
  // well-formed call nor a well-formed reply.
  static std::optional<IpcMessage> fromValue(const Value& root, std::vector<UniqueFd> descriptors,
                                             std::string* error);
  // The wire dictionary. The rvalue form moves the arguments out (summary() still counts them).
  Value toValue() const&;
  Value toValue() &&;

  Kind kind() const { return kind_; }
  bool isCall() const { return kind_ == Kind::Call; }
  bool isReply() const { return kind_ == Kind::Reply; }
  // Operation name of a call; empty for a reply.
  const std::string& op() const { return op_; }
  // Call: present when the caller wants a reply. Reply: the serial of the call it answers.
  std::optional<uint64_t> serial() const { return serial_; }
  void setSerial(std::optional<uint64_t> serial) { serial_ = serial; }

  const Value::Array& args() const { return args_; }
  Value::Array& args() { return args_; }
  // Argument `index`, or a null Value when there are fewer arguments.
  const Value& arg(size_t index) const;

  // Outgoing: takes ownership of `fd` and returns the FileHandle record that refers to it.
  Value attach(UniqueFd fd);
  size_t descriptorCount() const;
  // Incoming: the descriptor at `index`, once; invalid when out of range or already taken.
  UniqueFd takeDescriptor(size_t index) const;
  // The descriptor a FileHandle record refers to; invalid when `record` is not one or its descriptor is
  // out of range or already taken.
  UniqueFd takeFileHandle(const Value& record) const;
  // Hands every descriptor over (for sending); the message keeps none afterwards.
  std::vector<UniqueFd> takeAllDescriptors();

  static Value fileHandleRecord(size_t index);
  // The descriptor index of a FileHandle record, or nullopt when `v` is not one.
  static std::optional<size_t> fileHandleIndex(const Value& v);

  // "call <op> (n args)" or "reply <serial>", for log lines.
  std::string summary() const;

  static constexpr const char* kNullClass = "Null";
  static constexpr const char* kFileHandleClass = "FileHandle";

 private:
  struct Descriptors;

  Kind kind_ = Kind::Call;
  std::string op_;
  std::optional<uint64_t> serial_;
  Value::Array args_;
  std::shared_ptr<Descriptors> descriptors_;
};

}  // namespace vorlen
