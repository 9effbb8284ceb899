#include <random>

#include <gtest/gtest.h>

#include "quillet/codec/Base64Url.h"

namespace quillet {
namespace {

TEST(Base64Url, EncodesWithTheUrlAlphabetAndNoPadding) {
  EXPECT_EQ(base64URLEncodedString(Bytes{0xFB, 0xFF}), "-_8");
  EXPECT_EQ(base64URLEncodedString(Bytes{}), "");
  EXPECT_EQ(base64URLEncodedString(Bytes{'M'}), "TQ");
  EXPECT_EQ(base64URLEncodedString(Bytes{'M', 'a', 'n'}), "TWFu");
}

TEST(Base64Url, DecodesUrlAndStandardCharactersWithOptionalPadding) {
  EXPECT_EQ(fromBase64Url("-_8"), (Bytes{0xFB, 0xFF}));
  EXPECT_EQ(fromBase64Url("+/8"), (Bytes{0xFB, 0xFF}));
  EXPECT_EQ(fromBase64Url("+/8="), (Bytes{0xFB, 0xFF}));
  EXPECT_EQ(fromBase64Url("TQ=="), (Bytes{'M'}));
  EXPECT_EQ(fromBase64Url("TQ="), (Bytes{'M'}));
  EXPECT_EQ(fromBase64Url(""), Bytes{});
}

TEST(Base64Url, RefusesMalformedText) {
  EXPECT_EQ(fromBase64Url("A"), std::nullopt);      // 4k + 1 characters
  EXPECT_EQ(fromBase64Url("TWFuA"), std::nullopt);  // 4k + 1 characters
  EXPECT_EQ(fromBase64Url("TQ =="), std::nullopt);  // white space
  EXPECT_EQ(fromBase64Url("TQ\n"), std::nullopt);
  EXPECT_EQ(fromBase64Url("T=Q="), std::nullopt);  // padding inside
  EXPECT_EQ(fromBase64Url("T==="), std::nullopt);  // too much padding
  EXPECT_EQ(fromBase64Url("TWFu.TWFu"), std::nullopt);
  EXPECT_EQ(fromBase64Url("===="), std::nullopt);
}

TEST(Base64Url, RandomBuffersRoundTrip) {
  std::mt19937 random(7);
  for (std::size_t length = 0; length < 64; ++length) {
    Bytes bytes(length);
    for (auto& byte : bytes)
      byte = static_cast<std::uint8_t>(random());
    const std::string text = base64URLEncodedString(bytes);
    EXPECT_EQ(text.find_first_of("+/="), std::string::npos);
    EXPECT_EQ(fromBase64Url(text), bytes) << text;
  }
}

}  // namespace
}  // namespace quillet
