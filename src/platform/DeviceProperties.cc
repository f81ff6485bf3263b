#include "platform/DeviceProperties.h"

#include <sys/utsname.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "base/Preferences.h"

namespace vorlen {

namespace {

std::string firstLine(const char* path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  // Device-tree strings end in NUL; DMI strings in a newline.
  while (!line.empty() && (line.back() == '\0' || line.back() == '\n' || line.back() == ' ')) line.pop_back();
  return line;
}

// One KEY=value of os-release, quotes removed.
std::string osRelease(const std::string& key) {
  for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
    std::ifstream in(path);
    if (!in) continue;
    std::string line;
    while (std::getline(in, line)) {
      if (line.rfind(key + "=", 0) != 0) continue;
      std::string v = line.substr(key.size() + 1);
      if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'') && v.back() == v.front())
        v = v.substr(1, v.size() - 2);
      return v;
    }
    return "";
  }
  return "";
}

}  // namespace

LinuxDeviceProperties::LinuxDeviceProperties(std::shared_ptr<const Preferences> defaults)
    : defaults_(std::move(defaults)) {
  productType_ = firstLine("/sys/class/dmi/id/product_name");
  if (productType_.empty()) productType_ = firstLine("/proc/device-tree/model");
  if (productType_.empty()) {
    utsname u{};
    if (::uname(&u) == 0) productType_ = u.machine;
  }
  productName_ = osRelease("NAME");
  if (productName_.empty()) productName_ = "Linux";
  buildVersion_ = osRelease("BUILD_ID");
  if (buildVersion_.empty()) buildVersion_ = osRelease("VERSION_ID");
}

double LinuxDeviceProperties::screenScale() const {
  if (defaults_) {
    double v = defaults_->doubleForKey("VORScreenScale");
    if (v > 0) return v;
  }
  if (const char* g = std::getenv("GDK_SCALE")) {
    char* end = nullptr;
    double v = std::strtod(g, &end);
    if (end != g && v > 0) return v;
  }
  return 1.0;
}

std::string LinuxDeviceProperties::keyboardInputMode() const {
  if (defaults_)
    if (auto v = defaults_->stringForKey("VORKeyboardInputMode"); v && !v->empty()) return *v;
  // The language part of the process locale, e.g. "en_US" of "en_US.UTF-8".
  for (const char* var : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* v = std::getenv(var);
    if (!v || !*v) continue;
    std::string s(v);
    s = s.substr(0, s.find_first_of(".@"));
    if (s == "C" || s == "POSIX") return "en_US";
    return s;
  }
  return "en_US";
}

}  // namespace vorlen
