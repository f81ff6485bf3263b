// ResponseCache: a small in-memory HTTP response cache with a byte budget, for the query session.
//
// Stored: responses with status 200 to GET requests whose Cache-Control carries max-age (> 0) and
// neither no-store nor no-cache, and whose Vary does not name "*". A request whose own Cache-Control or
// Pragma says no-cache or no-store neither reads nor writes the cache. An entry is served while its age
// (time since storing on the cache's clock, plus the response's Age header) is below max-age, and only to
// requests that agree with the stored one on every header the response varies on.
//
// Eviction: least recently used first, until the total size (body, header fields and URL) fits the budget.
// An entry larger than a twentieth of the budget is not stored, so one large answer cannot flush every
// other entry.
//
// Threading: every method is safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/Clock.h"
#include "network/HttpRequest.h"
#include "network/HttpResponse.h"

namespace vorlen {

class ResponseCache {
 public:
  struct Hit {
    std::vector<uint8_t> data;
    HttpResponse response;
  };

  ResponseCache(size_t budgetBytes, std::shared_ptr<Clock> clock);

  std::optional<Hit> lookup(const HttpRequest& request);
  void store(const HttpRequest& request, const HttpResponse& response, const std::vector<uint8_t>& data);
  // Drops every entry.
  void purge();

  size_t sizeBytes() const;
  size_t count() const;

 private:
  struct Entry {
    std::string url;
    std::vector<uint8_t> data;
    HttpResponse response;
    std::vector<std::pair<std::string, std::optional<std::string>>> varyValues;  // request header values
    Time expires;
    size_t bytes = 0;
  };
  using Lru = std::list<Entry>;

  void evictToFit();
  void removeLocked(std::map<std::string, Lru::iterator>::iterator it);

  const size_t budget_;
  const std::shared_ptr<Clock> clock_;
  mutable std::mutex mu_;
  Lru lru_;  // most recently used first
  std::map<std::string, Lru::iterator> byUrl_;
  size_t size_ = 0;
};

}  // namespace vorlen
