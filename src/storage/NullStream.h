// NullStream: an OutputStream that accepts and discards every write (for measuring what a payload
// would be without writing it anywhere).
//
// Threading: one thread at a time.
#pragma once

#include "storage/OutputStream.h"

namespace vorlen {

class NullStream final : public OutputStream {
 public:
  ssize_t write(const uint8_t* buffer, size_t length) override;
  void close() override;
  std::optional<int> streamError() const override;
};

}  // namespace vorlen
