// MappedFile: a read-only memory mapping of a whole open file, unmapped when the object goes away. The
// bytes are the file's own pages: nothing is copied, and a file far larger than the memory it is read
// into costs only the pages touched.
//
// Threading: a plain value; the bytes may be read from any thread while the object lives.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace vorlen {

class MappedFile {
 public:
  // Maps the first `length` bytes of `fd` (its size, normally). A length of 0 maps nothing and succeeds
  // with empty bytes. Nothing, with errno set, when mmap fails.
  static std::optional<MappedFile> map(int fd, size_t length);

  MappedFile(MappedFile&& other) noexcept;
  MappedFile& operator=(MappedFile&& other) noexcept;
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;
  ~MappedFile();

  std::span<const uint8_t> bytes() const { return {static_cast<const uint8_t*>(addr_), length_}; }

 private:
  MappedFile(void* addr, size_t length) : addr_(addr), length_(length) {}
  void* addr_ = nullptr;
  size_t length_ = 0;
};

}  // namespace vorlen
