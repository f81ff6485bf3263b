#include "model/VORError.h"

#include <fmt/format.h>

#include "model/Constants.h"

namespace vorlen {

const RecordBinding<VORError>& VORError::binding() {
  using B = RecordBinding<VORError>;
  static const B* const b = new B(kClassName, {
                                                  B::field("domain", &VORError::domain, /*required=*/true),
                                                  B::field("code", &VORError::code, /*required=*/true),
                                                  B::field("userInfo", &VORError::userInfo),
                                              });
  return *b;
}

VORError VORError::make(int64_t code, std::string reason) {
  VORError e;
  e.domain = kVORErrorDomain;
  e.code = code;
  e.userInfo.emplace(kVORErrorReasonKey, Value(std::move(reason)));
  return e;
}

std::optional<std::string> VORError::reason() const {
  auto it = userInfo.find(kVORErrorReasonKey);
  if (it == userInfo.end() || !it->second.isString()) return std::nullopt;
  return *it->second.getString();
}

std::string VORError::describe() const {
  return fmt::format("{} {}: {}", domain, code, reason().value_or("none"));
}

}  // namespace vorlen
