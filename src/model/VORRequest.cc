#include "model/VORRequest.h"

#include "base/Log.h"
#include "model/RecordCoder.h"

namespace vorlen {
namespace {

// The fields every request has, as members of T.
template <class T>
std::vector<typename RecordBinding<T>::Member> requestMembers() {
  using B = RecordBinding<T>;
  return {
      B::field("queryId", &VORRequest::queryId),
      B::field("clientQueryId", &VORRequest::clientQueryId),
      B::field("queryString", &VORRequest::queryString),
      B::field("triggerEvent", &VORRequest::triggerEvent),
      B::field("scale", &VORRequest::scale),
      B::field("keyboardInputMode", &VORRequest::keyboardInputMode),
      B::field("queryItems", &VORRequest::queryItems),
      B::field("verboseReply", &VORRequest::verboseReply),
  };
}

template <class T>
RecordBinding<T> requestBinding(std::vector<typename RecordBinding<T>::Member> own = {}) {
  return RecordBinding<T>(T::kClassName, VORRequest::kClassName, requestMembers<T>(), std::move(own));
}

template <class T>
std::shared_ptr<VORRequest> make(const Value& record) {
  return std::make_shared<T>(T::binding().decode(record));
}

}  // namespace

const RecordBinding<VORSearchRequest>& VORSearchRequest::binding() {
  using B = RecordBinding<VORSearchRequest>;
  using R = VORSearchRequest;
  static const B* const b = new B(requestBinding<R>({
      B::field("engagedSuggestion", &R::engagedSuggestion),
      B::field("localContextualSuggestions", &R::localContextualSuggestions),
      B::field("completionCacheSuggestion", &R::completionCacheSuggestion),
      B::field("topTopics", &R::topTopics),
  }));
  return *b;
}

const RecordBinding<VORZeroKeywordRequest>& VORZeroKeywordRequest::binding() {
  static const auto* const b = new auto(requestBinding<VORZeroKeywordRequest>());
  return *b;
}

const RecordBinding<VORMoreResultsRequest>& VORMoreResultsRequest::binding() {
  static const auto* const b = new auto(requestBinding<VORMoreResultsRequest>());
  return *b;
}

const RecordBinding<VORCardRequest>& VORCardRequest::binding() {
  static const auto* const b = new auto(requestBinding<VORCardRequest>());
  return *b;
}

const RecordBinding<VORLookupRequest>& VORLookupRequest::binding() {
  using B = RecordBinding<VORLookupRequest>;
  using R = VORLookupRequest;
  static const B* const b = new B(requestBinding<R>({
      B::field("lookupSelectionType", &R::lookupSelectionType),
      B::field("appBundleIdentifier", &R::appBundleIdentifier),
      B::field("lookupContext", &R::lookupContext),
      B::field("hintDomain", &R::hintDomain),
  }));
  return *b;
}

const RecordBinding<VORFlightSearchRequest>& VORFlightSearchRequest::binding() {
  using B = RecordBinding<VORFlightSearchRequest>;
  static const B* const b = new B(requestBinding<VORFlightSearchRequest>({
      B::field("flightQuery", &VORFlightSearchRequest::flightQuery),
  }));
  return *b;
}

const RecordBinding<VORFlightLookupRequest>& VORFlightLookupRequest::binding() {
  using B = RecordBinding<VORFlightLookupRequest>;
  static const B* const b = new B(requestBinding<VORFlightLookupRequest>({
      B::field("flightId", &VORFlightLookupRequest::flightId),
  }));
  return *b;
}

std::vector<ClassDef> VORRequest::classDefs() {
  // The abstract base lists the shared fields once; the subclasses list only their own.
  RecordBinding<VORZeroKeywordRequest> base(kClassName, "", {}, requestMembers<VORZeroKeywordRequest>(),
                                            /*abstract=*/true);
  return {base.classDef(),
          VORSearchRequest::binding().classDef(),
          VORZeroKeywordRequest::binding().classDef(),
          VORMoreResultsRequest::binding().classDef(),
          VORCardRequest::binding().classDef(),
          VORLookupRequest::binding().classDef(),
          VORFlightSearchRequest::binding().classDef(),
          VORFlightLookupRequest::binding().classDef()};
}

std::shared_ptr<VORRequest> VORRequest::fromRecord(const Value& record, std::string* error) {
  if (!RecordCoder::check(record, kClassName, error)) return nullptr;
  std::string_view cls = record.className();
  if (cls == VORSearchRequest::kClassName) return make<VORSearchRequest>(record);
  if (cls == VORZeroKeywordRequest::kClassName) return make<VORZeroKeywordRequest>(record);
  if (cls == VORMoreResultsRequest::kClassName) return make<VORMoreResultsRequest>(record);
  if (cls == VORCardRequest::kClassName) return make<VORCardRequest>(record);
  if (cls == VORLookupRequest::kClassName) return make<VORLookupRequest>(record);
  if (cls == VORFlightSearchRequest::kClassName) return make<VORFlightSearchRequest>(record);
  if (cls == VORFlightLookupRequest::kClassName) return make<VORFlightLookupRequest>(record);
  // Only reachable when the schema gains a request class that this switch does not know.
  std::string reason = "no request type for class " + std::string(cls);
  VorlenLogForCategory(VorlenLogCategoryProtocol).error("rejecting record: {}", reason);
  if (error) *error = std::move(reason);
  return nullptr;
}

}  // namespace vorlen
