#include "QZmath/Persistence/Colours.h"

#include <cmath>

#include "QZmath/Foundation/NumericRoutines.h"

namespace
{
/// The low byte of a rounded channel; the wrap of values beyond 255 (and
/// below 0) is part of the result.
inline unsigned long tf_byteOf(int value)
{
  return static_cast<unsigned long>(static_cast<unsigned>(value) & 0xFFu);
}

inline float tf_channel(unsigned long c, int shift)
{
  return static_cast<float>((c >> shift) & 0xFFu) / 255.0f;
}

/// A float channel value truncated to an integer and cut to its low byte.
/// Values come from [0, 510] here, well inside int.
inline unsigned long tf_truncByte(float value) { return tf_byteOf(static_cast<int>(value)); }
} // namespace

void colorI2RGB(QZ_rgb_color & out, unsigned long c)
{
  out.set_red(tf_channel(c, 0));
  out.set_green(tf_channel(c, 8));
  out.set_blue(tf_channel(c, 16));
}

unsigned long colorRGB2I(QZ_rgb_color const & c)
{
  return tf_byteOf(rndtoni(c.red() * 255.0)) | tf_byteOf(rndtoni(c.green() * 255.0)) << 8 |
         tf_byteOf(rndtoni(c.blue() * 255.0)) << 16;
}

void colorF2RGB(QZ_rgb_color & out, float const * c)
{
  out.set_red(c[0]);
  out.set_green(c[1]);
  out.set_blue(c[2]);
}

unsigned long colorF2I(float const * c)
{
  return tf_byteOf(rndtoni(c[0] * 255.0f)) | tf_byteOf(rndtoni(c[1] * 255.0f)) << 8 |
         tf_byteOf(rndtoni(c[2] * 255.0f)) << 16;
}

unsigned long colorF2I_4(float const * c) { return colorF2I(c) | tf_byteOf(rndtoni(c[3] * 255.0f)) << 24; }

void colorI2F(unsigned long c, float * out)
{
  out[0] = tf_channel(c, 0);
  out[1] = tf_channel(c, 8);
  out[2] = tf_channel(c, 16);
}

unsigned long ColorMap(float v)
{
  float t = v;
  if (!(t >= 0.0f)) // NaN too
    t = 0.0f;
  if (t > 1.0f)
    t = 1.0f;
  unsigned long red, green, blue;
  if (t < 0.5f)
  {
    green = tf_truncByte(510.0f * t);
    blue = tf_truncByte((1.0f - t - t) * 255.0f);
    red = 0;
  }
  else
  {
    green = tf_truncByte((2.0f - t - t) * 255.0f);
    red = tf_truncByte((-1.0f + t + t) * 255.0f);
    blue = 0;
  }
  return red | green << 8 | blue << 16;
}

void RGBtoHSV(float const * rgb, float & h, float & s, float & v)
{
  float const r = rgb[0], g = rgb[1], b = rgb[2];
  float mx = r, mn = r;
  if (g > mx)
    mx = g;
  if (b > mx)
    mx = b;
  if (g < mn)
    mn = g;
  if (b < mn)
    mn = b;
  v = mx;
  float const d = mx - mn;
  if (v == 0.0f)
  {
    s = 0.0f;
    h = -1.0f;
    return;
  }
  s = d / v;
  if (d == 0.0f)
  {
    h = 0.0f;
    return;
  }
  if (r == v)
    h = (g - b) / d;
  else if (g == v)
    h = (b - r) / d + 2.0f;
  else
    h = (r - g) / d + 4.0f;
  h *= 60.0f;
  if (h < 0.0f)
    h += 360.0f;
}

void HSVtoRGB(float h, float s, float v, float * rgb)
{
  if (s == 0.0f)
  {
    rgb[0] = rgb[1] = rgb[2] = v;
    return;
  }
  float const x = h / 60.0f;
  float const fl = std::floor(x);
  // Converting a floor far outside the sectors (or a NaN) to int would be
  // undefined; all of them take the last branch anyway.
  int const i = fl >= 0.0f && fl <= 6.0f ? static_cast<int>(fl) : 6;
  float const f = x - fl;
  float const p = (1.0f - s) * v;
  float const q = (1.0f - s * f) * v;
  float const t = (1.0f - s * (1.0f - f)) * v;
  float r, g, b;
  switch (i)
  {
  case 0:
    r = v, g = t, b = p;
    break;
  case 1:
    r = q, g = v, b = p;
    break;
  case 2:
    r = p, g = v, b = t;
    break;
  case 3:
    r = p, g = q, b = v;
    break;
  case 4:
    r = t, g = p, b = v;
    break;
  default:
    r = v, g = p, b = q;
    break;
  }
  rgb[0] = r;
  rgb[1] = g;
  rgb[2] = b;
}
