#include "model/QXResultSection.h"

namespace vorlen {

const RecordBinding<QXResultSection>& QXResultSection::binding() {
  using B = RecordBinding<QXResultSection>;
  using S = QXResultSection;
  static const B* const b = new B(kClassName, {
                                                  B::field("identifier", &S::identifier),
                                                  B::field("score", &S::score),
                                                  B::field("bundleIdentifier", &S::bundleIdentifier),
                                                  B::field("results", &S::results),
                                              });
  return *b;
}

}  // namespace vorlen
