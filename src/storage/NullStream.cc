#include "storage/NullStream.h"

namespace vorlen {

ssize_t NullStream::write(const uint8_t* /*buffer*/, size_t length) {
  return static_cast<ssize_t>(length);
}

void NullStream::close() {}

std::optional<int> NullStream::streamError() const {
  return std::nullopt;
}

}  // namespace vorlen
