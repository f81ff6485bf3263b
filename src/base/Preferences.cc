#include "base/Preferences.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <thread>

#include "base/Archive.h"
#include "base/FileUtil.h"
#include "base/Log.h"
#include "base/UniqueFd.h"

namespace vorlen {

namespace {

constexpr unsigned kFolderMode = 0700;

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

template <class T>
std::optional<T> parseWhole(std::string_view s) {
  T v{};
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || end != s.data() + s.size() || s.empty()) return std::nullopt;
  return v;
}

// A number, a bool, or a string holding a number, as a double (the widest common form); nullopt otherwise.
// Integers are kept separately by the callers when they fit, so that no precision is lost.
std::optional<double> numberAsDouble(const Value& v) {
  if (auto d = v.getDouble()) return d;
  if (auto b = v.getBool()) return *b ? 1.0 : 0.0;
  if (const std::string* s = v.getString()) return parseWhole<double>(*s);
  return std::nullopt;
}

int64_t clampToInt64(double d) {
  if (std::isnan(d)) return 0;
  if (d >= 9223372036854775808.0) return std::numeric_limits<int64_t>::max();
  if (d < -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(d);
}

uint64_t clampToUInt64(double d) {
  if (std::isnan(d) || d <= 0) return 0;
  if (d >= 18446744073709551616.0) return std::numeric_limits<uint64_t>::max();
  return static_cast<uint64_t>(d);
}

// Holds an exclusive flock() on the preferences folder while one writer re-reads and rewrites a domain, so
// that two processes changing different keys both keep their change (without it, the later rename wins
// and drops the other's key). The folder itself is locked so that no lock file appears beside the domains.
// Without a folder there is nothing to lose yet; the write that creates it runs unlocked.
class FolderWriteLock {
 public:
  static constexpr std::chrono::seconds kWait{2};

  explicit FolderWriteLock(const std::filesystem::path& dir)
      : fd_(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (!fd_) return;
    // Writers hold the lock for one re-read and write, milliseconds. A process that keeps it longer must
    // not stall the daemon: after kWait the write goes ahead unlocked, as it did before locking existed.
    const auto giveUpAt = std::chrono::steady_clock::now() + kWait;
    while (::flock(fd_.get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno == EINTR) continue;
      if (errno != EWOULDBLOCK || std::chrono::steady_clock::now() >= giveUpAt) {
        VorlenDefaultLog().error("preferences folder {} could not be locked, writing without the lock: {}",
                                 dir.string(), errno == EWOULDBLOCK ? "held too long" : std::strerror(errno));
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

 private:
  UniqueFd fd_;  // closing it releases the lock
};

// Bumped by every write through any Preferences object of this process and by recheckAll(): a read that
// sees it changed looks at its file whatever the time since its last look.
std::atomic<uint64_t> gGeneration{1};

}  // namespace

void Preferences::recheckAll() {
  gGeneration.fetch_add(1, std::memory_order_relaxed);
}

Preferences::Preferences(std::filesystem::path configDir, std::string domain)
    : dir_(std::move(configDir)), domain_(std::move(domain)), path_(dir_ / (domain_ + ".plist")) {}

void Preferences::registerDefaults(const Value::Dict& defaults) {
  std::lock_guard lock(mu_);
  for (const auto& [key, value] : defaults) defaults_.insert_or_assign(key, value);
  ++changes_;
}

uint64_t Preferences::changeCount() const {
  std::lock_guard lock(mu_);
  refreshLocked();
  return changes_;
}

Value Preferences::object(std::string_view key) const {
  std::lock_guard lock(mu_);
  refreshLocked();
  if (auto it = stored_.find(key); it != stored_.end()) return it->second;
  if (auto it = defaults_.find(key); it != defaults_.end()) return it->second;
  return Value();
}

bool Preferences::boolForKey(std::string_view key) const {
  Value v = object(key);
  if (auto b = v.getBool()) return *b;
  if (auto d = v.getDouble()) return *d != 0;
  if (const std::string* s = v.getString()) {
    return equalsIgnoringCase(*s, "yes") || equalsIgnoringCase(*s, "true") || *s == "1";
  }
  return false;
}

int64_t Preferences::integerForKey(std::string_view key) const {
  Value v = object(key);
  if (auto i = v.getInt()) return *i;
  if (v.type() == Value::Type::UInt) return std::numeric_limits<int64_t>::max();  // above 2^63-1
  if (const std::string* s = v.getString()) {
    if (auto i = parseWhole<int64_t>(*s)) return *i;
  }
  auto d = numberAsDouble(v);
  return d ? clampToInt64(*d) : 0;
}

uint64_t Preferences::unsignedForKey(std::string_view key) const {
  Value v = object(key);
  if (auto u = v.getUInt()) return *u;
  if (v.type() == Value::Type::Int) return 0;  // negative
  if (const std::string* s = v.getString()) {
    if (auto u = parseWhole<uint64_t>(*s)) return *u;
  }
  auto d = numberAsDouble(v);
  return d ? clampToUInt64(*d) : 0;
}

double Preferences::doubleForKey(std::string_view key) const {
  auto d = numberAsDouble(object(key));
  return d ? *d : 0.0;
}

std::optional<std::string> Preferences::stringForKey(std::string_view key) const {
  Value v = object(key);
  if (const std::string* s = v.getString()) return *s;
  return std::nullopt;
}

std::optional<Value::Array> Preferences::arrayForKey(std::string_view key) const {
  Value v = object(key);
  if (const Value::Array* a = v.getArray()) return *a;
  return std::nullopt;
}

std::optional<Value::Dict> Preferences::dictionaryForKey(std::string_view key) const {
  Value v = object(key);
  if (const Value::Dict* d = v.getDict()) return *d;
  return std::nullopt;
}

std::optional<Time> Preferences::dateForKey(std::string_view key) const {
  return object(key).getDate();
}

std::optional<Value::Data> Preferences::dataForKey(std::string_view key) const {
  Value v = object(key);
  if (const Value::Data* d = v.getData()) return *d;
  return std::nullopt;
}

Value::Dict Preferences::storedValues() const {
  std::lock_guard lock(mu_);
  refreshLocked();
  return stored_;
}

bool Preferences::set(std::string key, Value value) {
  if (value.isNull()) return remove(key);
  std::lock_guard lock(mu_);
  FolderWriteLock folder(dir_);
  rereadLocked();
  auto it = stored_.find(key);
  if (it != stored_.end() && it->second == value && !unsaved_) return true;
  stored_.insert_or_assign(std::move(key), std::move(value));
  return writeLocked();
}

bool Preferences::remove(std::string_view key) {
  std::lock_guard lock(mu_);
  FolderWriteLock folder(dir_);
  rereadLocked();
  auto it = stored_.find(key);
  if (it == stored_.end()) return true;
  stored_.erase(it);
  return writeLocked();
}

bool Preferences::synchronize() {
  std::lock_guard lock(mu_);
  bool ok = true;
  if (unsaved_) {
    // Only a write needs the folder lock; a plain re-read (the common call) costs no open or flock.
    FolderWriteLock folder(dir_);
    ok = writeLocked();
  }
  stamp_.reset();
  return ok;
}

void Preferences::rereadLocked() {
  // Another writer may have replaced the file with one of the same inode number, size and time stamp;
  // under the folder lock a full read is cheap and certain.
  if (!unsaved_) stamp_.reset();
  refreshLocked();
}

void Preferences::refreshLocked() const {
  if (unsaved_) return;  // memory holds values the file does not have yet
  const uint64_t generation = gGeneration.load(std::memory_order_relaxed);
  const auto checkedAt = std::chrono::steady_clock::now();
  if (stamp_ && generation == checkedGeneration_ && checkedAt - checkedAt_ < kRecheckInterval) return;
  checkedGeneration_ = generation;
  checkedAt_ = checkedAt;

  FileStamp now;
  struct stat st {};
  if (::stat(path_.c_str(), &st) == 0) {
    now = FileStamp{static_cast<uint64_t>(st.st_ino), static_cast<uint64_t>(st.st_size),
                    int64_t{st.st_mtim.tv_sec} * 1000000000 + st.st_mtim.tv_nsec, true};
  } else if (errno != ENOENT) {
    now.exists = true;  // present but not reachable: the read below fails and says why
  }
  if (stamp_ && *stamp_ == now) return;

  // The stamp is taken before the read: a write that lands in between leaves a newer file behind a stale
  // stamp, which only costs one more read later.
  stamp_ = now;
  stored_.clear();
  ++changes_;
  if (!now.exists) return;

  std::string why;
  std::optional<Value> root;
  if (auto bytes = readWholeFile(path_, Archive::kMaxBytes, &why)) root = Archive::decode(*bytes, &why);
  if (root && root->isDict()) {
    stored_ = std::move(*root->getDict());
    warnedUndecodable_ = false;
    return;
  }
  if (root) why = "the root is not a dictionary";
  if (!warnedUndecodable_) {
    warnedUndecodable_ = true;
    VorlenDefaultLog().error("preferences file {} could not be read ({}); reading it as empty",
                             path_.string(), why);
  }
}

bool Preferences::writeLocked() {
  ++changes_;
  std::string why;
  std::error_code ec;
  bool ok = (std::filesystem::is_directory(dir_, ec) || ensureDirectory(dir_, kFolderMode, &why)) &&
            writeFileAtomically(path_, Archive::encodeBinary(Value(stored_)), &why);
  if (!ok) {
    unsaved_ = true;
    VorlenDefaultLog().error("preferences file {} could not be written: {}", path_.string(), why);
    return false;
  }
  unsaved_ = false;
  gGeneration.fetch_add(1, std::memory_order_relaxed);  // other objects on this file see it at once
  stamp_.reset();  // read back on next access, so that a write by another process right after ours shows
  return true;
}

}  // namespace vorlen
