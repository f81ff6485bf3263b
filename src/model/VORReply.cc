#include "model/VORReply.h"

namespace vorlen {

const RecordBinding<VORReply>& VORReply::binding() {
  using B = RecordBinding<VORReply>;
  static const B* const b =
      new B(kClassName, {
                            B::field("scale", &VORReply::scale),
                            B::field("data", &VORReply::data),
                            B::field("httpRequest", &VORReply::httpRequest),
                            B::field("httpResponse", &VORReply::httpResponse),
                            B::field("geoSessionEntityString", &VORReply::geoSessionEntityString),
                        });
  return *b;
}

}  // namespace vorlen
