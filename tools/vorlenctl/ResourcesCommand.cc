#include "ResourcesCommand.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "base/Preferences.h"
#include "download/DownloadManager.h"

namespace vorlen::ctl {

namespace {

using ojson = nlohmann::ordered_json;

// "2026-11-25 06:14:07 UTC" for people, seconds since 1970 for scripts.
std::string utcText(Time t) {
  return fmt::format("{:%Y-%m-%d %H:%M:%S} UTC", std::chrono::floor<std::chrono::seconds>(t));
}

std::string text(const Value::Dict& attributes, const char* key) {
  auto it = attributes.find(key);
  return it != attributes.end() && it->second.getString() ? *it->second.getString() : std::string();
}

}  // namespace

ResourcesCommand::ResourcesCommand(const CtlOutput& out, DaemonCommands& daemon,
                                   std::filesystem::path configDir)
    : out_(out), daemon_(daemon), configDir_(std::move(configDir)) {}

ExitCode ResourcesCommand::list() {
  Preferences defaults(configDir_, "com.velmo.vorlend");
  Value::Dict record = defaults.dictionaryForKey("download_resources").value_or(Value::Dict{});
  if (auto failed = daemon_.connect()) return *failed;
  ojson list = ojson::array();
  if (record.empty()) out_.line("no resource files");
  for (const auto& [identifier, entry] : record) {
    ClientResult<ResourceFile> r = daemon_.client()->fileHandleForResource(identifier);
    if (!r.ok()) return out_.clientError(*r.error);
    const Value* url = entry.find("url");
    ojson item = {{"identifier", identifier}, {"url", url && url->getString() ? *url->getString() : ""}};
    if (!r.value->file) {
      item["stored"] = false;
      out_.line(fmt::format("{}\tnot stored\t{}", identifier, item["url"].get<std::string>()));
      list.push_back(item);
      continue;
    }
    const Value::Dict& a = r.value->attributes;
    uint64_t size = 0;
    if (auto it = a.find(kVORResourceAttributeSize); it != a.end()) size = it->second.getUInt().value_or(0);
    std::optional<Time> modified;
    if (auto it = a.find(kVORResourceAttributeModified); it != a.end()) modified = it->second.getDate();
    std::string version = text(a, kVORResourceAttributeVersion);
    item["stored"] = true;
    item["version"] = version;
    item["size"] = size;
    if (modified) item["last_download"] = toUnixSeconds(*modified);
    list.push_back(item);
    out_.line(fmt::format("{}\tversion {}\t{} bytes\t{}\t{}", identifier, version.empty() ? "-" : version,
                          size, modified ? utcText(*modified) : "-", item["url"].get<std::string>()));
  }
  out_.document(list);
  return ExitCode::Ok;
}

ExitCode ResourcesCommand::get(const std::string& identifier) {
  if (auto failed = daemon_.connect()) return *failed;
  ClientResult<ResourceFile> r = daemon_.client()->fileHandleForResource(identifier);
  if (!r.ok()) return out_.clientError(*r.error);
  if (!r.value->file) {
    if (r.value->error && r.value->error->code != kVORResourceNotFoundCode)
      return out_.daemonError(*r.value->error);
    return out_.error(ExitCode::Failed, "no resource " + identifier);
  }
  // Streamed in pieces: a resource may be large, and stdout may be a pipe.
  std::vector<char> buffer(64 * 1024);
  for (;;) {
    ssize_t n = ::read(r.value->file.get(), buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0)
      return out_.error(ExitCode::Failed, std::string("cannot read the resource: ") + std::strerror(errno));
    if (n == 0) break;
    for (ssize_t done = 0; done < n;) {
      ssize_t w = ::write(STDOUT_FILENO, buffer.data() + done, static_cast<size_t>(n - done));
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) return out_.error(ExitCode::Failed, std::string("cannot write: ") + std::strerror(errno));
      done += w;
    }
  }
  return ExitCode::Ok;
}

}  // namespace vorlen::ctl
