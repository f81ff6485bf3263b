#include "model/QXSearchSuggestion.h"

namespace vorlen {

const RecordBinding<QXSearchSuggestion>& QXSearchSuggestion::binding() {
  using B = RecordBinding<QXSearchSuggestion>;
  using S = QXSearchSuggestion;
  static const B* const b = new B(kClassName, {
                                                  B::field("identifier", &S::identifier),
                                                  B::field("suggestion", &S::suggestion),
                                                  B::field("score", &S::score),
                                                  B::field("type", &S::type),
                                                  B::field("topicIdentifier", &S::topicIdentifier),
                                                  B::field("fbr", &S::fbr),
                                                  B::field("duplicateSuggestions", &S::duplicateSuggestions),
                                              });
  return *b;
}

}  // namespace vorlen
