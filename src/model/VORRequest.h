// VORRequest and its subclasses: the queries a client sends with `request:reply:`. The daemon tells the
// kinds apart by class (kind()), fills in the display scale and keyboard input mode when the client
// left them unset, and builds the HTTP request from the fields below.
//
// Records: {"$class": <subclass name>, fields...}; VORRequest itself is abstract (never a record's own
// class). Fields of every request:
//   queryId             unsigned; the daemon's ordering of searches relies on it growing
//   clientQueryId       unsigned; the client's own counter, echoed in feedback
//   queryString         the text typed or selected
//   triggerEvent        unsigned; what started the query (search start trigger numbers)
//   scale               real; display scale, 0 = unset
//   keyboardInputMode   string; absent = unset
//   queryItems          array of VORQueryItem; forced onto the request URL
//   verboseReply        boolean; ask for HTTP descriptions in the reply
// Fields of the subclasses are listed with each. Copies are deep; the classes are plain values held by
// shared_ptr when their kind is not known statically.
//
// Threading: plain values; a request is used by one thread at a time or shared read-only.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "model/QXSearchSuggestion.h"
#include "model/RecordBinding.h"
#include "model/VORQueryItem.h"

namespace vorlen {

enum class VORRequestKind { Search, ZeroKeyword, MoreResults, Card, Lookup, FlightSearch, FlightLookup };

class VORRequest {
 public:
  static constexpr const char* kClassName = "VORRequest";

  virtual ~VORRequest() = default;
  virtual VORRequestKind kind() const = 0;
  virtual const char* className() const = 0;
  virtual Value toRecord() const = 0;
  virtual std::shared_ptr<VORRequest> clone() const = 0;

  // The request of the record's class, or nullptr after one log line when the record fails the schema
  // check (an unknown or abstract class included).
  static std::shared_ptr<VORRequest> fromRecord(const Value& record, std::string* error = nullptr);
  // The schema entries of VORRequest and its subclasses.
  static std::vector<ClassDef> classDefs();

  // Compares the fields every request has, nothing else: compare requests of one subclass through that
  // subclass (or with equals()).
  bool operator==(const VORRequest&) const = default;
  // Same class and same fields.
  virtual bool equals(const VORRequest& other) const = 0;

  uint64_t queryId = 0;
  uint64_t clientQueryId = 0;
  std::string queryString;
  uint64_t triggerEvent = 0;
  double scale = 0.0;
  std::optional<std::string> keyboardInputMode;
  std::vector<VORQueryItem> queryItems;
  bool verboseReply = false;

 protected:
  VORRequest() = default;
  VORRequest(const VORRequest&) = default;
  VORRequest& operator=(const VORRequest&) = default;
};

// What each subclass has in common: its kind, class name, coding and copying.
template <class T, VORRequestKind K>
class VORRequestOf : public VORRequest {
 public:
  VORRequestKind kind() const override { return K; }
  const char* className() const override { return T::kClassName; }
  Value toRecord() const override { return T::binding().encode(static_cast<const T&>(*this)); }
  std::shared_ptr<VORRequest> clone() const override {
    return std::make_shared<T>(static_cast<const T&>(*this));
  }
  bool equals(const VORRequest& other) const override {
    auto* o = dynamic_cast<const T*>(&other);
    return o && *o == static_cast<const T&>(*this);
  }

  bool operator==(const VORRequestOf&) const = default;
};

// A type-ahead search. completionCacheSuggestion is set by the daemon when an on-device completion was
// found; the suggestions and top topics are sent along with the query (origins "lc", "lco", "lcs" and the
// "X-Velmo-TopTopics" header).
class VORSearchRequest : public VORRequestOf<VORSearchRequest, VORRequestKind::Search> {
 public:
  static constexpr const char* kClassName = "VORSearchRequest";
  static const RecordBinding<VORSearchRequest>& binding();

  std::optional<QXSearchSuggestion> engagedSuggestion;
  std::vector<QXSearchSuggestion> localContextualSuggestions;
  std::optional<QXSearchSuggestion> completionCacheSuggestion;
  Value topTopics;  // any property-list value; sent as JSON text

  void setCompletionCacheSuggestion(QXSearchSuggestion s) { completionCacheSuggestion = std::move(s); }

  bool operator==(const VORSearchRequest&) const = default;
};

// Suggestions shown before anything is typed.
class VORZeroKeywordRequest : public VORRequestOf<VORZeroKeywordRequest, VORRequestKind::ZeroKeyword> {
 public:
  static constexpr const char* kClassName = "VORZeroKeywordRequest";
  static const RecordBinding<VORZeroKeywordRequest>& binding();
  bool operator==(const VORZeroKeywordRequest&) const = default;
};

// More results of a section; the query travels in queryItems.
class VORMoreResultsRequest : public VORRequestOf<VORMoreResultsRequest, VORRequestKind::MoreResults> {
 public:
  static constexpr const char* kClassName = "VORMoreResultsRequest";
  static const RecordBinding<VORMoreResultsRequest>& binding();
  bool operator==(const VORMoreResultsRequest&) const = default;
};

// The details card of a result; the card is named by queryItems.
class VORCardRequest : public VORRequestOf<VORCardRequest, VORRequestKind::Card> {
 public:
  static constexpr const char* kClassName = "VORCardRequest";
  static const RecordBinding<VORCardRequest>& binding();
  bool operator==(const VORCardRequest&) const = default;
};

// A look-up of selected text. lookupSelectionType: 0 default, 1 explicit, 2 hint tap.
// appBundleIdentifier names the calling app ("context"), lookupContext is the text around the selection
// (its language is sent as "lctxlang"), hintDomain the domain of the look-up hint that was tapped.
class VORLookupRequest : public VORRequestOf<VORLookupRequest, VORRequestKind::Lookup> {
 public:
  static constexpr const char* kClassName = "VORLookupRequest";
  static const RecordBinding<VORLookupRequest>& binding();

  uint64_t lookupSelectionType = 0;
  std::string appBundleIdentifier;
  std::string lookupContext;
  std::string hintDomain;

  bool operator==(const VORLookupRequest&) const = default;
};

// Flight status by flight text, e.g. "VL-123" (carrier code, flight number).
class VORFlightSearchRequest : public VORRequestOf<VORFlightSearchRequest, VORRequestKind::FlightSearch> {
 public:
  static constexpr const char* kClassName = "VORFlightSearchRequest";
  static const RecordBinding<VORFlightSearchRequest>& binding();

  std::string flightQuery;

  bool operator==(const VORFlightSearchRequest&) const = default;
};

// Flight status by the identifier a flight search returned.
class VORFlightLookupRequest : public VORRequestOf<VORFlightLookupRequest, VORRequestKind::FlightLookup> {
 public:
  static constexpr const char* kClassName = "VORFlightLookupRequest";
  static const RecordBinding<VORFlightLookupRequest>& binding();

  std::string flightId;

  bool operator==(const VORFlightLookupRequest&) const = default;
};

}  // namespace vorlen
