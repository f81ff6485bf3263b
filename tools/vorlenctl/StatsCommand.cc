#include "StatsCommand.h"

#include <fmt/format.h>

#include "base/Counters.h"

namespace vorlen::ctl {

std::filesystem::path StatsCommand::countersFile(const std::filesystem::path& cachesDir) {
  // Same name as Platform::forLinux gives the daemon's Counters.
  return cachesDir / Counters::kFileName;
}

ExitCode StatsCommand::run(const CtlOutput& out, const std::filesystem::path& cachesDir) {
  std::filesystem::path file = countersFile(cachesDir);
  std::error_code ec;
  // No file yet (no counter has been saved): an empty result.
  std::map<std::string, int64_t> counters;
  if (std::filesystem::exists(file, ec)) counters = Counters::readFile(file);
  // One record per counter, so that --json=short gives one line each.
  nlohmann::ordered_json doc = nlohmann::ordered_json::array();
  for (const auto& [key, value] : counters) {
    out.line(fmt::format("{} {}", key, value));
    doc.push_back({{"counter", key}, {"value", value}});
  }
  if (counters.empty()) out.line("no counters saved yet");
  out.document(doc);
  return ExitCode::Ok;
}

}  // namespace vorlen::ctl
