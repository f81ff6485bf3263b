// OutputStream: the small byte-sink interface the upload path writes through. CompressedOutputStream
// deflates into another OutputStream; FileDescriptorOutputStream writes to an open file; NullStream
// discards everything.
//
// Contract: open() before the first write; write() returns the number of input bytes consumed (all of
// them unless the stream failed) or -1 once it has failed; close() finishes the stream (later writes fail);
// streamError() is the errno-style code of the first failure, 0 while there is none.
//
// Threading: one stream is used by one thread at a time.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>

namespace vorlen {

class OutputStream {
 public:
  virtual ~OutputStream() = default;

  virtual void open() {}
  virtual ssize_t write(const uint8_t* buffer, size_t length) = 0;
  virtual void close() = 0;
  virtual std::optional<int> streamError() const = 0;
};

}  // namespace vorlen
