// The user-agent text sent for a client's requests, and the daemon's own.
//
// createUserAgentString(client, device): no user agent for an empty client text; the client text itself
// when it already holds "Vorlend/1.0 (" (it was built here before); otherwise
// "<name-version> (<product type>; <product name> <build version>) <client text>". The daemon's own agent
// is createUserAgentString(kVORVorlendNameVersion, device), so the name-version text appears at both ends.
//
// Threading: pure functions.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vorlen {

class DeviceProperties;

std::optional<std::string> createUserAgentString(std::string_view clientText, const DeviceProperties& device);

}  // namespace vorlen
