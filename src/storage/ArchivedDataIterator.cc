#include "storage/ArchivedDataIterator.h"

#include <cstring>

#include "base/Log.h"

namespace vorlen {

std::optional<std::span<const uint8_t>> ArchivedDataIterator::readNextObject() {
  const Logger& log = VorlenLogForCategory(VorlenLogCategorySession);
  const uint64_t size = data_.size();
  if (position_ >= size || size - position_ <= kLengthSize) {
    log.error("out of range");
    return std::nullopt;
  }
  uint64_t length;
  std::memcpy(&length, data_.data() + position_, sizeof length);
  if (length == 0) {
    log.error("empty data file");
    return std::nullopt;
  }
  // Compared by subtraction: a hostile length near 2^64 must not wrap past the end of the image.
  if (length > size - position_ - kLengthSize) {
    log.error("broken version string in file");
    return std::nullopt;
  }
  std::span<const uint8_t> payload = data_.subspan(position_ + kLengthSize, length);
  position_ += kLengthSize + length;
  return payload;
}

}  // namespace vorlen
