#include "frontend/mel-banks.h"

#include <cmath>

#include "utils/kestrel-log.h"

namespace kestrel {

namespace {

double MelScale(double hz) { return 1127.0 * std::log(1.0 + hz / 700.0); }

}  // namespace

MelBanks::MelBanks(int num_bins, double low_hz, double high_hz, int fft_size,
                   int sample_rate) {
  if (num_bins < 1 || low_hz < 0.0 || low_hz >= high_hz || high_hz > sample_rate / 2.0) {
    KESTREL_ERR("mel-banks") << "MelBanks: cannot place " << num_bins << " bins between "
                             << low_hz << " and " << high_hz << " Hz at " << sample_rate
                             << " Hz.";
  }
  const double low_mel = MelScale(low_hz);
  const double mel_step = (MelScale(high_hz) - low_mel) / (num_bins + 1);
  const int num_spectrum_bins = fft_size / 2 + 1;
  const double hz_per_bin = static_cast<double>(sample_rate) / fft_size;

  filters_.resize(num_bins);
  for (int j = 0; j < num_bins; ++j) {
    const double left = low_mel + j * mel_step;
    const double centre = left + mel_step;
    const double right = centre + mel_step;
    Filter& filter = filters_[j];
    for (int k = 0; k < num_spectrum_bins; ++k) {
      const double mel = MelScale(k * hz_per_bin);
      if (mel <= left || mel >= right) continue;
      const double weight =
          mel <= centre ? (mel - left) / (centre - left) : (right - mel) / (right - centre);
      if (filter.weights.empty()) filter.first_index = k;
      filter.weights.push_back(static_cast<float>(weight));
    }
  }
}

void MelBanks::Compute(const float* power, float* energies) const {
  for (size_t j = 0; j < filters_.size(); ++j) {
    const Filter& filter = filters_[j];
    const float* bins = power + filter.first_index;
    float sum = 0.0f;
    for (size_t k = 0; k < filter.weights.size(); ++k) sum += filter.weights[k] * bins[k];
    energies[j] = sum;
  }
}

}  // namespace kestrel
