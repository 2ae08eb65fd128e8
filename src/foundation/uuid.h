// Uuid: a 16-byte universally unique identifier, as NSUUID.
//
// Plain value type; safe to copy between threads. The canonical text is upper case with hyphens
// ("0AD863BA-7584-40CF-8896-BD87B3280C34"), as NSUUID's UUIDString.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tesselune {

class Uuid {
 public:
  using Bytes = std::array<std::uint8_t, 16>;

  // The nil UUID (all zero bytes).
  Uuid() = default;
  explicit Uuid(const Bytes& bytes) : bytes_(bytes) {}

  // A new random (version 4) UUID.
  static Uuid random();
  // Parses the 36-character hyphenated form in either case; nothing for anything else.
  static std::optional<Uuid> parse(std::string_view text);
  // From exactly 16 bytes; nothing for any other length.
  static std::optional<Uuid> fromBytes(const std::uint8_t* data, std::size_t size);

  const Bytes& bytes() const { return bytes_; }
  std::string string() const;
  bool isNil() const { return bytes_ == Bytes{}; }

  friend bool operator==(const Uuid&, const Uuid&) = default;
  friend auto operator<=>(const Uuid&, const Uuid&) = default;

 private:
  Bytes bytes_{};
};

}  // namespace tesselune

template <>
struct std::hash<tesselune::Uuid> {
  std::size_t operator()(const tesselune::Uuid& u) const noexcept;
};
