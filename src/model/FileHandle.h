// FileHandle: an open file passed along with a message. The record holds only the index of the
// descriptor among those that arrived with the same message; the transport owns the descriptors.
//
// Record: {"$class": "FileHandle", "fd": unsigned integer (required)}.
//
// Threading: a plain value.
#pragma once

#include <cstdint>

#include "model/TypedRecord.h"

namespace vorlen {

struct FileHandle : TypedRecord<FileHandle> {
  static constexpr const char* kClassName = "FileHandle";
  static const RecordBinding<FileHandle>& binding();

  uint64_t fd = 0;  // index into the message's descriptors, not a descriptor number

  bool operator==(const FileHandle&) const = default;
};

}  // namespace vorlen
