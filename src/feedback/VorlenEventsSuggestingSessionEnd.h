// VorlenEventsSuggestingSessionEnd: the event types after which a session that has passed its soft limit
// ends at once: an engaged result or an engaged card means the user found what they looked for.
//
// Threading: constants only.
#pragma once

#include <algorithm>
#include <array>

#include "feedback/FeedbackEventType.h"

namespace vorlen {

inline constexpr std::array<int, 2> VorlenEventsSuggestingSessionEnd = {kEventResultEngagement,
                                                                        kEventCardEngagement};

inline bool eventSuggestsSessionEnd(int type) {
  return std::find(VorlenEventsSuggestingSessionEnd.begin(), VorlenEventsSuggestingSessionEnd.end(), type) !=
         VorlenEventsSuggestingSessionEnd.end();
}

}  // namespace vorlen
