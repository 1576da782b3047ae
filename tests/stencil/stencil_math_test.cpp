#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <new>

#include "stencil/jv_image.h"
#include "stencil/jv_math.h"

namespace {

uint32_t bitsOf(float f) {
  uint32_t u;
  std::memcpy(&u, &f, sizeof u);
  return u;
}

// Bit patterns of the reference values the stencils were built with.
TEST(StencilMath, ReferenceBitPatterns) {
  struct Case { const char* what; float got; uint32_t bits; };
  const Case cases[] = {
      {"sqrt(2)", my_sqrt(2.0f), 0x3FB504F3},  {"exp(1)", my_exp(1.0f), 0x402DF855},
      {"exp(-1)", my_exp(-1.0f), 0x3EBC5AB1},  {"ln(2)", my_ln(2.0f), 0x3F317218},
      {"0.299f", 0.299f, 0x3E991687},          {"1e-6f", 1e-6f, 0x358637BD},
  };
  for (const Case& c : cases) EXPECT_EQ(bitsOf(c.got), c.bits) << c.what;
}

TEST(StencilMath, ExactValues) {
  struct Case { const char* what; float got, expected; };
  const Case cases[] = {
      {"sqrt(-4)", my_sqrt(-4.0f), -1.0f},    {"sqrt(0)", my_sqrt(0.0f), 0.0f},
      {"sqrt(65025)", my_sqrt(65025.0f), 255.0f},
      {"exp(0)", my_exp(0.0f), 1.0f},         {"exp(-0)", my_exp(-0.0f), 1.0f},
      {"ln(1)", my_ln(1.0f), 0.0f},           {"ln(0)", my_ln(0.0f), -1.0f},
      {"ln(-3)", my_ln(-3.0f), -1.0f},        {"pow(0,0)", my_pow(0.0f, 0.0f), 1.0f},
      {"pow(0,2)", my_pow(0.0f, 2.0f), 0.0f}, {"pow(0,-1)", my_pow(0.0f, -1.0f), -1.0f},
      {"pow(-2,.5)", my_pow(-2.0f, 0.5f), -1.0f},
      {"pow(1,.7)", my_pow(1.0f, 0.7f), 1.0f}, {"pow(1,1.5)", my_pow(1.0f, 1.5f), 1.0f},
      // One float below 48: gamma tables come out a level lower than with pow.
      {"pow(18/128,.5)*128", my_pow(18.0f / 128.0f, 0.5f) * 128.0f, std::nextafter(48.0f, 0.0f)},
  };
  for (const Case& c : cases) EXPECT_EQ(c.got, c.expected) << c.what;
  // 20 series terms fall short of e^10 = 22026.47; a negative base with an
  // integral exponent comes out as exp(-exponent).
  EXPECT_NEAR(my_exp(10.0f), 21991.48f, 0.002f);
  EXPECT_NEAR(my_pow(-2.0f, 2.0f), 0.1353353f, 1e-7f);
}

TEST(StencilMath, RoundClampBounds) {
  EXPECT_EQ(my_round(2.5f), 3);
  EXPECT_EQ(my_round(-2.5f), -3);
  EXPECT_EQ(my_round(255.4f), 255);
  EXPECT_EQ(my_round(NAN), INT_MIN);
  EXPECT_EQ(my_round(3e9f), INT_MIN);
  EXPECT_EQ(myClamp(300, 0, 255), 255);
  EXPECT_EQ(myClamp(-7, 0, 255), 0);
  EXPECT_FALSE(isWithinBounds(5, 0, 5, 3));
  EXPECT_TRUE(isWithinBounds(0, 2, 5, 3));
  EXPECT_FALSE(isWithinBounds(-1, 0, 5, 3));
}

// Within the range the series is not cut short, the results track the true
// functions.
TEST(StencilMath, CloseToTrueFunctions) {
  for (float x = 0.01f; x < 1000.0f; x *= 1.37f) {
    EXPECT_NEAR(my_sqrt(x), std::sqrt(x), 1e-6f * std::sqrt(x) + 1e-6f) << x;
    if (x < 50.0f) {
      EXPECT_NEAR(my_ln(x), std::log(x), 2e-6f) << x;
    }
  }
  for (float x = -4.0f; x < 4.0f; x += 0.37f) EXPECT_NEAR(my_exp(x), std::exp(x), 2e-6f * std::exp(x)) << x;
}

TEST(JVImageRecord, ChannelsCopiesAndMoves) {
  const int colors[] = {0, 1, 2, 3, 4, 7, -1};
  const int channels[] = {1, 3, 3, 4, 4, 4, 4};
  for (int i = 0; i < 7; ++i)
    EXPECT_EQ(JVImage(2, 2, static_cast<JV_IMG_COLOR>(colors[i])).channels, channels[i]) << colors[i];

  unsigned char pixels[18];
  for (int i = 0; i < 18; ++i) pixels[i] = static_cast<unsigned char>(i * 7);
  JVImage a(3, 2, JV_IMG_BGR, pixels);
  pixels[0] = 99;  // the record holds its own copy
  EXPECT_EQ(a.data[0], 0);
  EXPECT_EQ(a.data[17], 119);

  a.color = JV_IMG_GRAY;  // the copy keeps the channel count as it is
  JVImage b(a);
  EXPECT_EQ(b.channels, 3);
  b.data[5] = 1;
  JVImage c(1, 1, JV_IMG_GRAY);
  c = b;
  c.data[6] = 2;
  EXPECT_EQ(std::memcmp(a.data + 6, pixels + 6, 12), 0);
  EXPECT_EQ(b.data[6], 42);
  EXPECT_EQ(c.byteCount(), 18);

  unsigned char* buffer = c.data;
  JVImage d(std::move(c));
  EXPECT_EQ(d.data, buffer);
  EXPECT_EQ(c.data, nullptr);
  EXPECT_EQ(c.width * c.height * c.channels, 0);
  EXPECT_THROW(JVImage(-2, 3, JV_IMG_GRAY), std::bad_alloc);
}

}  // namespace
