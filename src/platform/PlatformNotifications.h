// Names of the in-process notifications that the platform adapters post when the environment changes.
// Components that cache anything derived from the environment (the request context, the query cache)
// observe them on the Assembly's notification centre. None carries user information.
#pragma once

namespace vorlen {

// The device country code changed.
inline constexpr const char* kPlatformCountryCodeDidChangeNotification = "VORPlatformCountryCodeDidChange";
// The system time zone changed.
inline constexpr const char* kPlatformTimeZoneDidChangeNotification = "VORPlatformTimeZoneDidChange";
// The current locale or the preferred languages changed.
inline constexpr const char* kPlatformCurrentLocaleDidChangeNotification =
    "VORPlatformCurrentLocaleDidChange";
// The effective device-management settings (restrictions) changed.
inline constexpr const char* kPlatformEffectiveSettingsDidChangeNotification =
    "VORPlatformEffectiveSettingsDidChange";
// Accounts were added or removed.
inline constexpr const char* kPlatformAccountStoreDidChangeNotification = "VORPlatformAccountStoreDidChange";
// Account credentials changed.
inline constexpr const char* kPlatformAccountCredentialsDidChangeNotification =
    "VORPlatformAccountCredentialsDidChange";
// The location authorisation changed.
inline constexpr const char* kPlatformLocationAuthorizationDidChangeNotification =
    "VORPlatformLocationAuthorizationDidChange";

}  // namespace vorlen
