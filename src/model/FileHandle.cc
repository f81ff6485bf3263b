#include "model/FileHandle.h"

namespace vorlen {

const RecordBinding<FileHandle>& FileHandle::binding() {
  using B = RecordBinding<FileHandle>;
  static const B* const b = new B(kClassName, {B::field("fd", &FileHandle::fd, /*required=*/true)});
  return *b;
}

}  // namespace vorlen
