#include "ServiceProbe.h"

#include <curl/curl.h>

#include <nlohmann/json.hpp>

namespace vorlen::ctl {

namespace {

size_t append(char* data, size_t size, size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

}  // namespace

std::optional<std::string> ServiceProbe::get(const std::string& path) const {
  CURL* curl = curl_easy_init();
  if (!curl) return std::nullopt;
  std::string body;
  const std::string url = base_ + path;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, append);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, 2000L);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  CURLcode rc = curl_easy_perform(curl);
  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  curl_easy_cleanup(curl);
  if (rc != CURLE_OK || status != 200) return std::nullopt;
  return body;
}

std::optional<size_t> ServiceProbe::count(const std::string& path) const {
  auto body = get("/_counts");
  if (!body) return std::nullopt;
  nlohmann::json counts = nlohmann::json::parse(*body, nullptr, false);
  if (!counts.is_object()) return std::nullopt;
  auto it = counts.find(path);
  return it != counts.end() && it->is_number_unsigned() ? it->get<size_t>() : 0;
}

std::optional<std::map<std::string, std::string>> ServiceProbe::lastItems(const std::string& path) const {
  auto body = get("/_requests");
  if (!body) return std::nullopt;
  nlohmann::json all = nlohmann::json::parse(*body, nullptr, false);
  if (!all.is_array()) return std::nullopt;
  for (auto it = all.rbegin(); it != all.rend(); ++it) {
    if (!it->is_object() || it->value("path", "") != path) continue;
    std::map<std::string, std::string> items;
    for (const auto& pair : it->value("query_items", nlohmann::json::array())) {
      if (pair.is_array() && pair.size() == 2 && pair[0].is_string() && pair[1].is_string())
        items[pair[0].get<std::string>()] = pair[1].get<std::string>();
    }
    return items;
  }
  return std::map<std::string, std::string>{};
}

}  // namespace vorlen::ctl
