// TerminalProgressBar: progress of long work as one line of text that redraws itself on a terminal
// ("[#########           ]  45%  Spectra of Chromatogram 3"). Safe to call from any thread; it
// redraws only when what it shows changes, so reporting every item costs little.
#pragma once

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

#include "foundation/progress_reporter.h"

namespace tesselune {

class TerminalProgressBar : public ProgressReporter {
 public:
  // `out` is not owned and must outlive the bar; nothing is drawn before the first change.
  explicit TerminalProgressBar(std::FILE* out, int width = 30);
  ~TerminalProgressBar() override;

  std::int64_t indicatorValue() const override;
  void setIndicatorValue(std::int64_t value) override;
  double maximumIndicatorValue() const override;
  void setMaximumIndicatorValue(double maximum) override;
  void setInfoText(const std::string& text) override;
  void incrementProgressbarBy(double delta) override;

  // Ends the line, so that later output starts on a line of its own. Called by the destructor.
  void finish();

  // The line as it would be drawn (without the carriage return), for the given state.
  static std::string render(double value, double maximum, const std::string& text, int width);

 private:
  void redrawLocked();

  std::FILE* out_;
  int width_;
  mutable std::mutex mutex_;
  double value_ = 0;
  double maximum_ = -1.0;
  std::string text_;
  std::string shown_;
  bool drawn_ = false;
};

}  // namespace tesselune
