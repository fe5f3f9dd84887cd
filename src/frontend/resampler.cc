#include "frontend/resampler.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

#include "utils/kestrel-log.h"

namespace kestrel {

namespace {

constexpr double kStopbandDb = 80.0;
// Band edges as fractions of the lower rate's Nyquist frequency (see header).
constexpr double kPassEdge = 0.9;
constexpr double kStopEdge = 1.05;
// Beyond this many distinct phases the table is interpolated instead.
constexpr int64 kMaxTablePhases = 1024;

// The zeroth-order modified Bessel function of the first kind (its series).
double BesselI0(double x) {
  double sum = 1.0, term = 1.0;
  for (int k = 1; k < 50 && term > 1e-12 * sum; ++k) {
    term *= (x / (2.0 * k)) * (x / (2.0 * k));
    sum += term;
  }
  return sum;
}

}  // namespace

Resampler::Resampler(int input_rate, int output_rate)
    : input_rate_(input_rate), output_rate_(output_rate), pass_through_(input_rate == output_rate) {
  for (int rate : {input_rate, output_rate}) {
    if (rate < kMinRate || rate > kMaxRate) {
      KESTREL_ERR("resampler") << "Resampler: sample rate " << rate << " Hz is outside "
                               << kMinRate << " to " << kMaxRate << " Hz.";
    }
  }
  if (!pass_through_) {
    const int64 common = std::gcd(input_rate, output_rate);
    step_ = input_rate / common;
    phases_ = output_rate / common;
    const double pi = std::acos(-1.0);
    const double nyquist = 0.5 * std::min(input_rate, output_rate);
    const double cutoff = 0.5 * (kPassEdge + kStopEdge) * nyquist;
    const double width = (kStopEdge - kPassEdge) * nyquist;
    // Kaiser's formulas for the window's shape and the filter's length.
    const double beta = 0.1102 * (kStopbandDb - 8.7);
    const double taps = (kStopbandDb - 8.0) / (2.285 * 2.0 * pi * width / input_rate);
    half_taps_ = static_cast<int>(std::ceil(taps / 2.0));
    table_phases_ = static_cast<int>(std::min(phases_, kMaxTablePhases));

    const int row_taps = 2 * half_taps_;
    const double scale = 2.0 * cutoff / input_rate;  // the cutoff in input cycles per sample, x2
    table_.resize(static_cast<size_t>(table_phases_ + 1) * row_taps);
    for (int r = 0; r <= table_phases_; ++r) {
      float* row = &table_[static_cast<size_t>(r) * row_taps];
      double sum = 0.0;
      std::vector<double> values(row_taps);
      for (int j = 0; j < row_taps; ++j) {
        const double t = static_cast<double>(r) / table_phases_ - (j - half_taps_ + 1);
        const double x = pi * scale * t;
        const double sinc = x == 0.0 ? 1.0 : std::sin(x) / x;
        const double edge = t / half_taps_;
        const double window =
            std::fabs(edge) >= 1.0 ? 0.0 : BesselI0(beta * std::sqrt(1.0 - edge * edge)) / BesselI0(beta);
        values[j] = scale * sinc * window;
        sum += values[j];
      }
      // Each phase passes a constant exactly, so no phase ripples at DC.
      for (int j = 0; j < row_taps; ++j) row[j] = static_cast<float>(values[j] / sum);
    }
  }
  Reset();
}

void Resampler::Reset() {
  buffer_.assign(pass_through_ ? 0 : static_cast<size_t>(half_taps_ - 1), 0.0f);
  buffer_start_ = -static_cast<int64>(buffer_.size());
  input_count_ = 0;
  next_whole_ = 0;
  next_phase_ = 0;
  output_count_ = 0;
}

void Resampler::Process(const float* input, size_t n, std::vector<float>* output) {
  if (pass_through_) {
    output->insert(output->end(), input, input + n);
    return;
  }
  buffer_.insert(buffer_.end(), input, input + n);
  input_count_ += static_cast<int64>(n);
  Produce(std::numeric_limits<int64>::max(), output);
}

void Resampler::Flush(std::vector<float>* output) {
  if (!pass_through_) {
    // Enough silence for the filter of the last output that the input spans.
    buffer_.insert(buffer_.end(), static_cast<size_t>(half_taps_), 0.0f);
    Produce((input_count_ * phases_ + step_ - 1) / step_, output);
  }
  Reset();
}

void Resampler::Produce(int64 limit, std::vector<float>* output) {
  const int64 buffer_end = buffer_start_ + static_cast<int64>(buffer_.size());
  while (output_count_ < limit && next_whole_ + half_taps_ < buffer_end) {
    const size_t first = static_cast<size_t>(next_whole_ - half_taps_ + 1 - buffer_start_);
    float y;
    if (table_phases_ == phases_) {
      y = Dot(static_cast<size_t>(next_phase_), first);
    } else {
      const int64 position = next_phase_ * table_phases_;
      const size_t row = static_cast<size_t>(position / phases_);
      const float weight = static_cast<float>(position % phases_) / static_cast<float>(phases_);
      const float below = Dot(row, first);
      y = below + weight * (Dot(row + 1, first) - below);
    }
    output->push_back(y);
    ++output_count_;
    next_phase_ += step_;
    next_whole_ += next_phase_ / phases_;
    next_phase_ %= phases_;
  }
  // Drop input no later output reaches, once it is most of the buffer, so
  // the buffer stays near one filter length without moving it every call.
  const int64 unneeded = next_whole_ - half_taps_ + 1 - buffer_start_;
  if (unneeded > 0 && static_cast<size_t>(unneeded) > buffer_.size() / 2) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + unneeded);
    buffer_start_ += unneeded;
  }
}

float Resampler::Dot(size_t row, size_t first) const {
  const size_t taps = 2 * static_cast<size_t>(half_taps_);
  const float* h = &table_[row * taps];
  const float* x = &buffer_[first];
  // Four running sums: independent chains the compiler can overlap.
  float sum[4] = {0.0f, 0.0f, 0.0f, 0.0f};
  size_t j = 0;
  for (; j + 4 <= taps; j += 4) {
    for (int lane = 0; lane < 4; ++lane) sum[lane] += h[j + lane] * x[j + lane];
  }
  for (; j < taps; ++j) sum[0] += h[j] * x[j];
  return (sum[0] + sum[1]) + (sum[2] + sum[3]);
}

}  // namespace kestrel
