// SHA-256 against the published test vectors, fed whole and in uneven pieces.

#include "foundation/sha256.h"

#include <gtest/gtest.h>

#include <string>

namespace tesselune {
namespace {

std::string hex(const Sha256::Digest& digest) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (std::uint8_t b : digest) {
    out.push_back(kDigits[b >> 4]);
    out.push_back(kDigits[b & 15]);
  }
  return out;
}

TEST(Sha256, MatchesThePublishedVectors) {
  EXPECT_EQ(hex(Sha256().finish()), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(hex(Sha256().update("abc").finish()),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(hex(Sha256().update("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq").finish()),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  Sha256 million;
  const std::string chunk(1000, 'a');
  for (int i = 0; i < 1000; ++i) million.update(chunk);
  EXPECT_EQ(hex(million.finish()), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha256, GivesTheSameDigestHoweverTheInputIsCut) {
  std::string text;
  for (int i = 0; i < 300; ++i) text.push_back(static_cast<char>(i * 7));
  const std::string whole = hex(Sha256().update(text).finish());
  for (std::size_t cut : {1u, 55u, 56u, 63u, 64u, 65u, 127u, 200u}) {
    Sha256 sha;
    for (std::size_t i = 0; i < text.size(); i += cut) sha.update(std::string_view(text).substr(i, cut));
    EXPECT_EQ(hex(sha.finish()), whole) << cut;
  }
}

}  // namespace
}  // namespace tesselune
