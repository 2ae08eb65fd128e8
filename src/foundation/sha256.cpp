// SHA-256 as FIPS 180-4 describes it.

#include "foundation/sha256.h"

#include <bit>
#include <cstring>

namespace tesselune {

namespace {

constexpr std::uint32_t kRound[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2,
};

}  // namespace

Sha256::Sha256()
    : state_{0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a, 0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19} {
}

Sha256& Sha256::update(std::string_view text) {
  return update(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

Sha256& Sha256::update(std::span<const std::uint8_t> bytes) {
  length_ += bytes.size();
  std::size_t i = 0;
  if (buffered_ > 0) {
    const std::size_t take = std::min(bytes.size(), 64 - buffered_);
    std::memcpy(buffer_.data() + buffered_, bytes.data(), take);
    buffered_ += take;
    i = take;
    if (buffered_ < 64) return *this;
    compress(buffer_.data());
    buffered_ = 0;
  }
  for (; i + 64 <= bytes.size(); i += 64) compress(bytes.data() + i);
  if (i < bytes.size()) {
    std::memcpy(buffer_.data(), bytes.data() + i, bytes.size() - i);
    buffered_ = bytes.size() - i;
  }
  return *this;
}

Sha256::Digest Sha256::finish() {
  const std::uint64_t bits = length_ * 8;
  const std::uint8_t one = 0x80;
  update(std::span(&one, 1));
  const std::uint8_t zero = 0;
  while (buffered_ != 56) update(std::span(&zero, 1));
  std::uint8_t tail[8];
  for (int k = 0; k < 8; ++k) tail[k] = static_cast<std::uint8_t>(bits >> (56 - 8 * k));
  update(tail);
  Digest digest;
  for (int k = 0; k < 8; ++k) {
    for (int b = 0; b < 4; ++b) digest[4 * k + b] = static_cast<std::uint8_t>(state_[k] >> (24 - 8 * b));
  }
  return digest;
}

void Sha256::compress(const std::uint8_t* block) {
  std::uint32_t w[64];
  for (int t = 0; t < 16; ++t) {
    w[t] = (std::uint32_t{block[4 * t]} << 24) | (std::uint32_t{block[4 * t + 1]} << 16) |
           (std::uint32_t{block[4 * t + 2]} << 8) | std::uint32_t{block[4 * t + 3]};
  }
  for (int t = 16; t < 64; ++t) {
    const std::uint32_t s0 = std::rotr(w[t - 15], 7) ^ std::rotr(w[t - 15], 18) ^ (w[t - 15] >> 3);
    const std::uint32_t s1 = std::rotr(w[t - 2], 17) ^ std::rotr(w[t - 2], 19) ^ (w[t - 2] >> 10);
    w[t] = w[t - 16] + s0 + w[t - 7] + s1;
  }
  std::uint32_t a = state_[0], b = state_[1], c = state_[2], d = state_[3];
  std::uint32_t e = state_[4], f = state_[5], g = state_[6], h = state_[7];
  for (int t = 0; t < 64; ++t) {
    const std::uint32_t t1 =
        h + (std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25)) + ((e & f) ^ (~e & g)) + kRound[t] + w[t];
    const std::uint32_t t2 =
        (std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
    h = g;
    g = f;
    f = e;
    e = d + t1;
    d = c;
    c = b;
    b = a;
    a = t1 + t2;
  }
  state_[0] += a;
  state_[1] += b;
  state_[2] += c;
  state_[3] += d;
  state_[4] += e;
  state_[5] += f;
  state_[6] += g;
  state_[7] += h;
}

}  // namespace tesselune
