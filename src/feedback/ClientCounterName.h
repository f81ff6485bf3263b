// ClientCounterName: the client name that per-client counter keys carry ("com.velmo.vorlend.<client>.<name>",
// see createTallydKey), derived from a client's agent text.
//
// extractClientNameFromString() answers the first of "voyant", "norvanta", "zeva", "lookup", "messages",
// "news", "vorlend", "quillcore" that the lowercased text contains, or nothing: an agent that names none of
// them counts under no client at all.
//
// Threading: stateless; safe from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vorlen {

std::optional<std::string> extractClientNameFromString(std::string_view text);

}  // namespace vorlen
