// A text progress bar for the maintenance command.
#include "app/terminal_progress_bar.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace tesselune {

TerminalProgressBar::TerminalProgressBar(std::FILE* out, int width) : out_(out), width_(std::max(width, 1)) {}

TerminalProgressBar::~TerminalProgressBar() {
  finish();
}

std::int64_t TerminalProgressBar::indicatorValue() const {
  std::lock_guard lock(mutex_);
  return static_cast<std::int64_t>(value_);
}

void TerminalProgressBar::setIndicatorValue(std::int64_t value) {
  std::lock_guard lock(mutex_);
  value_ = static_cast<double>(value);
  redrawLocked();
}

double TerminalProgressBar::maximumIndicatorValue() const {
  std::lock_guard lock(mutex_);
  return maximum_;
}

void TerminalProgressBar::setMaximumIndicatorValue(double maximum) {
  std::lock_guard lock(mutex_);
  maximum_ = maximum;
  redrawLocked();
}

void TerminalProgressBar::setInfoText(const std::string& text) {
  std::lock_guard lock(mutex_);
  text_ = text;
  redrawLocked();
}

void TerminalProgressBar::incrementProgressbarBy(double delta) {
  std::lock_guard lock(mutex_);
  value_ += delta;
  redrawLocked();
}

void TerminalProgressBar::finish() {
  std::lock_guard lock(mutex_);
  if (!drawn_) return;
  std::fputc('\n', out_);
  std::fflush(out_);
  drawn_ = false;
  shown_.clear();
}

std::string TerminalProgressBar::render(double value, double maximum, const std::string& text, int width) {
  if (!std::isfinite(value)) value = 0;
  std::string line;
  if (maximum <= 0 || !std::isfinite(maximum)) {
    // Indeterminate: a count instead of a share.
    line = fmt::format("[{:^{}}] {:>4}", "...", width, static_cast<std::int64_t>(std::max(value, 0.0)));
  } else {
    const double share = std::clamp(value / maximum, 0.0, 1.0);
    const int filled = static_cast<int>(share * width);
    line = fmt::format("[{}{}] {:>3}%", std::string(static_cast<std::size_t>(filled), '#'),
                       std::string(static_cast<std::size_t>(width - filled), ' '),
                       static_cast<int>(share * 100.0));
  }
  if (!text.empty()) line += "  " + text;
  return line;
}

void TerminalProgressBar::redrawLocked() {
  std::string line = render(value_, maximum_, text_, width_);
  if (line == shown_) return;
  // Pad over the rest of a longer line drawn before.
  const std::size_t previous = shown_.size();
  shown_ = line;
  if (line.size() < previous) line.append(previous - line.size(), ' ');
  std::fputc('\r', out_);
  std::fputs(line.c_str(), out_);
  std::fflush(out_);
  drawn_ = true;
}

}  // namespace tesselune
