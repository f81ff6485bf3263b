// Lookup: the look-up hints. It hands the two hints files that the download manager keeps
// ("lookup_hints_weekly" as source kind 2, "lookup_hints_monthly" as source kind 3) to the platform's
// data-detector service, keeps that service in step with the downloaded versions, and filters look-up
// answers by their per-result instructions (LookupResultFilter).
//
//   - A downloaded or deleted hints file (kVORFileDownloadCompletedNotification /
//     kVORFileDeletedNotification with a hints identifier) is pushed at once: the file at the
//     notification's "url", or no file for a deletion. The signature pushed with it is the version the
//     download manager reports for the resource at that moment; if the manager records the new version
//     only after announcing the file, the next start-up sees the mismatch and pushes again.
//   - At start-up ("VORStartup") each kind whose held signature differs from the downloaded version is
//     pushed again from the stored file (monthly first, then weekly), so a push missed by a crash is
//     repaired.
//   - lookupEnabled(): true unless the boolean "LookupSuggestionsDisabled" is set in the preferences domain
//     "com.velmo.lookup.shared" (read at each call).
//   - signatureFromURL(): the version of a hints address: the path's parts 3, 4 and 2 joined with "-"
//     (/a/b/c/d gives c-d-b); the empty string, logged, for a path of fewer than four parts.
//
// Threading: hints-file work runs on the serial queue "com.velmo.vorlen.Lookup" (handlers only queue it);
// every public method is safe from any thread; filtering runs on the caller's thread.
// REQUIRES: _reprocessKind() and _push() run on that queue (asserted).
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "base/NotificationCenter.h"
#include "base/Queue.h"

namespace vorlen {

class Assembly;
class DataDetectorStore;
class DownloadManager;
class LocaleProvider;
class Preferences;
class VORLookupRequest;

class Lookup : public std::enable_shared_from_this<Lookup> {
 public:
  static constexpr int kWeeklySourceKind = 2;
  static constexpr int kMonthlySourceKind = 3;
  static constexpr const char* kSharedDomain = "com.velmo.lookup.shared";
  static constexpr const char* kDisabledKey = "LookupSuggestionsDisabled";

  // Reads from the Assembly: notificationCenter, downloadManager, the clock, the config folder and the
  // platform's data-detector store and locale. Any may be missing; the work that needs it is skipped.
  static std::shared_ptr<Lookup> create(const Assembly& assembly);

  bool lookupEnabled() const;
  static std::string signatureFromURL(const std::string& url);
  // The look-up answer with the results that fail their instructions removed; nothing (logged) when the
  // answer is not an array of sections. The query context is the request's lookupContext.
  std::optional<nlohmann::json> filterLookupResultsWithRequest(const VORLookupRequest& request,
                                                               nlohmann::json response) const;

  void _handleHintsFile(const Notification& notification);
  void _reprocessHintsFiles(const Notification& notification);
  // Waits until all queued work has run.
  void _drainQueue();

 private:
  explicit Lookup(const Assembly& assembly);
  void _start();
  void _push(int kind, const std::optional<std::string>& location, const std::string& identifier);
  void _reprocessKind(int kind, const std::map<std::string, std::string>& versions);

  std::shared_ptr<NotificationCenter> center_;
  std::shared_ptr<DownloadManager> downloadManager_;
  std::shared_ptr<DataDetectorStore> dataDetectors_;
  std::shared_ptr<LocaleProvider> locale_;
  std::shared_ptr<Preferences> shared_;
  std::shared_ptr<Queue> queue_;
  std::vector<std::unique_ptr<NotificationCenter::Token>> observers_;
};

}  // namespace vorlen
