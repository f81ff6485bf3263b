// FileDescriptorOutputStream: an OutputStream that appends to an open file descriptor it does not own
// (the caller keeps the descriptor open for the stream's life). Every write is written in full, retried
// across EINTR and short writes; the first failure sticks.
//
// Threading: one thread at a time.
#pragma once

#include "storage/OutputStream.h"

namespace vorlen {

class FileDescriptorOutputStream final : public OutputStream {
 public:
  explicit FileDescriptorOutputStream(int fd) : fd_(fd) {}

  ssize_t write(const uint8_t* buffer, size_t length) override;
  // Marks the stream closed; the descriptor stays open (its owner closes it).
  void close() override { closed_ = true; }
  std::optional<int> streamError() const override { return error_; }

 private:
  const int fd_;
  bool closed_ = false;
  std::optional<int> error_;
};

}  // namespace vorlen
