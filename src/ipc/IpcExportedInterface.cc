#include "ipc/IpcExportedInterface.h"

#include <fmt/format.h>

#include <algorithm>

#include "ipc/IpcEndpoint.h"

namespace vorlen {

namespace {

const char* typeName(IpcExportedInterface::ArgType type) {
  using T = IpcExportedInterface::ArgType;
  switch (type) {
    case T::Any:
      return "any";
    case T::String:
      return "string";
    case T::Signed:
      return "signed integer";
    case T::Unsigned:
      return "unsigned integer";
    case T::Number:
      return "number";
    case T::Bool:
      return "boolean";
    case T::Date:
      return "date";
    case T::Data:
      return "data";
    case T::Array:
      return "array";
    case T::Dict:
      return "dictionary";
    case T::Record:
      return "record";
    case T::FileHandle:
      return "file handle";
    case T::Endpoint:
      return "endpoint";
  }
  return "?";
}

}  // namespace

IpcExportedInterface::IpcExportedInterface(std::string name) : name_(std::move(name)) {}

IpcExportedInterface& IpcExportedInterface::add(std::string op, std::vector<Arg> args, Handler handler) {
  ops_[std::move(op)] = Operation{std::move(args), std::move(handler)};
  return *this;
}

std::optional<std::string> IpcExportedInterface::check(const Arg& arg, const Value& v,
                                                       const IpcMessage& message) {
  if (v.isNull()) {
    if (arg.optional || arg.type == ArgType::Any) return std::nullopt;
    return fmt::format("expected {}, got nothing", typeName(arg.type));
  }
  bool ok = false;
  switch (arg.type) {
    case ArgType::Any:
      ok = true;
      break;
    case ArgType::String:
      ok = v.isString();
      break;
    case ArgType::Signed:
      ok = v.isInteger() && v.getInt().has_value();
      break;
    case ArgType::Unsigned:
      ok = v.isInteger() && v.getUInt().has_value();
      break;
    case ArgType::Number:
      ok = v.isNumber();
      break;
    case ArgType::Bool:
      ok = v.isBool();
      break;
    case ArgType::Date:
      ok = v.isDate();
      break;
    case ArgType::Data:
      ok = v.isData();
      break;
    case ArgType::Array:
      ok = v.isArray();
      break;
    case ArgType::Dict:
      ok = v.isDict() && v.className().empty();
      break;
    case ArgType::Record: {
      std::string_view cls = v.className();
      if (cls.empty()) break;
      ok = arg.classes.empty() || std::find(arg.classes.begin(), arg.classes.end(), cls) != arg.classes.end();
      if (!ok) return fmt::format("unexpected record class {}", cls);
      break;
    }
    case ArgType::FileHandle: {
      auto index = IpcMessage::fileHandleIndex(v);
      if (index && *index >= message.descriptorCount()) {
        return fmt::format("file handle {} refers to none of the {} descriptors received", *index,
                           message.descriptorCount());
      }
      ok = index.has_value();
      break;
    }
    case ArgType::Endpoint:
      ok = IpcEndpoint::fromValue(v).has_value();
      break;
  }
  if (ok) return std::nullopt;
  return fmt::format("expected {}", typeName(arg.type));
}

std::optional<std::string> IpcExportedInterface::dispatch(const IpcMessage& call, IpcReplier reply) const {
  auto it = ops_.find(call.op());
  if (it == ops_.end()) return fmt::format("unknown operation {} on {}", call.op(), name_);
  const Operation& op = it->second;
  if (call.args().size() != op.args.size()) {
    return fmt::format("{} takes {} arguments, got {}", call.op(), op.args.size(), call.args().size());
  }
  for (size_t i = 0; i < op.args.size(); ++i) {
    if (auto why = check(op.args[i], call.args()[i], call)) {
      return fmt::format("{} argument {}: {}", call.op(), i, *why);
    }
  }
  if (op.handler) op.handler(call, std::move(reply));
  return std::nullopt;
}

}  // namespace vorlen
