#include "ipc/IpcMessage.h"

#include <fmt/format.h>

#include <mutex>

namespace vorlen {

struct IpcMessage::Descriptors {
  std::mutex mu;
  std::vector<UniqueFd> fds;
};

namespace {

constexpr const char* kOpKey = "op";
constexpr const char* kArgsKey = "args";
constexpr const char* kSerialKey = "serial";
constexpr const char* kReplyKey = "reply";

}  // namespace

IpcMessage IpcMessage::call(std::string op, Value::Array args) {
  IpcMessage m;
  m.kind_ = Kind::Call;
  m.op_ = std::move(op);
  m.args_ = std::move(args);
  return m;
}

IpcMessage IpcMessage::reply(Value::Array args) {
  IpcMessage m;
  m.kind_ = Kind::Reply;
  m.args_ = std::move(args);
  return m;
}

std::optional<IpcMessage> IpcMessage::fromValue(const Value& root, std::vector<UniqueFd> descriptors,
                                                std::string* error) {
  auto fail = [&](const char* why) -> std::optional<IpcMessage> {
    if (error) *error = why;
    return std::nullopt;
  };
  if (!root.isDict()) return fail("message is not a dictionary");
  const Value* op = root.find(kOpKey);
  const Value* reply = root.find(kReplyKey);
  if (op && reply) return fail("message is both a call and a reply");
  IpcMessage m;
  if (op) {
    if (!op->isString() || op->getString()->empty()) return fail("\"op\" is not a non-empty string");
    m.kind_ = Kind::Call;
    m.op_ = *op->getString();
    if (const Value* serial = root.find(kSerialKey)) {
      auto s = serial->getUInt();
      if (!serial->isInteger() || !s) return fail("\"serial\" is not an unsigned integer");
      m.serial_ = *s;
    }
  } else if (reply) {
    auto s = reply->getUInt();
    if (!reply->isInteger() || !s) return fail("\"reply\" is not an unsigned integer");
    m.kind_ = Kind::Reply;
    m.serial_ = *s;
  } else {
    return fail("message has neither \"op\" nor \"reply\"");
  }
  if (const Value* args = root.find(kArgsKey)) {
    if (!args->isArray()) return fail("\"args\" is not an array");
    m.args_ = *args->getArray();
    for (Value& a : m.args_) {
      if (a.className() == kNullClass) a = Value();
    }
  }
  if (!descriptors.empty()) {
    m.descriptors_ = std::make_shared<Descriptors>();
    m.descriptors_->fds = std::move(descriptors);
  }
  return m;
}

Value IpcMessage::toValue() const& {
  IpcMessage copy = *this;
  return std::move(copy).toValue();
}

Value IpcMessage::toValue() && {
  Value::Array args;
  args.reserve(args_.size());
  for (Value& a : args_) args.push_back(a.isNull() ? Value::record(kNullClass) : std::move(a));
  Value root;
  if (kind_ == Kind::Call) {
    root.set(kOpKey, op_);
    if (serial_) root.set(kSerialKey, *serial_);
  } else {
    root.set(kReplyKey, serial_.value_or(0));
  }
  root.set(kArgsKey, std::move(args));
  return root;
}

const Value& IpcMessage::arg(size_t index) const {
  static const Value kNull;
  return index < args_.size() ? args_[index] : kNull;
}

Value IpcMessage::attach(UniqueFd fd) {
  if (!descriptors_) descriptors_ = std::make_shared<Descriptors>();
  std::lock_guard lock(descriptors_->mu);
  descriptors_->fds.push_back(std::move(fd));
  return fileHandleRecord(descriptors_->fds.size() - 1);
}

size_t IpcMessage::descriptorCount() const {
  if (!descriptors_) return 0;
  std::lock_guard lock(descriptors_->mu);
  return descriptors_->fds.size();
}

UniqueFd IpcMessage::takeDescriptor(size_t index) const {
  if (!descriptors_) return UniqueFd();
  std::lock_guard lock(descriptors_->mu);
  if (index >= descriptors_->fds.size()) return UniqueFd();
  return std::move(descriptors_->fds[index]);
}

UniqueFd IpcMessage::takeFileHandle(const Value& record) const {
  auto index = fileHandleIndex(record);
  return index ? takeDescriptor(*index) : UniqueFd();
}

std::vector<UniqueFd> IpcMessage::takeAllDescriptors() {
  if (!descriptors_) return {};
  std::lock_guard lock(descriptors_->mu);
  return std::exchange(descriptors_->fds, {});
}

Value IpcMessage::fileHandleRecord(size_t index) {
  return Value::record(kFileHandleClass).set("fd", static_cast<uint64_t>(index));
}

std::optional<size_t> IpcMessage::fileHandleIndex(const Value& v) {
  if (v.className() != kFileHandleClass) return std::nullopt;
  const Value* fd = v.find("fd");
  if (!fd || !fd->isInteger()) return std::nullopt;
  auto index = fd->getUInt();
  if (!index) return std::nullopt;
  return static_cast<size_t>(*index);
}

std::string IpcMessage::summary() const {
  if (kind_ == Kind::Reply) return fmt::format("reply {}", serial_.value_or(0));
  return fmt::format("call {} ({} args)", op_, args_.size());
}

}  // namespace vorlen
