#include "ipc/IpcFraming.h"

#include <algorithm>
#include <cstring>

#include "base/Archive.h"

namespace vorlen {

std::vector<uint8_t> IpcFraming::encode(const Value& root) {
  std::vector<uint8_t> payload = Archive::encodeBinary(root);
  std::vector<uint8_t> frame(kHeaderBytes + payload.size());
  uint32_t n = static_cast<uint32_t>(payload.size());
  frame[0] = static_cast<uint8_t>(n >> 24);
  frame[1] = static_cast<uint8_t>(n >> 16);
  frame[2] = static_cast<uint8_t>(n >> 8);
  frame[3] = static_cast<uint8_t>(n);
  if (!payload.empty()) std::memcpy(frame.data() + kHeaderBytes, payload.data(), payload.size());
  return frame;
}

uint32_t IpcFraming::payloadLength(std::span<const uint8_t> header) {
  return (uint32_t{header[0]} << 24) | (uint32_t{header[1]} << 16) | (uint32_t{header[2]} << 8) |
         uint32_t{header[3]};
}

size_t IpcFraming::decodeBudget(size_t payloadBytes) {
  return std::max(kMinDecodeBudgetBytes, payloadBytes * kDecodeBudgetFactor);
}

std::optional<Value> IpcFraming::decodePayload(std::span<const uint8_t> payload, std::string* error) {
  static constexpr char kMagic[] = "bplist00";
  if (payload.size() < sizeof(kMagic) - 1 || std::memcmp(payload.data(), kMagic, sizeof(kMagic) - 1) != 0) {
    if (error) *error = "payload is not a binary property list";
    return std::nullopt;
  }
  std::string why;
  std::optional<Value> root = Archive::decodeBinary(payload, decodeBudget(payload.size()), &why);
  if (!root) {
    if (error) *error = "undecodable payload: " + why;
    return std::nullopt;
  }
  if (!root->isDict()) {
    if (error) *error = "payload root is not a dictionary";
    return std::nullopt;
  }
  return root;
}

}  // namespace vorlen
