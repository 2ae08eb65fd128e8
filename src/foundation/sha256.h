// SHA-256 (FIPS 180-4), for the digests that stores record about their models.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

namespace tesselune {

// Incremental SHA-256. Feed bytes with update, then take the digest once with finish.
class Sha256 {
 public:
  using Digest = std::array<std::uint8_t, 32>;

  Sha256();
  Sha256& update(std::span<const std::uint8_t> bytes);
  Sha256& update(std::string_view text);
  Digest finish();

  static Digest of(std::span<const std::uint8_t> bytes) { return Sha256().update(bytes).finish(); }

 private:
  void compress(const std::uint8_t* block);

  std::array<std::uint32_t, 8> state_;
  std::array<std::uint8_t, 64> buffer_{};
  std::size_t buffered_ = 0;
  std::uint64_t length_ = 0;  // bytes fed so far
};

}  // namespace tesselune
