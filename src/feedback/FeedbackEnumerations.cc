#include "feedback/FeedbackEnumerations.h"

#include <array>

#include <fmt/format.h>

namespace vorlen {
namespace {

using namespace std::string_view_literals;

constexpr std::array kSearchViewAppearTrigger = {
    "unknown"sv,
    "swipe_down"sv,
    "today_view"sv,
    "lockScreen"sv,
    "breadcrumb"sv,
    "keyboard_shortcut"sv,
    "mouse_clickOn_menu"sv,
    "app_launch"sv,
    "new_tab"sv,
    "tap_to_input"sv,
    "new_window"sv,
    "click"sv,
    "tab_switch"sv,
    "orb"sv,
    "contextual_menu"sv,
    "lookup_hint_tap"sv,
    "lookup_tap"sv,
    "swipe_up"sv,
    "swipe_left"sv,
    "swipe_right"sv,
    "start_composing"sv,
    "find_popular_items"sv,
    "pull_down_home_screen"sv,
    "notification_center"sv,
    "partial_pull_down"sv,
    "unlockDevice"sv,
    "did_enter_foreground"sv,
    "back"sv,
};
constexpr std::array kSearchViewDisappearTrigger = {
    "unknown"sv,
    "killed"sv,
    "home_button"sv,
    "taskSwitcher"sv,
    "cancel"sv,
    "escape"sv,
    "close_window_by_keyboard"sv,
    "close_window_by_mouse"sv,
    "minimize_window_by_keyboard"sv,
    "minimize_window_by_mouse"sv,
    "switched_to_other_app"sv,
    "quit_app"sv,
    "lockButton"sv,
    "clickNotification_banner"sv,
    "phone_call"sv,
    "lost_focus"sv,
    "done"sv,
    "swipe_down"sv,
    "swipe_up"sv,
    "swipe_left"sv,
    "swipe_right"sv,
    "share_button"sv,
    "device_idle"sv,
    "did_enter_background"sv,
    "go_to_site"sv,
    "did_change_tab"sv,
};
constexpr std::array kCardViewDisappearTrigger = {
    "unknown"sv, "back"sv, "swipe"sv, "pop"sv, "done"sv, "replaced"sv,
};
constexpr std::array kSearchStartTrigger = {
    "unknown"sv,
    "new_character"sv,
    "ime_commit"sv,
    "backspace"sv,
    "voice_search"sv,
    "dictation"sv,
    "copy_and_paste"sv,
    "drag_and_drop"sv,
    "suggestion"sv,
    "prefetch"sv,
    "partial_suggestion"sv,
    "lookup"sv,
    "cross_button"sv,
    "show_more"sv,
    "card"sv,
    "image_load"sv,
    "bag"sv,
    "unlockDevice"sv,
    "correction"sv,
    "warm"sv,
    "flight"sv,
    "suggest_queries"sv,
    "search_only"sv,
    "return_key"sv,
};
constexpr std::array kNetworkEndpointType = {
    "unknown"sv,    "vorlen"sv,        "google"sv,       "yahoo"sv,         "bing"sv,
    "duckduckgo"sv, "vorlen_search"sv, "vorlen_image"sv, "yandex"sv,        "baidu"sv,
    "vorlen_bag"sv, "vorlen_card"sv,   "vorlen_warm"sv,  "vorlen_flight"sv,
};
constexpr std::array kLookupSelectionType = {
    "lookup_default"sv,
    "lookup_explicit"sv,
    "lookup_hint_tap"sv,
};
constexpr std::array kLocalIndexType = {
    "unknown"sv,          "norvanta"sv,       "calculator"sv,        "core_usage"sv,
    "voyant_bookmarks"sv, "voyant_history"sv, "lookup_dictionary"sv, "engaged_completion_cache"sv,
};
constexpr std::array kResultType = {
    "unknown"sv,
    "vorlen"sv,
    "local"sv,
    "core_norvanta"sv,
    "pf_user_activity"sv,
    "voyant_tophit"sv,
    "calculator"sv,
    "conversion"sv,
    "dictionary_definition"sv,
    "google"sv,
    "yahoo"sv,
    "bing"sv,
    "duckduckgo"sv,
    "yandex"sv,
    "baidu"sv,
    "proactive_suggest"sv,
    "local_suggest"sv,
    "server_suggest"sv,
};
constexpr std::array kTopHit = {
    "tophit_no"sv,
    "tophit_should_be"sv,
    "tophit_must_be"sv,
};
constexpr std::array kVisibleResultsTrigger = {
    "unknown"sv,   "result_list_updated"sv, "scroll"sv,        "show_more"sv, "peek"sv,
    "pop"sv,       "show_less"sv,           "card_swipe"sv,    "click"sv,     "view_resized"sv,
    "scroll_up"sv, "scroll_down"sv,         "resume_search"sv, "arrow_up"sv,  "arrow_down"sv,
};
constexpr std::array kEngagementTrigger = {
    "unknown"sv,
    "enter"sv,
    "tap"sv,
    "click"sv,
    "double_click"sv,
    "peek"sv,
    "pop"sv,
    "reveal"sv,
    "arrow_up"sv,
    "arrow_down"sv,
    "three_fingers_tap"sv,
    "swipe"sv,
    "forced_after_list_update"sv,
    "shortcut"sv,
    "pan"sv,
    "swipe_left"sv,
    "swipe_right"sv,
};
constexpr std::array kEngagementDestination = {
    "unknown"sv,      "card"sv,        "punchout"sv,  "none"sv,          "insert"sv,
    "find_on_page"sv, "last_search"sv, "maps_card"sv, "orvelle_sheet"sv, "hosted_html_page"sv,
};
constexpr std::array kActionTarget = {
    "unknown"sv, "directions"sv, "call"sv,          "message"sv,   "play"sv,
    "view"sv,    "open"sv,       "intent_modify"sv, "subscribe"sv, "unsubscribe"sv,
};
constexpr std::array kCardType = {
    "unknown"sv, "normal"sv, "maps"sv, "orvelle_sheet"sv, "hosted_html_page"sv,
};
constexpr std::array kMapsCardFeedbackType = {
    "unknown"sv,
    "phone_number"sv,
    "website"sv,
    "add_contact"sv,
    "share"sv,
    "directions_to_here"sv,
    "directions_from_here"sv,
    "dismissed"sv,
    "report_a_problem"sv,
    "edit_contact"sv,
    "delete_contact"sv,
    "aerial_tour"sv,
    "all_photos"sv,
    "photo"sv,
    "add_photo"sv,
    "all_reviews"sv,
    "review"sv,
    "write_review"sv,
    "deal"sv,
    "checkin"sv,
    "more_info"sv,
    "postal_address"sv,
};
constexpr std::array kStoreProductPageResult = {
    "canceled_product_page"sv,      "closed_product_page"sv, "product_page_download_finished"sv,
    "user_hit_goto_store_button"sv, "user_purchased_item"sv, "user_hit_custom_right_bar_button"sv,
};
constexpr std::array kSuggestionType = {
    "unknown"sv, "vorlen"sv, "proactive"sv, "recents"sv, "proactive_category"sv,
};
constexpr std::array kClearInputTrigger = {
    "unknown"sv,
    "cross_button"sv,
    "cut"sv,
    "backspace"sv,
};
constexpr std::array kSkipSearchTrigger = {
    "unknown"sv,
    "less_than_minimum_query_length"sv,
    "bag_disabled"sv,
    "bag_fetch_failed"sv,
    "cache_hit"sv,
    "empty_query_input"sv,
    "query_input_with_uri_scheme_prefix"sv,
};
constexpr std::array kSectionEngagementTrigger = {
    "unknown"sv,
    "search_in_app"sv,
    "show_more"sv,
    "show_less"sv,
};
constexpr std::array kSectionHeaderType = {
    "unknown"sv,
    "search_in_app"sv,
    "show_more"sv,
    "normal"sv,
};
constexpr std::array kResultGrade = {
    "unknown"sv, "disastrous"sv, "bad"sv, "ok"sv, "good"sv, "excellent"sv, "other"sv,
};
constexpr std::array kLookupHintGrade = {
    "unknown"sv,
    "good"sv,
    "bad"sv,
};
constexpr std::array kSessionEndReason = {
    "no previous session"sv, "external request"sv, "session idle"sv,        "max session time passed"sv,
    "guid changed"sv,        "critical memory"sv,  "engagement received"sv,
};

}  // namespace

std::string FeedbackEnumerations::toString(EnumTable table, uint64_t value) {
  if (value < table.size()) return std::string(table[value]);
  if (value == table.size()) return "last_";
  return fmt::format("(unknown: {})", value);
}

std::string FeedbackEnumerations::toString(EnumTable table, int64_t value) {
  if (value < 0) return fmt::format("(unknown: {})", value);
  return toString(table, static_cast<uint64_t>(value));
}

EnumTable FeedbackEnumerations::searchViewAppearTrigger() {
  return kSearchViewAppearTrigger;
}
EnumTable FeedbackEnumerations::searchViewDisappearTrigger() {
  return kSearchViewDisappearTrigger;
}
EnumTable FeedbackEnumerations::cardViewDisappearTrigger() {
  return kCardViewDisappearTrigger;
}
EnumTable FeedbackEnumerations::searchStartTrigger() {
  return kSearchStartTrigger;
}
EnumTable FeedbackEnumerations::networkEndpointType() {
  return kNetworkEndpointType;
}
EnumTable FeedbackEnumerations::lookupSelectionType() {
  return kLookupSelectionType;
}
EnumTable FeedbackEnumerations::localIndexType() {
  return kLocalIndexType;
}
EnumTable FeedbackEnumerations::resultType() {
  return kResultType;
}
EnumTable FeedbackEnumerations::topHit() {
  return kTopHit;
}
EnumTable FeedbackEnumerations::visibleResultsTrigger() {
  return kVisibleResultsTrigger;
}
EnumTable FeedbackEnumerations::engagementTrigger() {
  return kEngagementTrigger;
}
EnumTable FeedbackEnumerations::engagementDestination() {
  return kEngagementDestination;
}
EnumTable FeedbackEnumerations::actionTarget() {
  return kActionTarget;
}
EnumTable FeedbackEnumerations::cardType() {
  return kCardType;
}
EnumTable FeedbackEnumerations::mapsCardFeedbackType() {
  return kMapsCardFeedbackType;
}
EnumTable FeedbackEnumerations::storeProductPageResult() {
  return kStoreProductPageResult;
}
EnumTable FeedbackEnumerations::suggestionType() {
  return kSuggestionType;
}
EnumTable FeedbackEnumerations::clearInputTrigger() {
  return kClearInputTrigger;
}
EnumTable FeedbackEnumerations::skipSearchTrigger() {
  return kSkipSearchTrigger;
}
EnumTable FeedbackEnumerations::sectionEngagementTrigger() {
  return kSectionEngagementTrigger;
}
EnumTable FeedbackEnumerations::sectionHeaderType() {
  return kSectionHeaderType;
}
EnumTable FeedbackEnumerations::resultGrade() {
  return kResultGrade;
}
EnumTable FeedbackEnumerations::lookupHintGrade() {
  return kLookupHintGrade;
}
EnumTable FeedbackEnumerations::sessionEndReason() {
  return kSessionEndReason;
}

}  // namespace vorlen
