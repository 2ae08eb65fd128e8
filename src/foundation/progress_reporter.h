// ProgressReporter: what long work tells whoever shows its progress: a window in the desktop
// program, a text bar on a terminal, or nothing. The deletion code drives it; implementations must
// accept calls from any thread (a window hops to the main thread itself, in order).
#pragma once

#include <cstdint>
#include <string>

namespace tesselune {

class ProgressReporter {
 public:
  virtual ~ProgressReporter() = default;

  virtual std::int64_t indicatorValue() const = 0;
  virtual void setIndicatorValue(std::int64_t value) = 0;
  // -1.0 makes the indicator indeterminate.
  virtual double maximumIndicatorValue() const = 0;
  virtual void setMaximumIndicatorValue(double maximum) = 0;
  virtual void setInfoText(const std::string& text) = 0;
  virtual void incrementProgressbarBy(double delta) = 0;
};

}  // namespace tesselune
