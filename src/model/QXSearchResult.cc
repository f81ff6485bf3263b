#include "model/QXSearchResult.h"

namespace vorlen {

const RecordBinding<QXSearchResult>& QXSearchResult::binding() {
  using B = RecordBinding<QXSearchResult>;
  using R = QXSearchResult;
  static const B* const b =
      new B(kClassName, {
                            B::field("identifier", &R::identifier),
                            B::field("queryId", &R::queryId),
                            B::field("type", &R::type),
                            B::field("title", &R::title),
                            B::field("completedQuery", &R::completedQuery),
                            B::field("userInput", &R::userInput),
                            B::field("topHit", &R::topHit),
                            B::field("score", &R::score),
                            B::field("publiclyIndexable", &R::publiclyIndexable),
                            B::field("sectionBundleIdentifier", &R::sectionBundleIdentifier),
                            B::field("bundleIdentifier", &R::bundleIdentifier),
                            B::field("fbr", &R::fbr),
                            B::field("localFeatures", &R::localFeatures),
                            B::field("correctedQuery", &R::correctedQuery),
                            B::field("staticCorrection", &R::staticCorrection),
                        });
  return *b;
}

}  // namespace vorlen
