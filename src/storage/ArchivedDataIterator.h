// ArchivedDataIterator: walks the records of a session-file image held in memory. A record is an 8-byte
// payload length in native byte order followed by that many payload bytes; records follow each other with
// nothing between them.
//
// readNextObject() slices the next payload out of the image without copying it, or answers nothing (with
// one error line) when fewer than 8 + 1 bytes remain ("out of range"), the length is 0 ("empty data file",
// the position stays) or the payload runs past the end ("broken version string in file", used for every
// truncated record). hasMore() is true while a length field still fits; with exactly 8 bytes left it says
// yes and readNextObject() answers "out of range", which ends a reading loop. That pairing is deliberate.
//
// Threading: a plain value; the image must outlive the iterator and the slices it returns.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace vorlen {

class ArchivedDataIterator {
 public:
  static constexpr uint64_t kLengthSize = 8;

  explicit ArchivedDataIterator(std::span<const uint8_t> data) : data_(data) {}

  bool hasMore() const { return position_ + kLengthSize <= data_.size(); }
  std::optional<std::span<const uint8_t>> readNextObject();

  std::span<const uint8_t> data() const { return data_; }
  uint64_t position() const { return position_; }
  void setPosition(uint64_t position) { position_ = position; }

 private:
  std::span<const uint8_t> data_;
  uint64_t position_ = 0;
};

}  // namespace vorlen
