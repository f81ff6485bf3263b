// Fuzz target for the look-up result filter. Input: the query context up to the first newline, then a
// look-up answer (JSON). Answers nesting deeper than the filter's callers accept are skipped, as the
// daemon's JSON parse of a response would be; everything else is filtered, and a filtered answer must be
// an array no longer than the input answer.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "cache/LookupResultFilter.h"
#include "network/AppWhitelistSignature.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  size_t newline = input.find('\n');
  std::string_view context = input.substr(0, newline);
  std::string_view answer =
      newline == std::string_view::npos ? std::string_view() : input.substr(newline + 1);
  if (!vorlen::jsonNestingWithin(answer, 64)) return 0;
  nlohmann::json json =
      nlohmann::json::parse(answer.begin(), answer.end(), nullptr, /*allow_exceptions=*/false);
  static const vorlen::LookupResultFilter filters[] = {vorlen::LookupResultFilter("en_US"),
                                                       vorlen::LookupResultFilter("tr_TR")};
  for (const auto& filter : filters) {
    auto filtered = filter.filter(context, json);
    if (filtered && (!filtered->is_array() || filtered->size() != json.size())) std::abort();
  }
  return 0;
}
