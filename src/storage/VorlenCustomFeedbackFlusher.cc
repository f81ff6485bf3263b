#include "storage/VorlenCustomFeedbackFlusher.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>

#include "base/Counters.h"
#include "base/Log.h"
#include "feedback/ClientSession.h"
#include "model/Constants.h"
#include "model/VORError.h"
#include "network/BagController.h"
#include "platform/Assembly.h"
#include "platform/PrivacyReportFolder.h"
#include "storage/UploadManager.h"
#include "storage/VorlenPeriodicTaskManager.h"

namespace vorlen {

namespace {

const Logger& log() {
  return VorlenLogForCategory(VorlenLogCategoryFeedbackStorage);
}

constexpr uint32_t kCrowdsourcingEndpoint = 0;
constexpr uint32_t kFeedbackEndpoint = 1;
constexpr int64_t kFileTooLargeCode = 4;

}  // namespace

std::shared_ptr<VorlenCustomFeedbackFlusher> VorlenCustomFeedbackFlusher::create(
    std::shared_ptr<Assembly> assembly) {
  return std::shared_ptr<VorlenCustomFeedbackFlusher>(new VorlenCustomFeedbackFlusher(std::move(assembly)));
}

void VorlenCustomFeedbackFlusher::scheduleMaintenance() {
  std::weak_ptr<VorlenCustomFeedbackFlusher> weak = weak_from_this();
  auto task = VorlenPeriodicTask::taskWithName(kMaintenanceTaskName, kMaintenancePeriodSeconds, [weak] {
    auto self = weak.lock();
    if (!self) return;
    const Time now = self->assembly_->clock()->now();
    self->flushStartingOn(now - seconds(86400), now);
  });
  VorlenPeriodicTaskManager::sharedInstance(*assembly_)->registerTask(task);
}

void VorlenCustomFeedbackFlusher::flushStartingOn(Time, Time) {
  flushCustomFeedback();
  flushDPFeedback();
}

std::string VorlenCustomFeedbackFlusher::feedbackTypeForSubDir(const std::string& subDir) {
  if (subDir.empty()) return "custom";
  std::string type = subDir;
  std::transform(type.begin(), type.end(), type.begin(), [](unsigned char c) { return std::tolower(c); });
  return type;
}

uint64_t VorlenCustomFeedbackFlusher::_maximumSize(const std::string& type) const {
  std::optional<VORBag> bag =
      assembly_->bagController ? assembly_->bagController->cachedBagState() : std::nullopt;
  const uint64_t fromBag = bag ? bag->maximumSizeForFeedbackType(type) : 0;
  return fromBag ? fromBag : kDefaultMaximumSize;
}

std::vector<std::filesystem::path> VorlenCustomFeedbackFlusher::reportsInDirectory(
    const std::filesystem::path& directory, bool recursive) {
  std::vector<std::filesystem::path> reports;
  std::error_code ec;
  // Neither iterator follows a symbolic link to a folder; lstat below refuses links to files.
  auto consider = [&](const std::filesystem::directory_entry& entry, bool* descend) {
    *descend = false;
    const std::string name = entry.path().filename().string();
    if (name.starts_with(".")) return;
    struct stat st {};
    if (::lstat(entry.path().c_str(), &st) != 0 || st.st_uid != ::getuid()) return;
    if (S_ISDIR(st.st_mode)) {
      *descend = recursive;
    } else if (S_ISREG(st.st_mode)) {
      reports.push_back(entry.path());
      log().info("{} {}", Private(name), st.st_size);
    }
  };
  if (recursive) {
    std::filesystem::recursive_directory_iterator it(directory, ec), end;
    for (; !ec && it != end; it.increment(ec)) {
      bool descend = false;
      consider(*it, &descend);
      if (!descend && it->is_directory(ec)) it.disable_recursion_pending();
    }
  } else {
    for (std::filesystem::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec)) {
      bool descend = false;
      consider(*it, &descend);
    }
  }
  std::sort(reports.begin(), reports.end());
  return reports;
}

void VorlenCustomFeedbackFlusher::flushCustomFeedback() {
  const std::filesystem::path& caches = assembly_->fileManager().cachesDir;
  if (caches.empty()) {
    log().error("Failed to get cache directory: {}", "no caches folder");
    return;
  }
  // The caches folder is already <user caches>/com.velmo.vorlend.
  const std::filesystem::path folder = caches / kFolderName;
  struct stat st {};
  if (::lstat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    log().info("No custom feedback found. Nothing to flush.");
    return;
  }
  const std::shared_ptr<UploadManager>& uploads = assembly_->uploadManager;
  for (const char* subDir : kSubDirs) {
    const std::string name = subDir;
    // The folder itself is listed without descending: its report-kind folders are listed on their own.
    std::vector<std::filesystem::path> files =
        reportsInDirectory(name.empty() ? folder : folder / name, /*recursive=*/!name.empty());
    if (files.empty()) {
      log().info("No {} custom feedback available for flushing", name);
      continue;
    }
    const std::string type = feedbackTypeForSubDir(name);
    const uint64_t limit = _maximumSize(type);
    for (const auto& file : files) {
      std::error_code ec;
      const uint64_t size = std::filesystem::file_size(file, ec);
      if (ec) continue;
      if (size <= limit) {
        if (uploads) uploads->uploadFeedback(file, type, kFeedbackEndpoint);
        continue;
      }
      VORError error;
      error.domain = kVORErrorDomain;
      error.code = kFileTooLargeCode;
      error.userInfo = {{"size", Value(size)}, {"type", Value(type)}};
      ClientSession::createFeedbackSessionFromError(error, *assembly_)->sessionComplete();
      VorlenDiagnosticDataReporter::addValue(
          1, fmt::format("com.velmo.vorlend.customfeedback.{}.filetoolarge", type));
      log().error("Custom feedback item {} too big to process: {}", Private(file.filename().string()), size);
    }
  }
  // remove_all removes links themselves, never what they point to.
  std::error_code ec;
  std::filesystem::remove_all(folder, ec);
  if (ec) log().error("Failed to remove directory after flushing custom feedback: {}", ec.message());
}

void VorlenCustomFeedbackFlusher::flushDPFeedback() {
  PrivacyReportFolder reports(assembly_->fileManager().cachesDir);
  std::vector<std::filesystem::path> pending = reports.pendingReports();
  if (pending.empty()) {
    log().info("No crowdsourcing reports available for flushing");
    return;
  }
  if (const auto& uploads = assembly_->uploadManager)
    for (const auto& report : pending) uploads->uploadFeedback(report, "", kCrowdsourcingEndpoint);
  reports.retire(pending);
}

}  // namespace vorlen
