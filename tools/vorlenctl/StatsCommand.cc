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
  if (!std::filesystem::exists(file, ec))
    return out.error(ExitCode::Failed, "no counters have been saved yet (" + file.string() + ")");
  std::map<std::string, int64_t> counters = Counters::readFile(file);
  nlohmann::ordered_json doc = nlohmann::ordered_json::object();
  for (const auto& [key, value] : counters) {
    out.line(fmt::format("{} {}", key, value));
    doc[key] = value;
  }
  if (counters.empty()) out.line("(no counters in " + file.string() + ")");
  out.document(doc);
  return ExitCode::Ok;
}

}  // namespace vorlen::ctl
