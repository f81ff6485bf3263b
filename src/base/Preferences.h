// Preferences: one preferences domain stored as a property-list file <configDir>/<domain>.plist.
//
// Reads: a stored value wins over a registered default; registered defaults live only in memory and are
// never written. Typed reads tolerate a wrong type (they yield the type's empty value or nullopt, never
// throw). Reads notice a change made by another process through a stat check of the file (inode, size,
// modification time) and reload it. The check runs at most once per kRecheckInterval, so reads on the
// typing path stay free of system calls: another process's edit shows within that interval, a change made
// through any Preferences object of this process shows on the next read, and recheckAll() (for SIGHUP) or
// synchronize() makes the next read look at once.
//
// Writes: set()/remove() hold an exclusive lock on the folder (flock), re-read the file, update memory and
// write the whole domain at once, so two processes that change different keys both keep their change (a
// lock held by another process for over 2 s is logged and passed over, so nobody can stall a writer). The
// domain is written as a binary property list, atomically (temporary file in the same folder, fsync, rename)
// with mode 0600, creating the folder with mode 0700 when missing. Setting a null value removes the key.
// A failed write is logged and leaves the old file; the values stay in memory (and win over the file)
// until synchronize() or a later write succeeds.
// A file that cannot be read or decoded is logged once and read as empty; it is replaced by the next
// write. Both binary and XML files are read.
//
// Threading: every method is safe from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "base/Value.h"

namespace vorlen {

class Preferences {
 public:
  static constexpr std::chrono::milliseconds kRecheckInterval{100};

  Preferences(std::filesystem::path configDir, std::string domain);

  // The next read of every Preferences object of this process looks at its file again.
  static void recheckAll();

  const std::string& domain() const { return domain_; }
  const std::filesystem::path& path() const { return path_; }

  void registerDefaults(const Value::Dict& defaults);

  // Stored value, else registered default, else null.
  Value object(std::string_view key) const;
  bool contains(std::string_view key) const { return !object(key).isNull(); }

  // Bool: a bool, a non-zero number, or the strings "YES"/"true"/"1" (any case) are true.
  bool boolForKey(std::string_view key) const;
  // Integers and doubles: numbers, bools (1 or 0), or strings that parse completely as one; otherwise 0.
  // Reals are truncated towards zero and everything is clamped to the result's range (negative numbers
  // read as unsigned are 0).
  int64_t integerForKey(std::string_view key) const;
  uint64_t unsignedForKey(std::string_view key) const;
  double doubleForKey(std::string_view key) const;
  std::optional<std::string> stringForKey(std::string_view key) const;  // strings only
  std::optional<Value::Array> arrayForKey(std::string_view key) const;
  std::optional<Value::Dict> dictionaryForKey(std::string_view key) const;
  std::optional<Time> dateForKey(std::string_view key) const;
  std::optional<Value::Data> dataForKey(std::string_view key) const;

  // A number that changes whenever any value of the domain may have changed (a write here, a file changed
  // by another process, new defaults); as cheap as any read. Lets a caller keep something
  // derived from several keys until the domain changes.
  uint64_t changeCount() const;

  // Persisted values only (no defaults), as last read or written.
  Value::Dict storedValues() const;

  // Returns false (and logs) when the domain could not be written.
  bool set(std::string key, Value value);
  bool remove(std::string_view key);
  // Forces a re-read on the next access and, when there are unsaved values, a write now.
  bool synchronize();

 private:
  void refreshLocked() const;
  void rereadLocked();  // full re-read, unless memory holds unsaved values
  bool writeLocked();

  std::filesystem::path dir_;
  std::string domain_;
  std::filesystem::path path_;
  mutable std::mutex mu_;
  Value::Dict defaults_;
  mutable Value::Dict stored_;
  struct FileStamp {
    uint64_t inode = 0, size = 0;
    int64_t mtimeNs = 0;
    bool exists = false;
    bool operator==(const FileStamp&) const = default;
  };
  mutable std::optional<FileStamp> stamp_;  // of the file stored_ was read from; nullopt: read again
  mutable std::chrono::steady_clock::time_point checkedAt_;  // of the last stat
  mutable uint64_t checkedGeneration_ = 0;                   // processGeneration() at the last stat
  mutable bool warnedUndecodable_ = false;
  mutable uint64_t changes_ = 0;
  bool unsaved_ = false;  // stored_ holds values whose write failed; reads keep them until written
};

}  // namespace vorlen
