#include "feedback/VorlenSessionEndFeedback.h"

#include "feedback/FeedbackEnumerations.h"

namespace vorlen {

const std::vector<std::string>& VorlenSessionEndFeedback::eventTypes() {
  static const std::vector<std::string>* const table = [] {
    auto* t = new std::vector<std::string>;
    for (std::string_view s : FeedbackEnumerations::sessionEndReason()) t->emplace_back(s);
    return t;
  }();
  return *table;
}

std::string VorlenSessionEndFeedback::triggerEventEnumToString(int64_t reason) {
  return FeedbackEnumerations::toString(FeedbackEnumerations::sessionEndReason(), reason);
}

}  // namespace vorlen
