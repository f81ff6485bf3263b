#include "network/UserAgent.h"

#include <fmt/format.h>

#include "network/NetworkConstants.h"
#include "platform/DeviceProperties.h"

namespace vorlen {

std::optional<std::string> createUserAgentString(std::string_view clientText,
                                                 const DeviceProperties& device) {
  if (clientText.empty()) return std::nullopt;
  std::string marker = std::string(kVORVorlendNameVersion) + " (";
  if (clientText.find(marker) != std::string_view::npos) return std::string(clientText);
  return fmt::format("{} ({}) {}", kVORVorlendNameVersion, device.deviceText(), clientText);
}

}  // namespace vorlen
