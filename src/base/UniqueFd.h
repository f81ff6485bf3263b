// UniqueFd: sole owner of one file descriptor; closes it when destroyed or reset.
//
// Threading: a plain value; one object is used from one thread at a time.
#pragma once

#include <utility>

namespace vorlen {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }

  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  explicit operator bool() const { return valid(); }

  // Gives up ownership without closing.
  int release() { return std::exchange(fd_, -1); }
  // Closes the held descriptor (if any) and takes `fd`.
  void reset(int fd = -1);

  // A close-on-exec duplicate of `fd`; invalid (with errno set) when dup fails.
  static UniqueFd duplicate(int fd);

 private:
  int fd_ = -1;
};

}  // namespace vorlen
