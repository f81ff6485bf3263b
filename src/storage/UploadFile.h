// UploadFile: one temporary file of a feedback upload, "<tmp>/com.velmo.vorlend.upload_XXXXX" (the X's a
// unique suffix), created exclusively with mode 0600. It owns the file's OPEN descriptor, which it closes
// when it goes away, and knows the path until removePath() unlinks it.
//
// The descriptor outlives the path on purpose: the upload manager removes the path when the upload ends
// (whatever the outcome), while a caller that holds the handle can still map the bytes it wrote
// (base/MappedFile over fd()).
//
// Threading: fd() and size() are safe from any thread; path() and removePath() too (guarded by a mutex).
// Writing through the descriptor is the business of one thread at a time (the compressing caller).
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>

#include "base/UniqueFd.h"

namespace vorlen {

class UploadFile {
 public:
  static constexpr const char* kNamePrefix = "com.velmo.vorlend.upload_";
  // Length of the unique suffix that replaces the trailing X's of the name.
  static constexpr size_t kSuffixLength = 5;
  // The longest path a temporary file may have, terminator included.
  static constexpr size_t kMaxPathBytes = 1024;

  // Creates a new file in `directory` (O_CREAT | O_EXCL | O_NOFOLLOW, mode 0600). Null, with errno set,
  // when no file can be made (missing folder, path too long, no unique name after a few tries).
  static std::shared_ptr<UploadFile> create(const std::filesystem::path& directory);

  UploadFile(const UploadFile&) = delete;
  UploadFile& operator=(const UploadFile&) = delete;
  ~UploadFile();  // closes the descriptor; the path is not touched

  int fd() const { return fd_.get(); }
  // The path while it exists (until removePath()).
  std::optional<std::filesystem::path> path() const;
  // Whether the path still names this very file (same device and inode).
  bool pathExists() const;
  // The file's current size in bytes, from the descriptor; -1 on failure.
  off_t size() const;
  // Unlinks the path once; later calls do nothing. The descriptor stays open.
  void removePath();

 private:
  UploadFile(UniqueFd fd, std::filesystem::path path);

  const UniqueFd fd_;
  mutable std::mutex mu_;
  std::optional<std::filesystem::path> path_;
};

}  // namespace vorlen
