// Fakes of the platform services behind the request context's app signature and subscriptions and the
// look-up hints: installed applications, the TV-provider subscription registry, the media store and the
// data-detector service. Each setter posts the notification the real service would post.
//
// Threading: every method is safe from any thread.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <unistd.h>

#include "base/NotificationCenter.h"
#include "platform/DataDetectorStore.h"
#include "platform/InstalledApplications.h"
#include "platform/MediaStore.h"
#include "platform/SubscriptionRegistry.h"

namespace vorlen::test {

class FakeInstalledApplications final : public InstalledApplications {
 public:
  explicit FakeInstalledApplications(std::shared_ptr<NotificationCenter> center = nullptr)
      : center_(std::move(center)) {}
  std::vector<InstalledApplication> installedApplications() const override {
    std::lock_guard lock(mu_);
    return apps_;
  }
  // Replaces the list and posts the applications-changed notification.
  void setApplications(std::vector<InstalledApplication> apps) {
    {
      std::lock_guard lock(mu_);
      apps_ = std::move(apps);
    }
    if (center_) center_->post(kPlatformInstalledApplicationsDidChangeNotification, this);
  }

 private:
  std::shared_ptr<NotificationCenter> center_;
  mutable std::mutex mu_;
  std::vector<InstalledApplication> apps_;
};

class FakeSubscriptionRegistry final : public SubscriptionRegistry {
 public:
  struct Entry {
    ThirdPartySubscription subscription;
    std::string bundleIdentifier, domain;
  };
  explicit FakeSubscriptionRegistry(std::shared_ptr<NotificationCenter> center = nullptr)
      : center_(std::move(center)) {}

  std::optional<std::vector<ThirdPartySubscription>> activeSubscriptions(
      const SubscriptionFetchOptions& options, std::string* error) const override {
    std::lock_guard lock(mu_);
    ++fetches_;
    lastOptions_ = options;
    if (error_) {
      if (error) *error = *error_;
      return std::nullopt;
    }
    std::vector<ThirdPartySubscription> out;
    auto listed = [](const std::vector<std::string>& list, const std::string& s) {
      for (const auto& x : list)
        if (x == s) return true;
      return false;
    };
    for (const Entry& e : entries_)
      if (listed(options.bundleIdentifiers, e.bundleIdentifier) || listed(options.domains, e.domain))
        out.push_back(e.subscription);
    return out;
  }
  void setEntries(std::vector<Entry> entries, std::optional<std::string> error = std::nullopt) {
    {
      std::lock_guard lock(mu_);
      entries_ = std::move(entries);
      error_ = std::move(error);
    }
    if (center_) center_->post(kPlatformActiveSubscriptionsDidChangeNotification, this);
  }
  int fetches() const {
    std::lock_guard lock(mu_);
    return fetches_;
  }
  SubscriptionFetchOptions lastOptions() const {
    std::lock_guard lock(mu_);
    return lastOptions_;
  }

 private:
  std::shared_ptr<NotificationCenter> center_;
  mutable std::mutex mu_;
  std::vector<Entry> entries_;
  std::optional<std::string> error_;
  mutable int fetches_ = 0;
  mutable SubscriptionFetchOptions lastOptions_;
};

class FakeMediaStore final : public MediaStore {
 public:
  explicit FakeMediaStore(std::shared_ptr<NotificationCenter> center = nullptr)
      : center_(std::move(center)) {}
  int64_t subscriptionAccountStatus() const override {
    std::lock_guard lock(mu_);
    return status_;
  }
  std::optional<std::string> storefrontIdentifier() const override {
    std::lock_guard lock(mu_);
    return storefront_;
  }
  void setStatus(int64_t status) {
    {
      std::lock_guard lock(mu_);
      status_ = status;
    }
    if (center_) center_->post(kPlatformMediaStoreSubscriptionStatusDidChangeNotification, this);
  }
  void setStorefront(std::optional<std::string> storefront) {
    {
      std::lock_guard lock(mu_);
      storefront_ = std::move(storefront);
    }
    if (center_) center_->post(kPlatformStorefrontDidChangeNotification, this);
  }

 private:
  std::shared_ptr<NotificationCenter> center_;
  mutable std::mutex mu_;
  int64_t status_ = 0;
  std::optional<std::string> storefront_;
};

// Records every push; the contents of a pushed file are read at push time. A store told to refuse
// rejects every push.
class FakeDataDetectorStore final : public DataDetectorStore {
 public:
  struct Push {
    int kind;
    std::optional<std::string> contents;  // nothing for "no file"
    std::string signature;
  };
  bool pushSource(int kind, int fd, const std::string& signature) override {
    std::optional<std::string> contents;
    if (fd >= 0) {
      std::string text;
      char buffer[4096];
      off_t offset = 0;
      for (ssize_t n; (n = ::pread(fd, buffer, sizeof buffer, offset)) > 0; offset += n)
        text.append(buffer, n);
      contents = std::move(text);
    }
    std::lock_guard lock(mu_);
    pushes_.push_back({kind, contents, signature});
    if (refuse_) return false;
    if (fd >= 0)
      signatures_[kind] = signature;
    else
      signatures_.erase(kind);
    return true;
  }
  std::optional<std::string> signatureForSourceKind(int kind) const override {
    std::lock_guard lock(mu_);
    auto it = signatures_.find(kind);
    return it == signatures_.end() ? std::nullopt : std::optional(it->second);
  }
  void setSignature(int kind, std::string signature) {
    std::lock_guard lock(mu_);
    signatures_[kind] = std::move(signature);
  }
  void setRefuse(bool refuse) {
    std::lock_guard lock(mu_);
    refuse_ = refuse;
  }
  std::vector<Push> pushes() const {
    std::lock_guard lock(mu_);
    return pushes_;
  }

 private:
  mutable std::mutex mu_;
  std::vector<Push> pushes_;
  std::map<int, std::string> signatures_;
  bool refuse_ = false;
};

}  // namespace vorlen::test
