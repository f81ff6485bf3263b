// GUIDController: the role of the user-GUID source. currentUserGUID() never returns a GUID that has
// expired; reset() replaces the GUID, and a currentUserGUID() issued after reset() returns the new one.
#pragma once

#include "base/Uuid.h"

namespace vorlen {

class GUIDController {
 public:
  virtual ~GUIDController() = default;
  virtual Uuid currentUserGUID() = 0;
  virtual void reset() = 0;
};

}  // namespace vorlen
