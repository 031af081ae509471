#pragma once
// Colours: a red-green-blue triple of doubles in [0, 1], and packed colours.
//
// A packed colour is an unsigned long with red in the lowest byte, green in
// the next and blue in the third; the fourth byte is 0 except where a fourth
// channel is asked for (colorF2I_4). Conversions to a packed colour round
// each channel as channel * 255 + 0.5 truncated, and keep only the low byte of
// the result, so a channel above 1 wraps round instead of saturating.

/// Red, green and blue, each in [0, 1].
class QZ_rgb_color
{
public:
  QZ_rgb_color() = default;
  QZ_rgb_color(double red, double green, double blue) : m_dRed(red), m_dGreen(green), m_dBlue(blue) {}
  /// Channels of 0 to 255.
  QZ_rgb_color(int red, int green, int blue)
      : m_dRed(red * colCoef), m_dGreen(green * colCoef), m_dBlue(blue * colCoef)
  {
  }

  double red() const { return m_dRed; }
  double green() const { return m_dGreen; }
  double blue() const { return m_dBlue; }
  double & red() { return m_dRed; }
  double & green() { return m_dGreen; }
  double & blue() { return m_dBlue; }
  void set_red(double value) { m_dRed = value; }
  void set_green(double value) { m_dGreen = value; }
  void set_blue(double value) { m_dBlue = value; }

private:
  /// 1/255: one step of an 8-bit channel.
  static constexpr double colCoef = 0.00392156862745098;

  double m_dRed = 0.0;
  double m_dGreen = 0.0;
  double m_dBlue = 0.0;
};

/// The three bytes of `c`, each as float divided by 255.
void colorI2RGB(QZ_rgb_color & out, unsigned long c);
/// The packed colour of the three channels, each rounded from channel * 255.
unsigned long colorRGB2I(QZ_rgb_color const & c);
/// Three floats widened to double.
void colorF2RGB(QZ_rgb_color & out, float const * c);
/// As colorRGB2I, with the product channel * 255 formed in float.
unsigned long colorF2I(float const * c);
/// As colorF2I, with c[3] as a fourth channel in the top byte.
unsigned long colorF2I_4(float const * c);
/// The three bytes of `c`, each divided by 255, into out[0..2].
void colorI2F(unsigned long c, float * out);

/// A packed colour on a scale from blue (v <= 0) over green (0.5) to red
/// (v >= 1), computed in float. A NaN counts as 0.
unsigned long ColorMap(float v);

/// Hue in degrees [0, 360), saturation and value from red, green and blue.
/// Black gives h = -1, s = 0; a grey gives h = 0, s = 0.
void RGBtoHSV(float const * rgb, float & h, float & s, float & v);
/// Red, green and blue from hue in degrees, saturation and value. A hue
/// outside [0, 360) (360 itself, a negative one, a NaN) takes the sixth sector.
void HSVtoRGB(float h, float s, float v, float * rgb);
