// BagController: the role of the one owner of the server configuration (the bag), as its users see it.
// No method waits for the network: a bag that is not installed yet is fetched in the background and the
// caller gets nothing at once.
//
// Threading: every method is safe from any thread.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "base/Value.h"
#include "model/VORBag.h"
#include "model/VORError.h"

namespace vorlen {

class BagController {
 public:
  virtual ~BagController() = default;

  // The installed bag (seen with the daemon's own user agent); with none installed a background fetch
  // starts and nothing is returned.
  virtual std::optional<VORBag> currentBag() = 0;
  // The installed bag; when it is due for refresh a background fetch is scheduled and the installed bag is
  // still returned. Nothing when none is installed (and nothing is fetched).
  virtual std::optional<VORBag> cachedBagState() = 0;
  // The warm URL of currentBag().
  virtual std::optional<std::string> warmURL() = 0;
  // A response said a newer bag exists: `info` is the decoded "X-Velmo-ForceFetch" header, whose "bag"
  // holds the required version as a number. Fetches when the installed version is numerically lower.
  virtual void forceFetchBag(const Value::Dict& info) = 0;
  // Fetches the bag now, as after a change of the bag URL preference (after the fetch in flight, if any:
  // the answer always comes from a fetch begun after the call); `done` runs once, with the bag that fetch
  // installed or its error. A controller that cannot fetch answers with an error at once.
  using RefreshCompletion = std::function<void(const std::optional<VORBag>&, const std::optional<VORError>&)>;
  virtual void refreshBag(RefreshCompletion done) {
    if (done) done(std::nullopt, VORError::make(2, "bag refresh unavailable"));
  }
  // The bag endpoint for a device country code (absent or empty means worldwide).
  virtual std::string bagFetchURLWithCountry(const std::optional<std::string>& countryCode) const = 0;
};

}  // namespace vorlen
