// VORBag: the server configuration (the raw bag dictionary fetched as JSON) as seen by one client, with
// typed accessors. The user agent given at construction selects the client's view: the bag may hold a
// dictionary per client under "clients", keyed by the client's short name (clientNameForUserAgent), whose
// entries override the top-level keys of the same name for that client.
//
// Every accessor is tolerant: a missing key or a value of the wrong type reads as absent, and the
// accessor then answers its default. A per-client value of the wrong type is likewise absent, so the
// top-level value applies. Raw keys, defaults and an example bag are in docs/BAG.md; VORBagKeys names
// the keys.
//
// Record (IPC): {"$class": "VORBag", "rawBag": dictionary, "userAgent": string}.
//
// Threading: immutable after construction; copies share the raw dictionary; safe from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Value.h"
#include "model/TypedRecord.h"

namespace vorlen {

// Raw keys of the bag.
struct VORBagKeys {
  static constexpr const char* kClients = "clients";
  static constexpr const char* kVersion = "version";
  static constexpr const char* kEnabled = "enabled";
  static constexpr const char* kWarmURL = "warm_url";
  static constexpr const char* kSearchURL = "search_url";
  static constexpr const char* kMoreResultsURL = "more_results_url";
  static constexpr const char* kFlightURL = "flight_url";
  static constexpr const char* kCardURL = "card_url";
  static constexpr const char* kL2Version = "l2_version";
  static constexpr const char* kL3Version = "l3_version";
  static constexpr const char* kSendGeoEnvironmentHeader = "send_geo_environment_header";
  static constexpr const char* kSupportedGeoLocationSources = "supported_geo_location_sources";
  static constexpr const char* kQuintaraConfiguration = "quintara_configuration";
  static constexpr const char* kSubscriptionProviderDomainWhitelist =
      "subscription_provider_domain_whitelist";
  static constexpr const char* kSubscriptionProviderBundleIdentifierWhitelist =
      "subscription_provider_bundle_identifier_whitelist";
  static constexpr const char* kSubscriptionTTL = "subscription_ttl";
  static constexpr const char* kMinimumQueryLength = "minimum_query_length";
  static constexpr const char* kSearchRenderTimeout = "search_render_timeout";
  static constexpr const char* kDownloadResourcesList = "download_resources_list";
  static constexpr const char* kFeedbackEnabled = "feedback_enabled";
  static constexpr const char* kFeedbackURL = "feedback_url";
  static constexpr const char* kCrowdsourcingURL = "crowdsourcing_url";
  static constexpr const char* kMaxFeedbackSize = "max_feedback_size";
  static constexpr const char* kSmartHistoryEnabled = "smart_history_enabled";
  static constexpr const char* kSmartHistoryTimeout = "smart_history_timeout";
  static constexpr const char* kSmartHistoryMaxRows = "smart_history_max_rows";
  static constexpr const char* kMinThresholdToSend = "min_threshold_to_send";
  static constexpr const char* kVoyantLast1hour = "voyant_last_1hour";
  static constexpr const char* kVoyantLast1day = "voyant_last_1day";
  static constexpr const char* kVoyantLast1week = "voyant_last_1week";
  static constexpr const char* kVoyantLast1month = "voyant_last_1month";
  static constexpr const char* kVoyantAll = "voyant_all";
  static constexpr const char* kVoyantMostRecent = "voyant_most_recent";
};

// The record form of a bag.
struct VORBagRecord : TypedRecord<VORBagRecord> {
  static constexpr const char* kClassName = "VORBag";
  static const RecordBinding<VORBagRecord>& binding();

  Value::Dict rawBag;
  std::string userAgent;

  bool operator==(const VORBagRecord&) const = default;
};

class VORBag {
 public:
  static constexpr const char* kClassName = "VORBag";

  // The bag `rawBag` as seen by the client whose agent is `userAgent`.
  VORBag(Value::Dict rawBag, std::string userAgent);

