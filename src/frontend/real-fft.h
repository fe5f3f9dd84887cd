// RealFft: the power spectrum of a real signal whose length is a power of two.
//
// Single precision: the filterbank's log-mel features only need the power of
// each bin to a relative 1e-3 or so, and float keeps that even for bins far
// below a loud tone (filterbank-stream.h gives the measured error). The
// transform is a radix-2 Stockham FFT of the even samples (as real parts) and
// odd samples (as imaginary parts), at half the signal's length, followed by
// the split into the spectrum of the real signal. Each stage reads its own
// contiguous twiddle table, and real and imaginary parts live in separate
// arrays, so that every loop runs over consecutive floats and the compiler
// vectorises it.
//
// The instance holds its tables and scratch space: build one per user and use
// it from one thread at a time.
#ifndef KESTREL_FRONTEND_REAL_FFT_H_
#define KESTREL_FRONTEND_REAL_FFT_H_

#include <vector>

namespace kestrel {

class RealFft {
 public:
  // `size` must be a power of two, at least 2.
  explicit RealFft(int size);

  int Size() const { return size_; }

  // power[k] = |sum_n signal[n] exp(-2 pi i k n / size)|^2 for k = 0..size/2.
  // `signal` holds Size() values; `power` receives Size() / 2 + 1.
  void PowerSpectrum(const float* signal, float* power);

 private:
  // Complex transform of the size_ / 2 points in re_[0], im_[0]; returns the
  // index (0 or 1) of the buffers that hold the result, in natural order.
  int ComplexTransform();

  int size_;
  // Stage by stage, for sub-transforms of length L = size_ / 2, size_ / 4,
  // ..., 2: exp(-2 pi i p / L) for p < L / 2, as real and imaginary parts.
  std::vector<float> stage_cos_, stage_sin_;
  // exp(-2 pi i k / size_) for k < size_ / 2, for the split.
  std::vector<float> split_cos_, split_sin_;
  // Two pairs of size_ / 2 values: a Stockham stage reads one, writes the other.
  std::vector<float> re_[2], im_[2];
};

}  // namespace kestrel

#endif  // KESTREL_FRONTEND_REAL_FFT_H_
