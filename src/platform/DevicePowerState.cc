#include "platform/DevicePowerState.h"

#include <fstream>
#include <string>
#include <system_error>

#ifdef VORLEN_HAVE_SYSTEMD
#include <systemd/sd-bus.h>
#endif

namespace vorlen {

namespace {

// The first line of a small attribute file; empty when unreadable.
std::string attribute(const std::filesystem::path& file) {
  std::ifstream in(file);
  std::string line;
  if (in) std::getline(in, line);
  return line;
}

}  // namespace

DevicePowerState::DevicePowerState(std::filesystem::path powerSupplyDir)
    : powerSupplyDir_(std::move(powerSupplyDir)) {}

bool DevicePowerState::onBattery() const {
  std::error_code ec;
  bool discharging = false;
  for (const auto& entry : std::filesystem::directory_iterator(powerSupplyDir_, ec)) {
    const std::string type = attribute(entry.path() / "type");
    if (type == "Mains" || type == "USB") {
      if (attribute(entry.path() / "online") == "1") return false;
    } else if (type == "Battery") {
      if (attribute(entry.path() / "status") == "Discharging") discharging = true;
    }
  }
  return discharging;
}

bool DevicePowerState::screenAsleep() const {
#ifdef VORLEN_HAVE_SYSTEMD
  sd_bus* bus = nullptr;
  if (sd_bus_open_system(&bus) < 0) return true;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  int idle = 1;
  const int r =
      sd_bus_get_property_trivial(bus, "org.freedesktop.login1", "/org/freedesktop/login1/user/self",
                                  "org.freedesktop.login1.User", "IdleHint", &error, 'b', &idle);
  sd_bus_error_free(&error);
  sd_bus_flush_close_unref(bus);
  return r < 0 || idle != 0;
#else
  return true;
#endif
}

}  // namespace vorlen
