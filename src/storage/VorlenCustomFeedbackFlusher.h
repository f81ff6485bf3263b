// VorlenCustomFeedbackFlusher: uploads the report files that other processes leave, once per maintenance
// run (the periodic task "com.velmo.vorlend.dp.flush", every 43,200 s):
//   - custom feedback: <caches>/CustomFeedback, its four report-kind folders (kSubDirs) and the folder
//     itself. Each file at most the bag's maximumSizeForFeedbackType: for its kind (2 MiB when that is 0
//     or there is no bag) goes to the feedback endpoint with the kind as "type"; a larger one becomes a
//     one-event error session (code 4, {"size", "type"}) and is counted
//     "com.velmo.vorlend.customfeedback.<type>.filetoolarge". The whole folder is removed afterwards.
//   - differential-privacy reports: every pending report goes to the crowdsourcing endpoint; then all are
//     retired at once.
// The folders are written by other processes: a symbolic link is never followed, and anything that is not
// a regular file of this user is skipped (and removed with the folder). Hidden files are skipped.
//
// Threading: the flush operations run on the caller's thread (the periodic task's queue); they are not
// meant to run twice at once.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "base/Clock.h"

namespace vorlen {

class Assembly;

class VorlenCustomFeedbackFlusher : public std::enable_shared_from_this<VorlenCustomFeedbackFlusher> {
 public:
  static constexpr const char* kMaintenanceTaskName = "com.velmo.vorlend.dp.flush";
  static constexpr uint64_t kMaintenancePeriodSeconds = 43200;
  static constexpr const char* kFolderName = "CustomFeedback";
  static constexpr uint64_t kDefaultMaximumSize = 0x200000;
  // The report-kind folders, then "" (the custom feedback folder itself). The kind's feedback type (the
  // upload's "type" item and the bag's size key) is the folder's name, "custom" for the folder itself.
  static constexpr std::array<const char*, 5> kSubDirs = {"ResultFeatures", "AutoFill", "AutoPlay", "Other",
                                                          ""};

  static std::shared_ptr<VorlenCustomFeedbackFlusher> create(std::shared_ptr<Assembly> assembly);

  // Registers the maintenance task with the periodic task manager; each run flushes everything.
  void scheduleMaintenance();
  // Custom feedback, then privacy reports; the dates do not filter.
  void flushStartingOn(Time from, Time to);
  void flushCustomFeedback();
  void flushDPFeedback();

  // The regular files of this user under `directory` (recursively when asked), hidden ones skipped, in
  // name order; symbolic links are neither followed nor listed.
  static std::vector<std::filesystem::path> reportsInDirectory(const std::filesystem::path& directory,
                                                               bool recursive);
  static std::string feedbackTypeForSubDir(const std::string& subDir);

 private:
  explicit VorlenCustomFeedbackFlusher(std::shared_ptr<Assembly> assembly) : assembly_(std::move(assembly)) {}
  uint64_t _maximumSize(const std::string& type) const;

  const std::shared_ptr<Assembly> assembly_;
};

}  // namespace vorlen
