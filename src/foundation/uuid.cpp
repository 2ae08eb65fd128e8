// Uuid: random generation, parsing and the canonical upper-case text.
#include "foundation/uuid.h"

#include <random>

namespace tesselune {

namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

Uuid Uuid::random() {
  // One generator per thread: seeding from random_device on every call would be slow, and a shared
  // generator would need a lock.
  thread_local std::mt19937_64 generator{[] {
    std::random_device device;
    std::seed_seq seed{device(), device(), device(), device(), device(), device(), device(), device()};
    return std::mt19937_64(seed);
  }()};
  Bytes bytes;
  for (std::size_t i = 0; i < bytes.size(); i += 8) {
    std::uint64_t r = generator();
    for (std::size_t j = 0; j < 8; ++j) bytes[i + j] = static_cast<std::uint8_t>(r >> (8 * j));
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  return Uuid(bytes);
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  Bytes bytes;
  std::size_t out = 0;
  for (std::size_t i = 0; i < text.size();) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i] != '-') return std::nullopt;
      ++i;
      continue;
    }
    int high = hexDigit(text[i]);
    int low = hexDigit(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes[out++] = static_cast<std::uint8_t>(high * 16 + low);
    i += 2;
  }
  return Uuid(bytes);
}

std::optional<Uuid> Uuid::fromBytes(const std::uint8_t* data, std::size_t size) {
  if (size != 16 || data == nullptr) return std::nullopt;
  Bytes bytes;
  std::copy(data, data + 16, bytes.begin());
  return Uuid(bytes);
}

std::string Uuid::string() const {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < bytes_.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
    text.push_back(kDigits[bytes_[i] >> 4]);
    text.push_back(kDigits[bytes_[i] & 0x0F]);
  }
  return text;
}

}  // namespace tesselune

std::size_t std::hash<tesselune::Uuid>::operator()(const tesselune::Uuid& u) const noexcept {
  std::size_t h = 1469598103934665603ULL;
  for (auto b : u.bytes()) h = (h ^ b) * 1099511628211ULL;
  return h;
}
