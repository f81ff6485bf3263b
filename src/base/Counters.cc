#include "base/Counters.h"

#include "base/Archive.h"
#include "base/FileUtil.h"
#include "base/Log.h"

namespace vorlen {

namespace {
// Persisting is throttled so that a burst of keystrokes costs one write, not hundreds.
constexpr Duration kWriteInterval = std::chrono::seconds(5);

std::mutex gInstalledMu;
std::shared_ptr<Counters> gInstalled;
}  // namespace

Counters::Counters(std::filesystem::path file, std::shared_ptr<Clock> clock)
    : file_(std::move(file)), clock_(clock ? std::move(clock) : Clock::system()) {
  if (!file_.empty())
    for (auto& [k, v] : readFile(file_)) values_.emplace(k, v);
  lastWrite_ = clock_->now();
}

Counters::~Counters() {
  flush();
}

void Counters::setValue(int64_t value, std::string_view key) {
  std::lock_guard lock(mu_);
  values_[std::string(key)] = value;
  changedLocked();
}

void Counters::addValue(int64_t value, std::string_view key) {
  std::lock_guard lock(mu_);
  values_[std::string(key)] += value;
  changedLocked();
}

void Counters::clear(std::string_view key) {
  std::lock_guard lock(mu_);
  if (auto it = values_.find(key); it != values_.end()) {
    values_.erase(it);
    changedLocked();
  }
}

int64_t Counters::value(std::string_view key) const {
  std::lock_guard lock(mu_);
  auto it = values_.find(key);
  return it == values_.end() ? 0 : it->second;
}

std::map<std::string, int64_t> Counters::snapshot() const {
  std::lock_guard lock(mu_);
  return {values_.begin(), values_.end()};
}

void Counters::changedLocked() {
  dirty_ = true;
  if (file_.empty()) return;
  Time now = clock_->now();
  if (now - lastWrite_ < kWriteInterval) return;
  Value::Dict d;
  for (auto& [k, v] : values_) d.emplace(k, Value(v));
  if (writeFileAtomically(file_, Archive::encodeBinary(Value(std::move(d))))) dirty_ = false;
  lastWrite_ = now;
}

bool Counters::flush() {
  std::lock_guard lock(mu_);
  if (!dirty_ || file_.empty()) return true;
  Value::Dict d;
  for (auto& [k, v] : values_) d.emplace(k, Value(v));
  bool ok = writeFileAtomically(file_, Archive::encodeBinary(Value(std::move(d))));
  if (ok) dirty_ = false;
  lastWrite_ = clock_->now();
  return ok;
}

std::map<std::string, int64_t> Counters::readFile(const std::filesystem::path& file) {
  std::map<std::string, int64_t> out;
  auto bytes = readWholeFile(file);
  if (!bytes) return out;
  std::string err;
  auto v = Archive::decode(*bytes, &err);
  const Value::Dict* d = v ? v->getDict() : nullptr;
  if (!d) {
    VorlenDefaultLog().error("ignoring unreadable counters file {}: {}", file.string(), err);
    return out;
  }
  for (auto& [k, val] : *d)
    if (auto i = val.getInt()) out[k] = *i;
  return out;
}

void Counters::install(std::shared_ptr<Counters> counters) {
  std::lock_guard lock(gInstalledMu);
  gInstalled = std::move(counters);
}

std::shared_ptr<Counters> Counters::installed() {
  std::lock_guard lock(gInstalledMu);
  return gInstalled;
}

void VorlenDiagnosticDataReporter::setValue(int64_t value, std::string_view key) {
  if (auto c = Counters::installed()) c->setValue(value, key);
}
void VorlenDiagnosticDataReporter::addValue(int64_t value, std::string_view key) {
  if (auto c = Counters::installed()) c->addValue(value, key);
}
void VorlenDiagnosticDataReporter::clearScalarKey(std::string_view key) {
  if (auto c = Counters::installed()) c->clear(key);
}

std::string createTallydKey(std::string_view first, std::string_view second) {
  return fmt::format("com.velmo.vorlend.{}.{}", first, second);
}

}  // namespace vorlen
