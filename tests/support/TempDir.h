// TempDir: a private folder (mode 0700) under $TMPDIR for one test, removed with everything in it when
// the object goes away.
#pragma once

#include <filesystem>
#include <string>

namespace vorlen::test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// Reads a whole file; empty when it cannot be read.
std::string readFile(const std::filesystem::path& path);
// Writes a whole file, replacing it.
void writeFile(const std::filesystem::path& path, const std::string& contents);
// Permission bits of a file (for example 0600).
unsigned fileMode(const std::filesystem::path& path);
// Inode number of a file (0 when it does not exist): an atomic replacement changes it.
uint64_t fileInode(const std::filesystem::path& path);

}  // namespace vorlen::test
