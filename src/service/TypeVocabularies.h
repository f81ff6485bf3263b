// The service's classifier of user-agent texts: which client family an agent names.
//
// Threading: pure functions.
#pragma once

#include <optional>
#include <string>

namespace vorlen {

// "voyant" when the lower-cased agent contains "voyant", else "norvanta" when it contains "norvanta",
// else "unknown" (also for an absent agent). The browser test comes first on purpose.
std::string getClientFromUserAgent(const std::optional<std::string>& userAgent);

}  // namespace vorlen
