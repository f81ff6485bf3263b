// DevicePowerState: what background work needs to know about the device on Linux: whether it runs on
// battery (from the power-supply class folder, normally /sys/class/power_supply) and whether the user's
// screen is asleep (logind's idle hint of this user, read over the system bus). Each answer that cannot be
// read is the one that lets work run: not on battery, screen asleep.
//
// Threading: every method is safe from any thread; each call reads its source afresh (no cache).
#pragma once

#include <filesystem>

namespace vorlen {

class DevicePowerState {
 public:
  explicit DevicePowerState(std::filesystem::path powerSupplyDir = "/sys/class/power_supply");

  // True when a battery discharges and no mains or USB supply is online.
  bool onBattery() const;
  // logind's IdleHint of this user; true when logind cannot be asked (or this build has no libsystemd).
  bool screenAsleep() const;

 private:
  std::filesystem::path powerSupplyDir_;
};

}  // namespace vorlen
