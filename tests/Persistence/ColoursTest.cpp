#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "QZmath/Persistence/Colours.h"

TEST(Colours, PackedLayoutRoundTripsAndWrap)
{
  EXPECT_EQ(colorRGB2I(QZ_rgb_color(1.0, 0.0, 0.0)), 0x0000FFul);
  EXPECT_EQ(colorRGB2I(QZ_rgb_color(0, 0, 255)), 0xFF0000ul);
  QZ_rgb_color back;
  colorI2RGB(back, 0x0000FF);
  EXPECT_TRUE(back.red() == 1.0 && back.green() == 0.0 && back.blue() == 0.0);

  // Every byte value in every channel survives packed -> channels -> packed,
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
      f[3] = static_cast<float>(v) / 255.0f;
      ASSERT_EQ(colorF2I_4(f), c | v << 24);
      colorF2RGB(rgb, f);
      ASSERT_EQ(colorRGB2I(rgb), c);
    }

  float const two[3] = {0.0f, 2.0f, 0.0f};
  EXPECT_EQ(colorF2I(two), 254ul << 8); // 510 cut to its low byte
  // -1: -255 + 0.5 truncates to -254, whose low byte is 2.
  EXPECT_EQ(colorRGB2I(QZ_rgb_color(-1.0, 0.0, 0.0)), 2ul);
  double const nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_LE(colorRGB2I(QZ_rgb_color(1e30, nan, -1e30)), 0xFFFFFFul); // defined
}

TEST(Colours, ColorMapRunsFromBlueOverGreenToRed)
{
  EXPECT_EQ(ColorMap(0.0f), 0xFF0000ul);
  EXPECT_EQ(ColorMap(-1.0f), 0xFF0000ul);
  EXPECT_EQ(ColorMap(std::numeric_limits<float>::quiet_NaN()), 0xFF0000ul);
  EXPECT_EQ(ColorMap(0.25f), 127ul << 8 | 127ul << 16); // 127.5 truncated
  EXPECT_EQ(ColorMap(0.5f), 0x00FF00ul);
  EXPECT_EQ(ColorMap(0.75f), 127ul | 127ul << 8);
  EXPECT_EQ(ColorMap(2.0f), 0x0000FFul);
}

TEST(Colours, HsvConversions)
{
  float h, s, v, rgb[3];
  float const black[3] = {0, 0, 0};
  RGBtoHSV(black, h, s, v); // no hue at all
  EXPECT_TRUE(h == -1.0f && s == 0.0f && v == 0.0f);

  // h = 360 is sector 6, the last branch: (v, p, q) with f = 0.
  HSVtoRGB(360.0f, 0.5f, 0.8f, rgb);
  EXPECT_TRUE(rgb[0] == 0.8f && rgb[1] == 0.5f * 0.8f && rgb[2] == 0.8f);
  HSVtoRGB(std::numeric_limits<float>::quiet_NaN(), 0.5f, 0.5f, rgb); // defined

  std::mt19937 rng(5);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  for (int i = 0; i < 500; ++i)
  {
    float const in[3] = {unit(rng), unit(rng), unit(rng)};
    RGBtoHSV(in, h, s, v);
    ASSERT_TRUE(h >= 0.0f && h < 360.0f);
    HSVtoRGB(h, s, v, rgb);
    for (int c = 0; c < 3; ++c)
      ASSERT_NEAR(rgb[c], in[c], 1e-5f);
  }
}
