// OutputStreamBuffer: a std::streambuf that forwards to an OutputStream, so a serialiser that writes to
// a std::ostream (nlohmann::json's operator<<) writes straight into a CompressedOutputStream without a
// std::string of the whole payload. It keeps a small put area (1024 bytes) so single-character writes do
// not each cost a virtual call down the chain; sync() (and the destructor) push what is pending.
//
// A failing OutputStream makes overflow()/xsputn() report failure, which sets the ostream's badbit.
//
// Threading: one thread at a time.
#pragma once

#include <array>
#include <streambuf>

#include "storage/OutputStream.h"

namespace vorlen {

class OutputStreamBuffer final : public std::streambuf {
 public:
  explicit OutputStreamBuffer(OutputStream& stream);
  ~OutputStreamBuffer() override;

 protected:
  int_type overflow(int_type ch) override;
  std::streamsize xsputn(const char* s, std::streamsize n) override;
  int sync() override;

 private:
  bool flushPending();

  OutputStream& stream_;
  std::array<char, 1024> buffer_{};
};

}  // namespace vorlen
