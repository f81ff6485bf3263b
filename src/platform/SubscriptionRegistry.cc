#include "platform/SubscriptionRegistry.h"

#include <sys/stat.h>

#include <algorithm>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "base/FileUtil.h"
#include "base/JsonValue.h"

namespace vorlen {

FileSubscriptionRegistry::FileSubscriptionRegistry(std::filesystem::path file,
                                                   std::shared_ptr<NotificationCenter> center)
    : file_(std::move(file)), center_(std::move(center)), lastStamp_(stamp()) {}

std::string FileSubscriptionRegistry::stamp() const {
  struct stat st {};
  if (::stat(file_.c_str(), &st) != 0) return "absent";
  return fmt::format("{}:{}:{}.{}", st.st_ino, st.st_size, st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
}

void FileSubscriptionRegistry::checkForChanges() {
  bool changed = false;
  {
    std::lock_guard lock(mu_);
    std::string now = stamp();
    changed = now != lastStamp_;
    lastStamp_ = std::move(now);
  }
  if (changed && center_) center_->post(kPlatformActiveSubscriptionsDidChangeNotification, this);
}

std::optional<std::vector<std::pair<ThirdPartySubscription, std::pair<std::string, std::string>>>>
FileSubscriptionRegistry::parse(std::string_view text, std::string* error) {
  nlohmann::json doc = nlohmann::json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
  auto list = doc.is_object() ? doc.find("subscriptions") : doc.end();
  if (doc.is_discarded() || !doc.is_object() || list == doc.end() || !list->is_array()) {
    if (error) *error = "not a {\"subscriptions\": [...]} document";
    return std::nullopt;
  }
  std::vector<std::pair<ThirdPartySubscription, std::pair<std::string, std::string>>> out;
  for (const nlohmann::json& entry : *list) {
    if (!entry.is_object()) continue;
    auto provider = entry.find("provider");
    auto modified = entry.find("modified");
    if (provider == entry.end() || !provider->is_string() || modified == entry.end() ||
        !modified->is_number())
      continue;
    ThirdPartySubscription s;
    s.providerIdentifier = provider->get<std::string>();
    s.modificationDate = fromUnixSeconds(modified->get<double>());
    if (auto type = entry.find("type"); type != entry.end() && !type->is_null()) {
      std::string ignored;
      if (auto value = JsonValue::toValue(*type, &ignored)) s.subscriptionInfo = std::move(*value);
    }
    auto text = [&](const char* key) {
      auto it = entry.find(key);
      return it != entry.end() && it->is_string() ? it->get<std::string>() : std::string();
    };
    out.emplace_back(std::move(s), std::make_pair(text("bundleIdentifier"), text("domain")));
  }
  return out;
}

std::optional<std::vector<ThirdPartySubscription>> FileSubscriptionRegistry::activeSubscriptions(
    const SubscriptionFetchOptions& options, std::string* error) const {
  std::error_code ec;
  if (!std::filesystem::exists(file_, ec)) return std::vector<ThirdPartySubscription>{};
  std::string readError;
  auto bytes = readWholeFile(file_, kMaxFileBytes, &readError);
  if (!bytes) {
    if (error) *error = fmt::format("cannot read {}: {}", file_.string(), readError);
    return std::nullopt;
  }
  auto parsed = parse(std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()), error);
  if (!parsed) return std::nullopt;
  auto listed = [](const std::vector<std::string>& list, const std::string& s) {
    return !s.empty() && std::find(list.begin(), list.end(), s) != list.end();
  };
  std::vector<ThirdPartySubscription> out;
  for (auto& [subscription, where] : *parsed) {
    if (listed(options.bundleIdentifiers, where.first) || listed(options.domains, where.second))
      out.push_back(std::move(subscription));
  }
  return out;
}

}  // namespace vorlen
