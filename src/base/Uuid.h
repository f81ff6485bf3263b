// Uuid: a 128-bit random (version 4, RFC 4122 variant) identifier.
//
// Threading: a plain value; random() is safe from any thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vorlen {

class Uuid {
 public:
  Uuid() = default;  // the nil UUID
  explicit Uuid(const std::array<uint8_t, 16>& bytes) : bytes_(bytes) {}

  static Uuid random();
  // Parses the canonical 36-character form (either case); nullopt otherwise.
  static std::optional<Uuid> parse(std::string_view text);
  static std::optional<Uuid> fromBytes(const uint8_t* data, size_t size);

  const std::array<uint8_t, 16>& bytes() const { return bytes_; }
  bool isNil() const;
  // Canonical upper-case form, e.g. "1B4E28BA-2FA1-41D2-883F-0016D3CCA427".
  std::string string() const;

  bool operator==(const Uuid&) const = default;
  auto operator<=>(const Uuid&) const = default;

 private:
  std::array<uint8_t, 16> bytes_{};
};

}  // namespace vorlen
