// Fuzz target for what the download manager takes from a bag: the input is split at its first newline
// into a resource identifier and an address. The identifier check must refuse every name that
// could leave the resources folder; the comparison form of an address must drop every "key" item, keep
// an absolute address and be a fixed point. Any broken rule aborts.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "base/Log.h"
#include "download/VorlenDownloadManager.h"
#include "network/UrlComponents.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A refused identifier is one error line; a million of them say nothing new.
  static const bool quiet = (vorlen::Log::setThreshold(vorlen::LogLevel::Fault), true);
  (void)quiet;
  std::string_view input(reinterpret_cast<const char*>(data), size);
  size_t split = input.find('\n');
  std::string_view identifier = input.substr(0, split);
  std::string_view address = split == std::string_view::npos ? std::string_view() : input.substr(split + 1);

  using vorlen::VorlenDownloadManager;
  if (VorlenDownloadManager::isValidResourceIdentifier(identifier)) {
    if (identifier.empty() || identifier.size() > 255 || identifier.find('/') != std::string_view::npos ||
        identifier.find('\0') != std::string_view::npos || identifier.front() == '.')
      std::abort();
  }

  auto compared = VorlenDownloadManager::urlForCompare(address);
  if (!compared) return 0;
  auto parts = vorlen::UrlComponents::parse(*compared);
  if (!parts) std::abort();
  for (const auto& item : parts->queryItems()) {
    if (item.name == "key") std::abort();
  }
  if (VorlenDownloadManager::urlForCompare(*compared) != compared) std::abort();
  return 0;
}
