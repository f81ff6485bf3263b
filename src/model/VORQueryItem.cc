#include "model/VORQueryItem.h"

namespace vorlen {

const RecordBinding<VORQueryItem>& VORQueryItem::binding() {
  using B = RecordBinding<VORQueryItem>;
  static const B* const b = new B(kClassName, {
                                                  B::field("name", &VORQueryItem::name, /*required=*/true),
                                                  B::field("value", &VORQueryItem::value),
                                              });
  return *b;
}

}  // namespace vorlen
