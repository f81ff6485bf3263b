// Constants of the client framework shared by the daemon and its clients: the daemon's name-and-version
// text, the error domain, notification names, resource identifiers and the bag hosts.
//
// They are defined here once; every other folder takes them from this header.
//
// Threading: compile-time constants.
#pragma once

namespace vorlen {

// The daemon's name and version; user agents built by the daemon begin with it followed by " (".
inline constexpr const char* kVORVorlendNameVersion = "Vorlend/1.0";

// Domain of every error record the daemon hands to clients.
inline constexpr const char* kVORErrorDomain = "VORErrorDomain";
// Key of the short text that explains an error, in an error's user information.
inline constexpr const char* kVORErrorReasonKey = "reason";

// In-process notifications.
inline constexpr const char* kVORBagChangeNotification = "VORBagChangeNotification";
inline constexpr const char* kVORBagRefreshRequired = "VORBagRefreshRequired";
inline constexpr const char* kVORUserGUIDChangeNotification = "VORUserGUIDChangeNotification";
inline constexpr const char* kVORSessionSoftLimitNotification = "VORSessionSoftLimitNotification";
inline constexpr const char* kVORSessionMaxLimitNotification = "VORSessionMaxLimitNotification";
inline constexpr const char* kVORFileDownloadCompletedNotification = "VORFileDownloadCompletedNotification";
inline constexpr const char* kVORFileDeletedNotification = "VORFileDeletedNotification";
inline constexpr const char* kVORStartup = "VORStartup";

// User-information keys of those notifications.
inline constexpr const char* kVORBagKey = "bag";
inline constexpr const char* kVORIdentifierKey = "identifier";
inline constexpr const char* kVORURLKey = "url";

// System-wide notifications posted when the news service becomes available or unavailable.
inline constexpr const char* kVORNotifyEnabled = "com.velmo.vorlen.news.enabled";
inline constexpr const char* kVORNotifyDisabled = "com.velmo.vorlen.news.disabled";

// Identifiers of resource files that the bag can list.
inline constexpr const char* kVORLookupHintsWeeklyResource = "lookup_hints_weekly";
inline constexpr const char* kVORLookupHintsMonthlyResource = "lookup_hints_monthly";
inline constexpr const char* kVORInstalledAppWhitelistResource = "installed_app_whitelist";

// Bag endpoints: worldwide, and for the country code "CN".
inline constexpr const char* kVORBagURLWorldwide = "https://bag.vorlen.velmo.com/bag";
inline constexpr const char* kVORBagURLChina = "https://bag.vorlen.velmo.cn/bag";

}  // namespace vorlen
