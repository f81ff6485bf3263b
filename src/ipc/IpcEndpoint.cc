#include "ipc/IpcEndpoint.h"

namespace vorlen {

Value IpcEndpoint::toValue() const {
  return Value::record(kClassName).set("path", path.string());
}

std::optional<IpcEndpoint> IpcEndpoint::fromValue(const Value& v) {
  if (v.className() != kClassName) return std::nullopt;
  const Value* path = v.find("path");
  if (!path || !path->isString() || path->getString()->empty()) return std::nullopt;
  return IpcEndpoint{*path->getString()};
}

}  // namespace vorlen
