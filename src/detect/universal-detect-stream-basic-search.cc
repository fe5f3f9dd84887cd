// The two simplest hotword searches: naive (each state's peak, in order) and
// DTW (a banded monotone alignment over the last `span` frames).
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <sstream>

#include "detect/universal-detect-stream.h"
#include "utils/kestrel-globals.h"

namespace kestrel {

float UniversalDetectStream::HotwordNaiveSearch(int32 model_id, int32 hotword_id) const {
  const std::vector<int32>& keyword = keywords_[model_id][hotword_id];
  const std::vector<float>& floors = search_floor_[model_id][hotword_id];
  const bool check = !options_.no_order_check;
  // A listing of the peaks for inspection in a debugger. It is deliberately
  // never written out: at this rate (every hotword, every step) it would
  // drown every other message.
  const bool listing_on = global_kestrel_verbose_level > 3;
  std::ostringstream listing;
  if (listing_on) listing << "Universal Hotword posteriors: ";

  float log_sum = 0.0f;
  int previous = -1;
  for (size_t i = 0; i < keyword.size(); ++i) {
    const std::deque<float>& window = posterior_windows_[model_id][keyword[i]];
    if (window.empty()) return 0.0f;
    // Strictly greater, so the oldest of equal maxima wins.
    float peak = window[0];
    int position = 0;
    for (size_t t = 1; t < window.size(); ++t) {
      if (window[t] > peak) {
        peak = window[t];
        position = static_cast<int>(t);
      }
    }
    if (check && peak < floors[i]) return 0.0f;
    if (listing_on) listing << static_cast<double>(peak) << ", ";
    // Each state must peak strictly after the one before it.
    if (check && previous >= position) return 0.0f;
    // Floored at the smallest normal float to keep the logarithm finite.
    log_sum += std::log(std::max(peak, std::numeric_limits<float>::min()));
    previous = position;
  }
  return std::exp(log_sum / static_cast<float>(keyword.size()));
}

float UniversalDetectStream::HotwordDtwSearch(int32 model_id, int32 hotword_id) const {
  const std::vector<int32>& keyword = keywords_[model_id][hotword_id];
  const std::vector<int32>& mask = search_mask_[model_id][hotword_id];
  const std::vector<float>& floors = search_floor_[model_id][hotword_id];
  const std::vector<std::deque<float>>& windows = posterior_windows_[model_id];
  const size_t n = keyword.size();
  const int32 span = mask[n];
  // 64-bit bounds: masks and neighbourhoods come from model files and must
  // not overflow however large they are.
  const int64_t neighbour = search_neighbour_[model_id][hotword_id];
  const int64_t length = static_cast<int64_t>(windows[0].size());
  const int64_t start = std::max<int64_t>(0, length - span);

  std::vector<float> cost(n, 0.0f);
  std::vector<float> peak(n, 0.0f);
  for (int64_t t = start; t < length; ++t) {
    // Descending, so cost[j - 1] still holds the previous frame's value.
    for (size_t j = n; j-- > 0;) {
      float v = 0.0f;
      // Outside its band a state collects nothing but carries its cost on.
      if (start + mask[j] - neighbour <= t && t < start + mask[j + 1] + neighbour) {
        v = windows[keyword[j]][t];
        if (v > peak[j]) peak[j] = v;
      }
      cost[j] = j > 0 ? v + std::max(cost[j], cost[j - 1]) : cost[j] + v;
    }
  }
  for (size_t j = 0; j < n; ++j) {
    if (peak[j] < floors[j]) return 0.0f;
  }
  // The full span even while the window is younger, so young windows score low.
  return cost[n - 1] / static_cast<float>(span);
}

}  // namespace kestrel
