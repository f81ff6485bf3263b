// FeedbackEventType: the index of every feedback event type. The index is what an event's type() returns
// and what the upload format names through VorlenFeedback::eventTypes(). The order is part of the upload
// format: the entries 14-15 and 36-37 are out of sequence on purpose and stay where they are.
//
// Threading: constants only.
#pragma once

namespace vorlen {

enum FeedbackEventType : int {
  kEventVisibleResults = 0,
  kEventNetworkSearchStart = 1,
  kEventNetworkSearchEnd = 2,
  kEventLocalSearchStart = 3,
  kEventLocalSearchEnd = 4,
  kEventSearchViewAppear = 5,
  kEventSearchViewDisappear = 6,
  kEventRankSections = 7,
  kEventResultEngagement = 8,
  kEventVisibleCard = 9,  // no event class reports it
  kEventCardEngagement = 10,
  kEventError = 11,
  kEventSuggestionEngagement = 12,
  kEventCardViewDisappear = 13,
  kEventSearchStart = 14,
  kEventSearchEnd = 15,
  kEventVisibleSuggestions = 16,
  kEventCustomUnknown = 17,
  kEventCustomCrowdsourcing = 18,
  kEventCustomVoyantAutofill = 19,
  kEventCustomNorvantaResultFeatures = 20,
  kEventUnknown = 21,
  kEventResultsReceivedAfterTimeout = 22,
  kEventLateSectionsAppended = 23,
  kEventClearInput = 24,
  kEventSessionEnd = 25,
  kEventSkipVorlenSearch = 26,
  kEventSectionEngagement = 27,
  kEventVisibleSectionHeader = 28,
  kEventSessionMissingResults = 29,
  kEventSessionMissingSuggestions = 30,
  kEventDidGoToSite = 31,
  kEventConnectionInvalidated = 32,
  kEventResultGrade = 33,
  kEventDidGoToSearch = 34,
  kEventLookupHintGraded = 35,
  kEventCardViewAppear = 36,
  kEventCardSectionEngagement = 37,
  kEventTypeCount = 38,
};

}  // namespace vorlen
