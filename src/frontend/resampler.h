// Resampler: converts a stream of mono audio from one sample rate to another
// (here: a device's or a file's rate to the front end's 16 kHz).
//
// A band-limited interpolator: each output sample is the input convolved with
// a Kaiser-windowed sinc (80 dB stopband) centred on the output sample's
// time, read from a table of filter phases (one per distinct phase when the
// rates' ratio has a small enough denominator, otherwise 1024 phases with
// linear interpolation between them). The passband ends at 0.9 and the
// stopband starts at 1.05 times the lower rate's Nyquist frequency; into
// 16 kHz that is 7.2 and 8.4 kHz, so whatever could alias lands above the
// 7.6 kHz the filterbank looks at. Equal rates pass samples through
// unchanged.
//
// Output sample k stands for input time k * input_rate / output_rate exactly
// (the filter is symmetric, so no delay is added); it is produced once the
// input reaches past that time by half the filter's length. The output
// depends only on the input, not on how it was split into calls. Flush ends
// the stream as if silence followed it, so a stream of n input samples gives
// ceil(n * output_rate / input_rate) output samples in all.
//
// Samples are floats on any scale. Memory is the filter table plus about one
// filter length of input. One thread at a time.
#ifndef KESTREL_FRONTEND_RESAMPLER_H_
#define KESTREL_FRONTEND_RESAMPLER_H_

#include <cstddef>
#include <vector>

#include "utils/kestrel-types.h"
#include "utils/kestrel-export.h"

KESTREL_PUBLIC_BEGIN

namespace kestrel {

class Resampler {
 public:
  // The rates taken, in Hz.
  static constexpr int kMinRate = 8000;
  static constexpr int kMaxRate = 48000;

  // Throws KestrelError for a rate outside [kMinRate, kMaxRate].
  Resampler(int input_rate, int output_rate);

  int InputRate() const { return input_rate_; }
  int OutputRate() const { return output_rate_; }

  // Appends to `output` every output sample that the input so far determines.
  void Process(const float* input, size_t n, std::vector<float>* output);
  // Appends the rest of the output (the input followed by silence), then
  // Resets.
  void Flush(std::vector<float>* output);
  // Forgets the stream; the next sample starts a new one.
  void Reset();

 private:
  // Output samples whose filter lies within the buffered input, up to a
  // total of `limit`.
  void Produce(int64 limit, std::vector<float>* output);
  // Filter phase `row` applied to the input starting at buffer_[first].
  float Dot(size_t row, size_t first) const;

  int input_rate_;
  int output_rate_;
  bool pass_through_;
  // Output sample k is at input time k * step_ / phases_ (reduced ratio).
  int64 step_ = 1;
  int64 phases_ = 1;
  int half_taps_ = 0;  // input samples on each side of an output's time
  int table_phases_ = 0;  // rows of the table, less the closing one
  // Row r (0..table_phases_), tap j: the filter at offset
  // r / table_phases_ - (j - half_taps_ + 1) input samples.
  std::vector<float> table_;
  // Input samples from absolute index buffer_start_ on; index < 0 is the
  // silence before the stream.
  std::vector<float> buffer_;
  int64 buffer_start_ = 0;
  int64 input_count_ = 0;  // input samples since the stream began
  // The next output's time: whole input samples and phases_-ths.
  int64 next_whole_ = 0;
  int64 next_phase_ = 0;
  int64 output_count_ = 0;
};

}  // namespace kestrel

KESTREL_PUBLIC_END

#endif  // KESTREL_FRONTEND_RESAMPLER_H_