  // The short name that keys a client's view: "voyant" or "norvanta" when the lower-cased agent
  // contains that word (the browser first), "news" when it contains "news/1.0", otherwise the agent's
  // product token (the text before the first "/", space or ";", after a leading "Vorlend/1.0 (...)"),
  // lower-cased. Empty for an empty agent.
  static std::string clientNameForUserAgent(std::string_view userAgent);

  const Value::Dict& rawBag() const { return *raw_; }
  const std::string& userAgent() const { return userAgent_; }
  const std::string& clientName() const { return clientName_; }

  // Top level only.
  std::optional<std::string> version() const;
  // Identifier -> URL of each resource listed in "download_resources_list" whose URL is under its own
  // identifier; top level only, since the files are shared by every client.
  Value::Dict resources() const;

  // Per-client view.
  bool isEnabled() const;  // false
  std::optional<std::string> warmURL() const;
  std::optional<std::string> searchURL() const;
  std::optional<std::string> moreResultsURL() const;
  std::optional<std::string> flightURL() const;
  std::optional<std::string> cardURL() const;
  std::string l2version() const;                                 // ""
  std::string l3version() const;                                 // ""
  bool sendGeoEnvironmentHeader() const;                         // false
  std::vector<std::string> supportedGeoLocationSources() const;  // empty
  std::optional<Value::Dict> quintaraConfiguration() const;
  std::optional<std::vector<std::string>> subscriptionProviderDomainWhitelist() const;
  std::optional<std::vector<std::string>> subscriptionProviderBundleIdentifierWhitelist() const;
  double subscriptionTTL() const;       // seconds; 0
  uint64_t minimumQueryLength() const;  // characters; 0
  double searchRenderTimeout() const;   // seconds; 0
  bool feedbackEnabled() const;         // false
  std::optional<std::string> feedbackURL() const;
  std::optional<std::string> crowdsourcingURL() const;
  // Bytes; 0 when the type has no limit in the bag (the caller's default applies).
  uint64_t maximumSizeForFeedbackType(std::string_view type) const;
  bool smartHistoryEnabled() const;      // false
  uint64_t smartHistoryTimeout() const;  // milliseconds; 0 = keep the cache's own
  uint64_t smartHistoryMaxRows() const;  // 0 = keep the cache's own
  double minThresholdToSend() const;     // 0.0
  double voyantLast1hour() const;        // 10.0
  double voyantLast1day() const;         // 1.0
  double voyantLast1week() const;        // 0.1
  double voyantLast1month() const;       // 0.01
  double voyantAll() const;              // 0.001
  double voyantMostRecent() const;       // 1.0

  // Tolerant reads of one dictionary entry: a number (integer or real), or a URL (a string of the form
  // scheme ":" rest, without blanks or control characters). Nothing for a missing key or another type.
  static std::optional<double> numberForKey(const Value::Dict& dict, std::string_view key);
  static std::optional<std::string> urlForKey(const Value::Dict& dict, std::string_view key);

  Value toRecord() const;
  // The bag of a record, or nothing after one log line when the record fails the schema check.
  static std::optional<VORBag> fromRecord(const Value& record, std::string* error = nullptr);

  bool operator==(const VORBag& other) const {
    return userAgent_ == other.userAgent_ && *raw_ == *other.raw_;
  }

 private:
  using Accepts = bool (*)(const Value&);
  // The client's value of `key` when it passes `accepts`, else the top-level one when it passes, else
  // nullptr.
  const Value* lookup(std::string_view key, Accepts accepts) const;
  std::optional<std::string> url(std::string_view key) const;
  std::optional<double> number(std::string_view key) const;
  std::optional<uint64_t> unsignedNumber(std::string_view key) const;
  bool flag(std::string_view key) const;
  std::optional<std::vector<std::string>> strings(std::string_view key) const;

  std::shared_ptr<const Value::Dict> raw_;
  std::string userAgent_;
  std::string clientName_;
  const Value::Dict* client_ = nullptr;  // the client's entry inside *raw_, if any
};

}  // namespace vorlen
