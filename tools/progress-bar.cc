#include "progress-bar.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>

namespace kestrel {

ProgressBar::ProgressBar(const std::string& label, Show show)
    : label_(label), show_(show), terminal_(isatty(2) != 0),
      start_(std::chrono::steady_clock::now()) {}

std::string FormatDuration(double seconds) {
  const long total = std::lround(std::max(0.0, seconds));
  char text[32];
  if (total >= 3600) {
    std::snprintf(text, sizeof(text), "%ld:%02ld:%02ld", total / 3600, total / 60 % 60,
                  total % 60);
  } else {
    std::snprintf(text, sizeof(text), "%ld:%02ld", total / 60, total % 60);
  }
  return text;
}

std::string ProgressBar::Line(const std::string& label, double fraction, double seconds_left,
                              int width) {
  fraction = std::clamp(fraction, 0.0, 1.0);
  const int filled = static_cast<int>(fraction * width);
  std::string line = label + " [" + std::string(filled, '#') + std::string(width - filled, '.') +
                     "] " + std::to_string(static_cast<int>(100 * fraction)) + "%";
  // The first percent of a stage says too little of its pace.
  if (fraction >= 0.01 && fraction < 1.0) line += " " + FormatDuration(seconds_left) + " left";
  return line;
}

void ProgressBar::Update(double done, double total) {
  if (show_ == Show::kNever || (!terminal_ && show_ == Show::kOnTerminal) || total <= 0.0) {
    return;
  }
  const double fraction = std::clamp(done / total, 0.0, 1.0);
  const double elapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  const double left = fraction > 0.0 ? elapsed * (1.0 - fraction) / fraction : 0.0;
  const int percent = static_cast<int>(100 * fraction);
  if (terminal_) {
    if (percent == percent_ && drawn_) return;
    percent_ = percent;
    std::cerr << "\r" << Line(label_, fraction, left) << "\033[K" << std::flush;
    drawn_ = true;
  } else if (percent / 10 > std::max(percent_, 0)) {
    percent_ = percent / 10;
    std::cerr << Line(label_, fraction, left) << std::endl;
  }
}

void ProgressBar::Clear() {
  if (!drawn_) return;
  std::cerr << "\r\033[K" << std::flush;
  drawn_ = false;
}

}  // namespace kestrel
