#include "feedback/SessionProcessingHelper.h"

namespace vorlen {

std::string SessionProcessingHelper::replacementForIdentifier(const std::string& identifier) {
  auto it = _privateIdMapping.find(identifier);
  if (it != _privateIdMapping.end()) return it->second;
  std::string replacement = std::to_string(_nextMappedId++);
  _privateIdMapping.emplace(identifier, replacement);
  return replacement;
}

void SessionProcessingHelper::identifierReferenced(const std::string& identifier,
                                                   const QXSearchResult& result) {
  if (_expandedIdSet.contains(identifier)) return;
  _idResultMap.emplace(identifier, result);  // keeps the first one remembered
}

void SessionProcessingHelper::identifierReferenced(const std::string& identifier,
                                                   const QXSearchSuggestion& suggestion) {
  if (_expandedIdSet.contains(identifier)) return;
  _idSuggestionMap.emplace(identifier, suggestion);
}

void SessionProcessingHelper::identifierExpanded(const std::string& identifier) {
  _expandedIdSet.insert(identifier);
  _idResultMap.erase(identifier);
  _idSuggestionMap.erase(identifier);
}

std::vector<QXSearchResult> SessionProcessingHelper::missingResults() const {
  std::vector<QXSearchResult> out;
  out.reserve(_idResultMap.size());
  for (const auto& [id, result] : _idResultMap) out.push_back(result);
  return out;
}

std::vector<QXSearchSuggestion> SessionProcessingHelper::missingSuggestions() const {
  std::vector<QXSearchSuggestion> out;
  out.reserve(_idSuggestionMap.size());
  for (const auto& [id, suggestion] : _idSuggestionMap) out.push_back(suggestion);
  return out;
}

}  // namespace vorlen
