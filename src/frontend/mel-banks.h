// MelBanks: triangular filters that pool a power spectrum into mel bins.
//
// Bin centres are equally spaced on the HTK mel scale, mel(f) = 1127 ln(1 +
// f / 700), between `low_hz` and `high_hz`; each triangle rises from its left
// neighbour's centre to its own and falls to its right neighbour's, measured
// in mel (as Kaldi's filterbanks do). Immutable after construction; any thread
// may call Compute.
#ifndef KESTREL_FRONTEND_MEL_BANKS_H_
#define KESTREL_FRONTEND_MEL_BANKS_H_

#include <vector>

namespace kestrel {

class MelBanks {
 public:
  // Filters for a `fft_size`-point spectrum of audio at `sample_rate`.
  // Requires 0 <= low_hz < high_hz <= sample_rate / 2 and num_bins >= 1.
  MelBanks(int num_bins, double low_hz, double high_hz, int fft_size, int sample_rate);

  int NumBins() const { return static_cast<int>(filters_.size()); }

  // energies[j] = sum_k weight_j(k) * power[k], in single precision; `power`
  // holds fft_size/2 + 1 values, `energies` receives NumBins().
  void Compute(const float* power, float* energies) const;

 private:
  struct Filter {
    int first_index = 0;          // first spectrum bin with a nonzero weight
    std::vector<float> weights;  // weights of bins first_index, first_index + 1, ...
  };
  std::vector<Filter> filters_;
};

}  // namespace kestrel

#endif  // KESTREL_FRONTEND_MEL_BANKS_H_
