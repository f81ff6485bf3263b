// ServiceProbe: what the reference search service saw, read from its test endpoints, so that vorlenctl
// can tell a person where each answer came from: a /search request that reached the service means the
// network; none means the daemon answered from its query cache. The last request's "lc" item is the local
// completion the daemon sent along.
//
// Only the reference service (vorlen-refserver) has these endpoints; with any other service the probe
// reports nothing and sources show as unknown.
//
// Threading: one thread at a time.
#pragma once

#include <map>
#include <optional>
#include <string>

namespace vorlen::ctl {

class ServiceProbe {
 public:
  // `baseURL` like "http://127.0.0.1:8080".
  explicit ServiceProbe(std::string baseURL) : base_(std::move(baseURL)) {}

  // Requests received on `path` so far, or nothing when the service cannot be asked.
  std::optional<size_t> count(const std::string& path) const;
  // The decoded query items of the last request received on `path`.
  std::optional<std::map<std::string, std::string>> lastItems(const std::string& path) const;

 private:
  std::optional<std::string> get(const std::string& path) const;
  std::string base_;
};

}  // namespace vorlen::ctl
