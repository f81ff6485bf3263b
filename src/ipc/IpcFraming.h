// IpcFraming: the frame format of the IPC transport. A frame is a 4-byte unsigned payload length in
// network byte order followed by that many bytes of a binary property list whose root is a dictionary.
//
// Threading: stateless; safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/Value.h"

namespace vorlen {

class IpcFraming {
 public:
  static constexpr size_t kHeaderBytes = 4;
  // Largest payload a connection accepts or sends unless configured otherwise.
  static constexpr size_t kDefaultMaxPayloadBytes = size_t{16} << 20;

  // Header + binary property list of `root`. REQUIRES: root.isDict().
  static std::vector<uint8_t> encode(const Value& root);
  // The payload length a header announces. REQUIRES: header.size() >= kHeaderBytes.
  static uint32_t payloadLength(std::span<const uint8_t> header);
  // Memory a payload may decode into: kDecodeBudgetFactor times its size, and never less than
  // kMinDecodeBudgetBytes. Plain messages stay far below it; a payload whose references expand one object
  // many times over is refused before anything is built.
  static constexpr size_t kDecodeBudgetFactor = 4;
  static constexpr size_t kMinDecodeBudgetBytes = size_t{4} << 20;
  static size_t decodeBudget(size_t payloadBytes);

  // The dictionary a payload holds; nullopt with a short reason in *error when the bytes are not a binary
  // property list within the decode budget or its root is not a dictionary.
  static std::optional<Value> decodePayload(std::span<const uint8_t> payload, std::string* error);
};

}  // namespace vorlen
