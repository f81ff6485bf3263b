// PrivacyReportFolder: the differential-privacy reporter's pending reports. On this platform the reporter is
// a folder under the caches folder ("PrivacyReports"): every regular file of this user in it is a report
// not yet submitted, and retiring a report deletes its file. Symbolic links and other kinds of entries are
// skipped and left alone.
//
// Threading: a plain value; its methods touch only the file system.
#pragma once

#include <filesystem>
#include <vector>

namespace vorlen {

class PrivacyReportFolder {
 public:
  static constexpr const char* kFolderName = "PrivacyReports";

  explicit PrivacyReportFolder(std::filesystem::path cachesDir)
      : folder_(std::move(cachesDir) / kFolderName) {}

  const std::filesystem::path& folder() const { return folder_; }
  // The reports not yet submitted, in name order; empty when the folder does not exist.
  std::vector<std::filesystem::path> pendingReports() const;
  // Deletes the given reports; a report already gone is no error.
  void retire(const std::vector<std::filesystem::path>& reports) const;

 private:
  std::filesystem::path folder_;
};

}  // namespace vorlen
