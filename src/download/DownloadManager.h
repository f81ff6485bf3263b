// DownloadManager: the role of the keeper of resource files, as the rest of the daemon sees it. The bag
// names resource files (the app allow-list, the weekly and monthly look-up hints); the manager keeps each
// one as a file named after its identifier in the caches folder, remembers where it came from across
// restarts, and announces every stored or removed file on the Assembly's notification centre:
//
//   "VORFileDownloadCompletedNotification"  user information {"identifier": id, "url": stored file path}
//   "VORFileDeletedNotification"            user information {"identifier": id}
//
// (Names and keys are kVORFileDownloadCompletedNotification, kVORFileDeletedNotification,
// kVORIdentifierKey and kVORURLKey of model/Constants.h.) Observers run on the manager's thread of the
// moment: hop onto your own queue before doing work.
//
// Threading: every method is safe from any thread and may wait for the manager's queue.
// REQUIRES: not called from inside a handler of the manager's own notifications (the handler runs on the
// manager's queue, and a synchronous hop onto it from there is a programming error).
#pragma once

#include <map>
#include <optional>
#include <string>

#include "base/UniqueFd.h"
#include "base/Value.h"
#include "model/VORError.h"

namespace vorlen {

// One resource as the manager remembers it. `url` and `redirectUrl` are in comparison form (no "key"
// query item); `redirectUrl` is present only when the final address after redirects differs from `url`.
struct DownloadResource {
  std::string identifier;
  std::optional<std::string> url;
  std::optional<std::string> redirectUrl;

  bool operator==(const DownloadResource&) const = default;
};

// Keys of the attributes dictionary that fileHandleForResource() fills.
inline constexpr const char* kVORResourceAttributeSize = "size";                  // unsigned, bytes
inline constexpr const char* kVORResourceAttributeModified = "modificationDate";  // date
inline constexpr const char* kVORResourceAttributeVersion = "version";            // string, when known
inline constexpr const char* kVORResourceAttributeURL = "url";                    // string, when known

// Code of the error fileHandleForResource() gives for a resource that has no stored file.
inline constexpr int64_t kVORResourceNotFoundCode = 404;

class DownloadManager {
 public:
  virtual ~DownloadManager() = default;

  // A copy of the record of `identifier`, or nothing when the manager knows no such resource.
  virtual std::optional<DownloadResource> resourceForKey(const std::string& identifier) = 0;

  // The stored file of `identifier`, opened read-only (close-on-exec). On failure the descriptor is
  // invalid and `*error` (when given) is an error of kVORErrorDomain: code 404 with "reason" "not found"
  // when the file does not exist (or the identifier cannot name a file), code 500 otherwise. `attributes`
  // (when given) receives the kVORResourceAttribute* entries of the opened file.
  virtual UniqueFd fileHandleForResource(const std::string& identifier, Value::Dict* attributes,
                                         VORError* error) = 0;

  // Identifier to version text for every known resource whose version is non-empty. The version is the
  // "version" query item of the resource's address or, for a look-up hints file, the signature derived
  // from its redirect address. Starts the manager if it has not started.
  virtual std::map<std::string, std::string> resourceVersions() = 0;
};

}  // namespace vorlen
