#pragma once
// A text progress bar for command-line tools, attached to a counter as an observer.

#include <chrono>
#include <cstdio>
#include <string>

#include "QZsys/Progress.h"

class CConsoleProgressBar : public IProgressObserver
{
public:
  /// Draws on `out` (not owned), `width` characters of bar. Redraws at most
  /// every `minIntervalMs` milliseconds unless the phase changes.
  explicit CConsoleProgressBar(std::FILE * out = stderr, int width = 40, int minIntervalMs = 100);
  ~CConsoleProgressBar() override;
  CConsoleProgressBar(CConsoleProgressBar const &) = delete;
  CConsoleProgressBar & operator=(CConsoleProgressBar const &) = delete;

  void onProgress(double globalPos, std::string const & phaseName) override;
  /// Draws the final state and ends the line; later progress starts a new bar.
  void finish();

  /// The text of one bar line, without the carriage return.
  static std::string formatLine(double pos, std::string const & phaseName, int width);

private:
  void draw(double pos, std::string const & phaseName);
  std::FILE * m_out;
  int m_width;
  std::chrono::milliseconds m_minInterval;
  std::chrono::steady_clock::time_point m_lastDraw{};
  std::string m_lastPhase;
  double m_lastPos = -1.0;
  bool m_lineOpen = false;
  std::size_t m_lastLength = 0;
};
