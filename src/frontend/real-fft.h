// RealFft: the power spectrum of a real signal whose length is a power of two.
//
// A radix-2 transform computed in double precision, so that the low-energy
// bins of a windowed frame keep their accuracy next to a loud tone. The
// instance holds its twiddle factors and scratch space: build one per user and
// use it from one thread at a time.
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
  void PowerSpectrum(const double* signal, double* power);

 private:
  // In-place complex transform of the size_ / 2 points in re_, im_.
  void ComplexTransform();

  int size_;
  std::vector<int> bit_reverse_;  // permutation of size_ / 2 points
  // exp(-2 pi i k / size_) for k < size_ / 2, as real and imaginary parts.
  std::vector<double> cos_, sin_;
  // Scratch: the even samples as real parts, the odd ones as imaginary
  // parts. Kept as two arrays: with interleaved std::complex values the
  // compiler's scalar stores and vector loads stall each other.
  std::vector<double> re_, im_;
};

}  // namespace kestrel

#endif  // KESTREL_FRONTEND_REAL_FFT_H_
