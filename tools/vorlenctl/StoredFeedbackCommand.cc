#include "StoredFeedbackCommand.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <memory>
#include <optional>

#include <fmt/format.h>

#include "base/Clock.h"
#include "base/FileUtil.h"
#include "base/Log.h"
#include "base/Preferences.h"
#include "feedback/ClientSession.h"
#include "feedback/SessionProcessingHelper.h"
#include "platform/Assembly.h"
#include "storage/ArchivedDataIterator.h"
#include "storage/FileContainer.h"
#include "storage/VorlenPersistentStorage.h"

namespace vorlen::ctl {
namespace {

struct StoredFile {
  uint64_t number = 0;
  std::filesystem::path path;
  uint64_t size = 0;
  double ageSeconds = 0;
  std::string version;
  std::shared_ptr<ClientSession> session;  // null when the file cannot be read
};

std::optional<uint64_t> numberOf(std::string_view name) {
  std::string_view digits = name.substr(std::strlen(VorlenPersistentStorage::kFilePrefix));
  uint64_t n = 0;
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), n);
  if (ec != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
  return n;
}

// The whole file read as the daemon would, trusting its own version record.
StoredFile load(const std::filesystem::path& path, uint64_t number, const Assembly& assembly) {
  StoredFile file;
  file.number = number;
  file.path = path;
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != ::geteuid()) return file;
  file.size = static_cast<uint64_t>(st.st_size);
  const auto written = std::chrono::system_clock::from_time_t(st.st_mtim.tv_sec);
  file.ageSeconds = std::chrono::duration<double>(std::chrono::system_clock::now() - written).count();
  std::optional<std::vector<uint8_t>> bytes = readWholeFile(path, 4u << 20);
  if (!bytes) return file;
  ArchivedDataIterator it(*bytes);
  if (auto version = it.readNextObject()) file.version.assign(version->begin(), version->end());
  file.session = FileContainer::unarchive(*bytes, file.version, assembly);
  return file;
}

std::string age(double seconds) {
  if (seconds < 120) return fmt::format("{:.0f} s", seconds);
  if (seconds < 7200) return fmt::format("{:.0f} min", seconds / 60);
  return fmt::format("{:.1f} h", seconds / 3600);
}

}  // namespace

StoredFeedbackCommand::StoredFeedbackCommand(const CtlOutput& out, std::filesystem::path cachesDir,
                                             std::filesystem::path configDir)
    : out_(out), cachesDir_(std::move(cachesDir)), configDir_(std::move(configDir)) {}

// Reading a file needs only the parts of an Assembly that a restored session uses.
static std::shared_ptr<Assembly> readingAssembly(const std::filesystem::path& configDir) {
  Platform platform;
  platform.clock = Clock::system();
  auto assembly = std::make_shared<Assembly>(platform);
  assembly->userDefaults = std::make_shared<Preferences>(configDir, "com.velmo.vorlend");
  return assembly;
}

ExitCode StoredFeedbackCommand::stored() {
  // The checks' own log lines would only repeat what the listing says.
  Log::setThreshold(LogLevel::Fault);
  auto assembly = readingAssembly(configDir_);
  std::vector<StoredFile> files;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(cachesDir_, ec)) {
    const std::string name = entry.path().filename().string();
    if (!name.starts_with(VorlenPersistentStorage::kFilePrefix)) continue;
    if (auto n = numberOf(name)) files.push_back(load(entry.path(), *n, *assembly));
  }
  std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) { return a.number < b.number; });

  nlohmann::ordered_json doc = nlohmann::ordered_json::array();
  for (const StoredFile& f : files) {
    const size_t events = f.session ? f.session->getSessionFeedbacks().size() : 0;
    nlohmann::ordered_json item;
    item["number"] = f.number;
    item["file"] = f.path.string();
    item["size"] = f.size;
    item["readable"] = f.session != nullptr;
    item["agent"] = f.session ? f.session->agent() : "";
    item["events"] = events;
    item["age_seconds"] = static_cast<int64_t>(f.ageSeconds);
    item["version"] = f.version;
    doc.push_back(std::move(item));
    if (f.session) {
      out_.line(fmt::format("session.{:<5} {:>9} bytes  {:>4} events  {:>8} old  {}", f.number, f.size,
                            events, age(f.ageSeconds),
                            f.session->agent().empty() ? "(no agent)" : f.session->agent()));
    } else {
      out_.line(fmt::format("session.{:<5} {:>9} bytes  unreadable (run vorlenctl feedback show {} for why)",
                            f.number, f.size, f.number));
    }
  }
  if (files.empty()) out_.line("no stored sessions in " + cachesDir_.string());
  out_.document(doc);
  return ExitCode::Ok;
}

ExitCode StoredFeedbackCommand::show(uint64_t number) {
  auto assembly = readingAssembly(configDir_);
  const auto path = cachesDir_ / (VorlenPersistentStorage::kFilePrefix + std::to_string(number));
  if (!std::filesystem::exists(std::filesystem::symlink_status(path)))
    return out_.error(ExitCode::Failed, "no session file " + path.string());
  // Say why a file cannot be read: the reader's own error lines go to stderr.
  StoredFile file = load(path, number, *assembly);
  if (!file.session) return out_.error(ExitCode::Failed, path.string() + " is not a readable session file");
  SessionProcessingHelper helper;
  nlohmann::ordered_json record = file.session->getFeedbacksToSend(helper);
  if (out_.json()) {
    out_.document(record);
  } else {
    out_.line(record.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
  }
  return ExitCode::Ok;
}

}  // namespace vorlen::ctl
