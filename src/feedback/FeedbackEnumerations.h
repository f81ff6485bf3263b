// FeedbackEnumerations: the string tables of every enumerated field of the upload format. A value is
// written as the string at its index; the value just past the last entry as "last_"; any other value as
// "(unknown: <n>)".
//
// Threading: constant tables; safe from any thread.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace vorlen {

using EnumTable = std::span<const std::string_view>;

class FeedbackEnumerations {
 public:
  static std::string toString(EnumTable table, uint64_t value);
  static std::string toString(EnumTable table, int64_t value);

  static EnumTable searchViewAppearTrigger();
  static EnumTable searchViewDisappearTrigger();
  static EnumTable cardViewDisappearTrigger();
  static EnumTable searchStartTrigger();
  static EnumTable networkEndpointType();
  static EnumTable lookupSelectionType();
  static EnumTable localIndexType();
  static EnumTable resultType();
  static EnumTable topHit();
  static EnumTable visibleResultsTrigger();
  static EnumTable engagementTrigger();
  static EnumTable engagementDestination();
  static EnumTable actionTarget();
  static EnumTable cardType();
  static EnumTable mapsCardFeedbackType();
  static EnumTable storeProductPageResult();
  static EnumTable suggestionType();
  static EnumTable clearInputTrigger();
  static EnumTable skipSearchTrigger();
  static EnumTable sectionEngagementTrigger();
  static EnumTable sectionHeaderType();
  static EnumTable resultGrade();
  static EnumTable lookupHintGrade();
  static EnumTable sessionEndReason();
};

}  // namespace vorlen
