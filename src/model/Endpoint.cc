#include "model/Endpoint.h"

namespace vorlen {

const RecordBinding<Endpoint>& Endpoint::binding() {
  using B = RecordBinding<Endpoint>;
  static const B* const b = new B(kClassName, {B::field("path", &Endpoint::path, /*required=*/true)});
  return *b;
}

}  // namespace vorlen
