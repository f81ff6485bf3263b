#include "platform/PrivacyReportFolder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>

namespace vorlen {

std::vector<std::filesystem::path> PrivacyReportFolder::pendingReports() const {
  std::vector<std::filesystem::path> reports;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(folder_, ec), end; !ec && it != end; it.increment(ec)) {
    struct stat st {};
    if (::lstat(it->path().c_str(), &st) != 0) continue;
    if (S_ISREG(st.st_mode) && st.st_uid == ::getuid() && !it->path().filename().string().starts_with("."))
      reports.push_back(it->path());
  }
  std::sort(reports.begin(), reports.end());
  return reports;
}

void PrivacyReportFolder::retire(const std::vector<std::filesystem::path>& reports) const {
  std::error_code ec;
  for (const auto& report : reports) std::filesystem::remove(report, ec);
}

}  // namespace vorlen
