#include "service/TypeVocabularies.h"

#include <algorithm>
#include <cctype>

namespace vorlen {

namespace {
std::string lower(const std::string& s) {
  std::string out(s);
  std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
  return out;
}
}  // namespace

std::string getClientFromUserAgent(const std::optional<std::string>& userAgent) {
  if (!userAgent) return "unknown";
  std::string agent = lower(*userAgent);
  if (agent.find("voyant") != std::string::npos) return "voyant";
  if (agent.find("norvanta") != std::string::npos) return "norvanta";
  return "unknown";
}

}  // namespace vorlen
