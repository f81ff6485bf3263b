#include "storage/OutputStreamBuffer.h"

#include <cstring>

namespace vorlen {

OutputStreamBuffer::OutputStreamBuffer(OutputStream& stream) : stream_(stream) {
  setp(buffer_.data(), buffer_.data() + buffer_.size());
}

OutputStreamBuffer::~OutputStreamBuffer() {
  flushPending();
}

bool OutputStreamBuffer::flushPending() {
  const std::ptrdiff_t pending = pptr() - pbase();
  if (pending > 0) {
    ssize_t n = stream_.write(reinterpret_cast<const uint8_t*>(pbase()), static_cast<size_t>(pending));
    if (n != pending) return false;
  }
  setp(buffer_.data(), buffer_.data() + buffer_.size());
  return true;
}

OutputStreamBuffer::int_type OutputStreamBuffer::overflow(int_type ch) {
  if (!flushPending()) return traits_type::eof();
  if (traits_type::eq_int_type(ch, traits_type::eof())) return traits_type::not_eof(ch);
  *pptr() = traits_type::to_char_type(ch);
  pbump(1);
  return ch;
}

std::streamsize OutputStreamBuffer::xsputn(const char* s, std::streamsize n) {
  if (n <= epptr() - pptr()) {
    std::memcpy(pptr(), s, static_cast<size_t>(n));
    pbump(static_cast<int>(n));
    return n;
  }
  // A long run goes straight through, after what is pending.
  if (!flushPending()) return 0;
  ssize_t written = stream_.write(reinterpret_cast<const uint8_t*>(s), static_cast<size_t>(n));
  return written < 0 ? 0 : static_cast<std::streamsize>(written);
}

int OutputStreamBuffer::sync() {
  return flushPending() ? 0 : -1;
}

}  // namespace vorlen
