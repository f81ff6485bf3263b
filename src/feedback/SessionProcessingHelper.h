// SessionProcessingHelper: the per-session state used while one session is turned into its upload form.
// It replaces the identifiers of results and suggestions by short session-local ones ("0", "1", ... in the
// order first seen; the same identifier always gets the same replacement within the session), and it
// collects the results and suggestions that events only referred to by identifier but that no event of
// the session described in full, so the record can carry them once at its start.
//
// Identifiers are those received from the client (before replacement). The objects remembered are kept as
// given; callers pass them already rewritten, so what comes back out holds no received identifier.
//
// Threading: not thread-safe; one helper belongs to one encoding pass on one thread.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "model/QXSearchResult.h"
#include "model/QXSearchSuggestion.h"

namespace vorlen {

class SessionProcessingHelper {
 public:
  // The session-local replacement of `identifier`.
  std::string replacementForIdentifier(const std::string& identifier);

  // Remembers the object for `identifier` unless the identifier was expanded or is remembered already.
  void identifierReferenced(const std::string& identifier, const QXSearchResult& result);
  void identifierReferenced(const std::string& identifier, const QXSearchSuggestion& suggestion);
  // Marks the identifier as described in full and forgets any object remembered for it.
  void identifierExpanded(const std::string& identifier);

  // The objects referenced but never expanded (in no defined order).
  std::vector<QXSearchResult> missingResults() const;
  std::vector<QXSearchSuggestion> missingSuggestions() const;

 private:
  std::map<std::string, std::string> privateIdMapping_;
  int32_t nextMappedId_ = 0;
  std::map<std::string, QXSearchResult> idResultMap_;
  std::map<std::string, QXSearchSuggestion> idSuggestionMap_;
  std::set<std::string> expandedIdSet_;
};

}  // namespace vorlen
