#include "base/MappedFile.h"

#include <sys/mman.h>

#include <utility>

namespace vorlen {

std::optional<MappedFile> MappedFile::map(int fd, size_t length) {
  if (length == 0) return MappedFile(nullptr, 0);
  void* addr = ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE, fd, 0);
  if (addr == MAP_FAILED) return std::nullopt;
  return MappedFile(addr, length);
}

MappedFile::MappedFile(MappedFile&& other) noexcept
    : addr_(std::exchange(other.addr_, nullptr)), length_(std::exchange(other.length_, 0)) {}

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
  if (this != &other) {
    if (addr_) ::munmap(addr_, length_);
    addr_ = std::exchange(other.addr_, nullptr);
    length_ = std::exchange(other.length_, 0);
  }
  return *this;
}

MappedFile::~MappedFile() {
  if (addr_) ::munmap(addr_, length_);
}

}  // namespace vorlen
