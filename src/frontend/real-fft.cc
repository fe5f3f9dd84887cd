#include "frontend/real-fft.h"

#include <cmath>

#include "utils/kestrel-log.h"

namespace kestrel {

RealFft::RealFft(int size) : size_(size) {
  if (size < 2 || (size & (size - 1)) != 0) {
    KESTREL_ERR("real-fft") << "RealFft: size " << size << " is not a power of two >= 2.";
  }
  const int half = size / 2;
  int bits = 0;
  while ((1 << bits) < half) ++bits;
  bit_reverse_.resize(half);
  for (int i = 0; i < half; ++i) {
    int reversed = 0;
    for (int b = 0; b < bits; ++b) {
      if (i & (1 << b)) reversed |= 1 << (bits - 1 - b);
    }
    bit_reverse_[i] = reversed;
  }
  twiddles_.resize(half);
  const double pi = std::acos(-1.0);
  for (int k = 0; k < half; ++k) {
    twiddles_[k] = std::polar(1.0, -2.0 * pi * k / size);
  }
  packed_.resize(half);
}

void RealFft::ComplexTransform(std::complex<double>* data) const {
  const int n = size_ / 2;
  for (int i = 0; i < n; ++i) {
    if (i < bit_reverse_[i]) std::swap(data[i], data[bit_reverse_[i]]);
  }
  for (int len = 2; len <= n; len <<= 1) {
    // exp(-2 pi i j / len) is twiddles_[j * size_ / len].
    const int step = size_ / len;
    const int half_len = len / 2;
    for (int start = 0; start < n; start += len) {
      for (int j = 0; j < half_len; ++j) {
        const std::complex<double> u = data[start + j];
        const std::complex<double> v = data[start + j + half_len] * twiddles_[j * step];
        data[start + j] = u + v;
        data[start + j + half_len] = u - v;
      }
    }
  }
}

void RealFft::PowerSpectrum(const double* signal, double* power) {
  // Transform the even samples as real parts and the odd ones as imaginary
  // parts in one half-size complex FFT, then separate the two spectra.
  const int half = size_ / 2;
  for (int i = 0; i < half; ++i) {
    packed_[i] = std::complex<double>(signal[2 * i], signal[2 * i + 1]);
  }
  ComplexTransform(packed_.data());
  const std::complex<double> minus_half_i(0.0, -0.5);
  for (int k = 0; k <= half; ++k) {
    const std::complex<double> z = packed_[k % half];
    const std::complex<double> z_mirror = std::conj(packed_[(half - k) % half]);
    const std::complex<double> even = 0.5 * (z + z_mirror);
    const std::complex<double> odd = minus_half_i * (z - z_mirror);
    const std::complex<double> twiddle = k < half ? twiddles_[k] : std::complex<double>(-1.0, 0.0);
    power[k] = std::norm(even + twiddle * odd);
  }
}

}  // namespace kestrel
