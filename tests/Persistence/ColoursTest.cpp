#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "QZmath/Persistence/Colours.h"

TEST(Colours, PackedLayoutAndRoundTrips)
{
  QZ_rgb_color red(1.0, 0.0, 0.0);
  EXPECT_EQ(colorRGB2I(red), 0x0000FFul);
  QZ_rgb_color back(0.5, 0.5, 0.5);
  colorI2RGB(back, 0x0000FF);
  EXPECT_EQ(back.red(), 1.0);
  EXPECT_EQ(back.green(), 0.0);
  EXPECT_EQ(back.blue(), 0.0);
  EXPECT_EQ(colorRGB2I(QZ_rgb_color(0, 0, 255)), 0xFF0000ul);
  EXPECT_EQ(colorRGB2I(QZ_rgb_color()), 0ul);

  // Every byte value survives packed -> channels -> packed in every channel,
  // through doubles and through floats.
  for (unsigned long v = 0; v < 256; ++v)
    for (int shift : {0, 8, 16})
    {
      unsigned long const c = (v << shift) | (0x5A5A5Aul & ~(0xFFul << shift));
      QZ_rgb_color rgb;
      colorI2RGB(rgb, c);
      ASSERT_EQ(colorRGB2I(rgb), c);
      float f[4];
      colorI2F(c, f);
      ASSERT_EQ(colorF2I(f), c);
      f[3] = static_cast<float>(v) / 255.0f;
      ASSERT_EQ(colorF2I_4(f), c | v << 24);
      QZ_rgb_color widened;
      colorF2RGB(widened, f);
      ASSERT_EQ(widened.green(), static_cast<double>(f[1]));
    }
  // The channel is a float quotient stored as double.
  colorI2RGB(back, 0x000001);
  EXPECT_EQ(back.red(), static_cast<double>(1.0f / 255.0f));
  EXPECT_EQ(QZ_rgb_color(1, 2, 3).green(), 2 * 0.00392156862745098);
}

TEST(Colours, ChannelsOutOfRangeWrapToTheLowByte)
{
  float const two[3] = {0.0f, 2.0f, 0.0f};
  EXPECT_EQ(colorF2I(two), 254ul << 8); // 510 cut to 254
  EXPECT_EQ(colorRGB2I(QZ_rgb_color(0.0, 0.0, 2.0)), 254ul << 16);
  // rndtoni(-255 + 0.5) truncates to -254, whose low byte is 2.
  EXPECT_EQ(colorRGB2I(QZ_rgb_color(-1.0, 0.0, 0.0)), 2ul);
  // Huge and NaN channels stay defined.
  double const nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_LE(colorRGB2I(QZ_rgb_color(1e30, nan, -1e30)), 0xFFFFFFul);
}

TEST(Colours, ColorMapRunsFromBlueOverGreenToRed)
{
  EXPECT_EQ(ColorMap(0.0f), 0xFF0000ul);
  EXPECT_EQ(ColorMap(-1.0f), ColorMap(0.0f));
  EXPECT_EQ(ColorMap(std::numeric_limits<float>::quiet_NaN()), ColorMap(0.0f));
  EXPECT_EQ(ColorMap(0.5f), 0x00FF00ul);
  EXPECT_EQ(ColorMap(1.0f), 0x0000FFul);
  EXPECT_EQ(ColorMap(2.0f), 0x0000FFul);
  // 0.25: green 127.5 and blue 127.5, both truncated.
  EXPECT_EQ(ColorMap(0.25f), 127ul << 8 | 127ul << 16);
  // 0.75: green (2 - 1.5) * 255 = 127.5, red 127.5.
  EXPECT_EQ(ColorMap(0.75f), 127ul | 127ul << 8);
  for (float v = 0.0f; v <= 1.0f; v += 0.01f)
  {
    unsigned long const c = ColorMap(v);
    EXPECT_TRUE((c & 0xFF) == 0 || (c >> 16 & 0xFF) == 0) << v; // never red and blue at once
  }
}

TEST(Colours, HsvConversions)
{
  float h, s, v;
  float const black[3] = {0, 0, 0};
  RGBtoHSV(black, h, s, v);
  EXPECT_EQ(h, -1.0f);
  EXPECT_EQ(s, 0.0f);
  EXPECT_EQ(v, 0.0f);
  float const grey[3] = {0.4f, 0.4f, 0.4f};
  RGBtoHSV(grey, h, s, v);
  EXPECT_EQ(h, 0.0f);
  EXPECT_EQ(s, 0.0f);
  EXPECT_EQ(v, 0.4f);

  struct Known
  {
    float rgb[3];
    float h;
  } const known[] = {{{1, 0, 0}, 0},   {{1, 1, 0}, 60},  {{0, 1, 0}, 120},
                     {{0, 1, 1}, 180}, {{0, 0, 1}, 240}, {{1, 0, 1}, 300}};
  for (Known const & k : known)
  {
    RGBtoHSV(k.rgb, h, s, v);
    EXPECT_EQ(h, k.h);
    EXPECT_EQ(s, 1.0f);
    float rgb[3];
    HSVtoRGB(h, s, v, rgb);
    EXPECT_EQ(rgb[0], k.rgb[0]);
    EXPECT_EQ(rgb[1], k.rgb[1]);
    EXPECT_EQ(rgb[2], k.rgb[2]);
  }

  // h = 360 has the sector 6, the last branch: (v, p, q) with f = 0.
  float rgb[3];
  HSVtoRGB(360.0f, 0.5f, 0.8f, rgb);
  EXPECT_EQ(rgb[0], 0.8f);
  EXPECT_EQ(rgb[1], (1.0f - 0.5f) * 0.8f);
  EXPECT_EQ(rgb[2], 0.8f);
  HSVtoRGB(12.0f, 0.0f, 0.3f, rgb);
  EXPECT_EQ(rgb[1], 0.3f);
  HSVtoRGB(std::numeric_limits<float>::quiet_NaN(), 0.5f, 0.5f, rgb); // defined, whatever it gives
  HSVtoRGB(-1e30f, 0.5f, 0.5f, rgb);

  std::mt19937 rng(5);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  for (int i = 0; i < 2000; ++i)
  {
    float const in[3] = {unit(rng), unit(rng), unit(rng)};
    RGBtoHSV(in, h, s, v);
    ASSERT_GE(h, 0.0f);
    ASSERT_LT(h, 360.0f);
    HSVtoRGB(h, s, v, rgb);
    for (int c = 0; c < 3; ++c)
      ASSERT_NEAR(rgb[c], in[c], 1e-5f);
  }
}
