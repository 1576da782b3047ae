#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>
#include <vector>

#include "stencil/jv_image.h"
#include "stencil/jv_math.h"

namespace {

uint32_t bitsOf(float f) {
  uint32_t u;
  std::memcpy(&u, &f, sizeof u);
  return u;
}

// Reference values the stencils were built with, to the bit.
TEST(StencilMath, ReferenceValues) {
  struct Case { const char* what; float got; uint32_t bits; };
  const Case cases[] = {
      {"sqrt(2)", my_sqrt(2.0f), 0x3FB504F3}, {"exp(1)", my_exp(1.0f), 0x402DF855},
      {"exp(-1)", my_exp(-1.0f), 0x3EBC5AB1}, {"ln(2)", my_ln(2.0f), 0x3F317218},
      {"sqrt(-4)", my_sqrt(-4.0f), bitsOf(-1.0f)}, {"sqrt(0)", my_sqrt(0.0f), 0},
      {"sqrt(65025)", my_sqrt(65025.0f), bitsOf(255.0f)}, {"exp(-0)", my_exp(-0.0f), bitsOf(1.0f)},
      {"ln(1)", my_ln(1.0f), 0}, {"ln(0)", my_ln(0.0f), bitsOf(-1.0f)}, {"ln(-3)", my_ln(-3.0f), bitsOf(-1.0f)},
      {"pow(0,0)", my_pow(0.0f, 0.0f), bitsOf(1.0f)}, {"pow(0,2)", my_pow(0.0f, 2.0f), 0},
      {"pow(0,-1)", my_pow(0.0f, -1.0f), bitsOf(-1.0f)}, {"pow(-2,.5)", my_pow(-2.0f, 0.5f), bitsOf(-1.0f)},
      {"pow(1,.7)", my_pow(1.0f, 0.7f), bitsOf(1.0f)}, {"pow(1,1.5)", my_pow(1.0f, 1.5f), bitsOf(1.0f)},
      // One float below 48: gamma tables come out a level lower than with pow.
      {"pow(18/128,.5)*128", my_pow(18.0f / 128.0f, 0.5f) * 128.0f, bitsOf(std::nextafter(48.0f, 0.0f))},
  };
  for (const Case& c : cases) EXPECT_EQ(bitsOf(c.got), c.bits) << c.what;
  // 20 series terms fall short of e^10 = 22026.47; a negative base with an
  // integral exponent comes out as exp(-exponent).
  EXPECT_NEAR(my_exp(10.0f), 21991.48f, 0.002f);
  EXPECT_NEAR(my_pow(-2.0f, 2.0f), 0.1353353f, 1e-7f);
  // Half the smallest subnormal rounds to 0, then the guess runs to inf and NaN.
  float root = 0.0f;
  EXPECT_FALSE(my_sqrt_bounded(std::numeric_limits<float>::denorm_min(), 200, &root));
  EXPECT_TRUE(my_sqrt_bounded(2.0f, 200, &root) && bitsOf(root) == 0x3FB504F3);
}

TEST(StencilMath, Round) {
  const float in[] = {2.5f, -2.5f, 255.4f, 0.4f, NAN, 3e9f};
  const int out[] = {3, -3, 255, 0, INT_MIN, INT_MIN};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(my_round(in[i]), out[i]) << in[i];
}

TEST(JVImageRecord, ChannelsCopiesAndMoves) {
  const int colors[] = {0, 1, 2, 3, 4, 7, -1}, channels[] = {1, 3, 3, 4, 4, 4, 4};
  for (int i = 0; i < 7; ++i) EXPECT_EQ(JVImage(2, 2, JV_IMG_COLOR(colors[i])).channels, channels[i]) << i;
  unsigned char px[18] = {0, 7, 14};
  px[17] = 119;
  JVImage a(3, 2, JV_IMG_BGR, px), c(1, 1, JV_IMG_GRAY);
  px[17] = 0;  // the record holds its own copy
  a.color = JV_IMG_GRAY;  // copies keep the channel count as it is
  JVImage b(a);
  c = b;
  b.data[0] = c.data[1] = 99;
  EXPECT_EQ((std::vector<int>{a.data[17], a.data[0], a.data[1], c.data[0], b.data[1], c.channels}),
            (std::vector<int>{119, 0, 7, 0, 7, 3}));
  unsigned char* buffer = c.data;
  JVImage d(std::move(c));
  EXPECT_TRUE(d.data == buffer && c.data == nullptr && c.byteCount() == 0);
  EXPECT_THROW(JVImage(-2, 3, JV_IMG_GRAY), std::bad_alloc);
}

}  // namespace
