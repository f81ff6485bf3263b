#include "DefaultsCommand.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>

#include <fmt/format.h>

#include "base/JsonValue.h"
#include "base/Preferences.h"
#include "network/VorlenBagController.h"

namespace vorlen::ctl {

DefaultsCommand::DefaultsCommand(const CtlOutput& out, std::filesystem::path configDir)
    : out_(out), configDir_(std::move(configDir)) {}

bool DefaultsCommand::validDomain(const std::string& domain) const {
  return !domain.empty() && domain.front() != '.' && domain.find('/') == std::string::npos &&
         domain.find('\0') == std::string::npos;
}

std::optional<Value> DefaultsCommand::parseTyped(const std::string& text, const std::string& type,
                                                 std::string* error) {
  auto refuse = [&](const char* what) -> std::optional<Value> {
    if (error) *error = fmt::format("\"{}\" is not {}", text, what);
    return std::nullopt;
  };
  if (type == "string") return Value(text);
  if (type == "bool") {
    std::string t = text;
    std::transform(t.begin(), t.end(), t.begin(), [](unsigned char c) { return std::tolower(c); });
    if (t == "true" || t == "yes" || t == "1") return Value(true);
    if (t == "false" || t == "no" || t == "0") return Value(false);
    return refuse("a boolean (true/false, yes/no, 1/0)");
  }
  if (text.empty() || std::isspace(static_cast<unsigned char>(text.front())))
    return refuse(("a " + type).c_str());
  char* end = nullptr;
  errno = 0;
  if (type == "int") {
    long long v = std::strtoll(text.c_str(), &end, 10);
    if (errno || *end) return refuse("a signed 64-bit integer");
    return Value(static_cast<int64_t>(v));
  }
  if (type == "uint") {
    if (text.front() == '-') return refuse("an unsigned 64-bit integer");
    unsigned long long v = std::strtoull(text.c_str(), &end, 10);
    if (errno || *end) return refuse("an unsigned 64-bit integer");
    return Value(static_cast<uint64_t>(v));
  }
  if (type == "real") {
    double v = std::strtod(text.c_str(), &end);
    if (errno || *end || !std::isfinite(v)) return refuse("a finite real number");
    return Value(v);
  }
  if (error) *error = "unknown type \"" + type + "\" (bool, int, uint, real or string)";
  return std::nullopt;
}

ExitCode DefaultsCommand::read(const std::string& domain, const std::optional<std::string>& key) {
  if (!validDomain(domain)) return out_.error(ExitCode::Usage, "invalid domain \"" + domain + "\"");
  Preferences prefs(configDir_, domain);
  std::error_code ec;
  if (!std::filesystem::exists(prefs.path(), ec))
    return out_.error(ExitCode::Failed, fmt::format("the domain {} does not exist", domain));
  if (!key) {
    Value::Dict all = prefs.storedValues();
    out_.document(JsonValue::toJson(Value(all)));
    for (const auto& [k, v] : all) out_.line(fmt::format("{} = {}", k, v.describe()));
    return ExitCode::Ok;
  }
  Value v = prefs.object(*key);
  if (v.isNull())
    return out_.error(ExitCode::Failed, fmt::format("the domain {} has no key \"{}\"", domain, *key));
  out_.document(JsonValue::toJson(v));
  out_.line(v.isString() ? *v.getString() : v.describe());
  return ExitCode::Ok;
}

ExitCode DefaultsCommand::write(const std::string& domain, const std::string& key, const std::string& text,
                                const std::string& type) {
  if (!validDomain(domain)) return out_.error(ExitCode::Usage, "invalid domain \"" + domain + "\"");
  std::string why;
  std::optional<Value> value = parseTyped(text, type, &why);
  if (!value) return out_.error(ExitCode::Usage, why);
  Preferences prefs(configDir_, domain);
  if (!prefs.set(key, *value))
    return out_.error(ExitCode::Failed, "could not write " + prefs.path().string());
  out_.document({{"domain", domain}, {"key", key}, {"value", JsonValue::toJson(*value)}});
  // The bag URL is read when the daemon checks its bag, not when the file changes: say when that is.
  if (key == VorlenBagController::kBagURLPreference) {
    out_.line(
        "vorlend fetches the bag from the new URL when it next checks its bag (at the latest when it "
        "starts); until that fetch ends it serves the bag it has; vorlenctl bag --refresh fetches it now");
  }
  return ExitCode::Ok;
}

ExitCode DefaultsCommand::remove(const std::string& domain, const std::string& key) {
  if (!validDomain(domain)) return out_.error(ExitCode::Usage, "invalid domain \"" + domain + "\"");
  Preferences prefs(configDir_, domain);
  Value::Dict stored = prefs.storedValues();
  if (stored.find(key) == stored.end())
    return out_.error(ExitCode::Failed, fmt::format("the domain {} has no key \"{}\"", domain, key));
  if (!prefs.remove(key)) return out_.error(ExitCode::Failed, "could not write " + prefs.path().string());
  out_.document({{"domain", domain}, {"deleted", key}});
  return ExitCode::Ok;
}

}  // namespace vorlen::ctl
