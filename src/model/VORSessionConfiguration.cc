#include "model/VORSessionConfiguration.h"

namespace vorlen {

const RecordBinding<VORSessionConfiguration>& VORSessionConfiguration::binding() {
  using B = RecordBinding<VORSessionConfiguration>;
  static const B* const b =
      new B(kClassName, {
                            B::field("identifier", &VORSessionConfiguration::identifier),
                            B::field("userAgent", &VORSessionConfiguration::userAgent),
                            B::field("requestTimeout", &VORSessionConfiguration::requestTimeout),
                        });
  return *b;
}

}  // namespace vorlen
