// FeedbackListing: the open feedback session's events as vorlenctl prints them for a person: one line per
// event with its time relative to the session's first event, its type, its query id and a short summary
// of its other fields, so that one can watch a session grow while typing.
//
// Threading: stateless.
#pragma once

#include <string>
#include <vector>

#include "base/Value.h"

namespace vorlen::ctl {

class FeedbackListing {
 public:
  // "+<seconds>s  <type>  q=<query id>  <summary>"; "q=-" when the event carries no query id.
  static std::string line(const Value::Dict& event);
  // The summary: up to four other fields as key=value (long texts shortened, arrays and dictionaries
  // shown by their size).
  static std::string summary(const Value::Dict& event);
};

}  // namespace vorlen::ctl
