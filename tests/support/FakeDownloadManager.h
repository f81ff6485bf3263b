// FakeDownloadManager: a DownloadManager over a folder of real files, for the components that read
// resources (the app allow-list controller, look-up hints). store() writes a resource file and posts
// "VORFileDownloadCompletedNotification" as the real manager does; remove() deletes it and posts
// "VORFileDeletedNotification". Versions are set by the test.
//
// Threading: every method is safe from any thread.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <map>
#include <mutex>

#include "base/NotificationCenter.h"
#include "download/DownloadManager.h"
#include "model/Constants.h"
#include "support/TempDir.h"

namespace vorlen::test {

class FakeDownloadManager final : public DownloadManager {
 public:
  FakeDownloadManager(std::filesystem::path folder, std::shared_ptr<NotificationCenter> center)
      : folder_(std::move(folder)), center_(std::move(center)) {
    std::filesystem::create_directories(folder_);
  }

  std::optional<DownloadResource> resourceForKey(const std::string& identifier) override {
    if (!std::filesystem::exists(folder_ / identifier)) return std::nullopt;
    return DownloadResource{identifier, "https://example.invalid/" + identifier, std::nullopt};
  }
  UniqueFd fileHandleForResource(const std::string& identifier, Value::Dict* attributes,
                                 VORError* error) override {
    UniqueFd fd(::open((folder_ / identifier).c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
      if (error) *error = VORError::make(kVORResourceNotFoundCode, "not found");
      return fd;
    }
    if (attributes) {
      struct stat st {};
      ::fstat(fd.get(), &st);
      (*attributes)[kVORResourceAttributeSize] = Value(static_cast<uint64_t>(st.st_size));
    }
    return fd;
  }
  std::map<std::string, std::string> resourceVersions() override {
    std::lock_guard lock(mu_);
    return versions_;
  }

  void setVersion(const std::string& identifier, std::optional<std::string> version) {
    std::lock_guard lock(mu_);
    if (version)
      versions_[identifier] = *version;
    else
      versions_.erase(identifier);
  }
  // Writes the file (and the version, when given), then announces it.
  void store(const std::string& identifier, const std::string& contents,
             std::optional<std::string> version = std::nullopt) {
    writeFile(folder_ / identifier, contents);
    if (version) setVersion(identifier, version);
    center_->post(kVORFileDownloadCompletedNotification, nullptr,
                  Value::dict({{kVORIdentifierKey, Value(identifier)},
                               {kVORURLKey, Value((folder_ / identifier).string())}}));
  }
  void remove(const std::string& identifier) {
    std::filesystem::remove(folder_ / identifier);
    setVersion(identifier, std::nullopt);
    center_->post(kVORFileDeletedNotification, nullptr,
                  Value::dict({{kVORIdentifierKey, Value(identifier)}}));
  }
  std::filesystem::path pathOf(const std::string& identifier) const { return folder_ / identifier; }

 private:
  std::filesystem::path folder_;
  std::shared_ptr<NotificationCenter> center_;
  std::mutex mu_;
  std::map<std::string, std::string> versions_;
};

}  // namespace vorlen::test
