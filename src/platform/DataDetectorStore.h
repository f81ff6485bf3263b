// DataDetectorStore: the data-detector service of look-up hints. It holds at most one source file per
// source kind, with the signature the source was pushed with.
//
// FileDataDetectorStore keeps them under <caches>/datadetectors/ as "source.<kind>" and
// "source.<kind>.signature" (mode 0600, written atomically). A push first removes the signature, then
// replaces the source, then writes the new signature, so an interrupted push leaves no signature and the
// start-up comparison with the downloaded version repairs it. Pushing no file removes both. Sources larger
// than kMaxSourceBytes are refused, and kinds outside 0..kMaxSourceKind are refused.
//
// Threading: every method is safe from any thread (pushes are serialised).
#pragma once

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>

namespace vorlen {

class DataDetectorStore {
 public:
  virtual ~DataDetectorStore() = default;
  // Replaces the source of `kind` by the file open at `fd` (read from its start), or removes it when `fd`
  // is negative. False when the store refused or failed.
  virtual bool pushSource(int kind, int fd, const std::string& signature) = 0;
  // The signature of the source held for `kind`, or nothing when there is none.
  virtual std::optional<std::string> signatureForSourceKind(int kind) const = 0;
};

class FileDataDetectorStore final : public DataDetectorStore {
 public:
  static constexpr int kMaxSourceKind = 15;
  static constexpr size_t kMaxSourceBytes = 64u << 20;

  explicit FileDataDetectorStore(std::filesystem::path folder);

  bool pushSource(int kind, int fd, const std::string& signature) override;
  std::optional<std::string> signatureForSourceKind(int kind) const override;
  std::filesystem::path sourcePath(int kind) const;

 private:
  std::filesystem::path folder_;
  mutable std::mutex mu_;
};

}  // namespace vorlen
