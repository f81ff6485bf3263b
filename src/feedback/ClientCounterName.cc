#include "feedback/ClientCounterName.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace vorlen {

std::optional<std::string> extractClientNameFromString(std::string_view text) {
  // Order matters: an agent that names two of them counts under the first.
  static constexpr std::array<std::string_view, 8> kNames = {"voyant",   "norvanta", "zeva",    "lookup",
                                                             "messages", "news",     "vorlend", "quillcore"};
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (std::string_view name : kNames) {
    if (lower.find(name) != std::string::npos) return std::string(name);
  }
  return std::nullopt;
}

}  // namespace vorlen
