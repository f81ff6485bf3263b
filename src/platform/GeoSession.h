// GeoSession: the geo session service's user session, whose id travels with requests
// ("X-Velmo-GeoSession") so that the search service can tie together the requests of one session.
//
// LinuxGeoSession keeps a random UUID in memory, made at construction; userSessionEntity(true) replaces it
// first. Nothing is stored: a restarted daemon starts a new session.
//
// Threading: every method is safe from any thread.
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "base/Uuid.h"

namespace vorlen {

// One user session as the geo session service describes it.
struct GeoSessionEntity {
  static constexpr const char* kClassName = "GeoUserSessionEntity";
  // Absent when the session cannot give its id.
  std::optional<Uuid> sessionId;

  // The id's canonical text, or nothing.
  std::optional<std::string> sessionEntityString() const {
    if (!sessionId) return std::nullopt;
    return sessionId->string();
  }
};

class GeoSession {
 public:
  virtual ~GeoSession() = default;
  // The current user session; `reset` starts a new one first.
  virtual GeoSessionEntity userSessionEntity(bool reset) = 0;
};

class LinuxGeoSession final : public GeoSession {
 public:
  LinuxGeoSession() : id_(Uuid::random()) {}
  GeoSessionEntity userSessionEntity(bool reset) override {
    std::lock_guard lock(mu_);
    if (reset) id_ = Uuid::random();
    return GeoSessionEntity{id_};
  }

 private:
  std::mutex mu_;
  Uuid id_;
};

}  // namespace vorlen
