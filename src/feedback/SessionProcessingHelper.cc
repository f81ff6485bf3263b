#include "feedback/SessionProcessingHelper.h"

namespace vorlen {

std::string SessionProcessingHelper::replacementForIdentifier(const std::string& identifier) {
  auto it = privateIdMapping_.find(identifier);
  if (it != privateIdMapping_.end()) return it->second;
  std::string replacement = std::to_string(nextMappedId_++);
  privateIdMapping_.emplace(identifier, replacement);
  return replacement;
}

void SessionProcessingHelper::identifierReferenced(const std::string& identifier,
                                                   const QXSearchResult& result) {
  if (expandedIdSet_.contains(identifier)) return;
  idResultMap_.emplace(identifier, result);  // keeps the first one remembered
}

void SessionProcessingHelper::identifierReferenced(const std::string& identifier,
                                                   const QXSearchSuggestion& suggestion) {
  if (expandedIdSet_.contains(identifier)) return;
  idSuggestionMap_.emplace(identifier, suggestion);
}

void SessionProcessingHelper::identifierExpanded(const std::string& identifier) {
  expandedIdSet_.insert(identifier);
  idResultMap_.erase(identifier);
  idSuggestionMap_.erase(identifier);
}

std::vector<QXSearchResult> SessionProcessingHelper::missingResults() const {
  std::vector<QXSearchResult> out;
  out.reserve(idResultMap_.size());
  for (const auto& [id, result] : idResultMap_) out.push_back(result);
  return out;
}

std::vector<QXSearchSuggestion> SessionProcessingHelper::missingSuggestions() const {
  std::vector<QXSearchSuggestion> out;
  out.reserve(idSuggestionMap_.size());
  for (const auto& [id, suggestion] : idSuggestionMap_) out.push_back(suggestion);
  return out;
}

}  // namespace vorlen
