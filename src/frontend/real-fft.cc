#include "frontend/real-fft.h"

#include <cmath>
#include <utility>

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
  cos_.resize(half);
  sin_.resize(half);
  const double pi = std::acos(-1.0);
  for (int k = 0; k < half; ++k) {
    cos_[k] = std::cos(2.0 * pi * k / size);
    sin_[k] = -std::sin(2.0 * pi * k / size);
  }
  re_.resize(half);
  im_.resize(half);
}

void RealFft::ComplexTransform() {
  const int n = size_ / 2;
  double* re = re_.data();
  double* im = im_.data();
  for (int i = 0; i < n; ++i) {
    const int j = bit_reverse_[i];
    if (i < j) {
      std::swap(re[i], re[j]);
      std::swap(im[i], im[j]);
    }
  }
  for (int len = 2; len <= n; len <<= 1) {
    // exp(-2 pi i j / len) is entry j * size_ / len of the tables.
    const int step = size_ / len;
    const int half_len = len / 2;
    for (int start = 0; start < n; start += len) {
      for (int j = 0; j < half_len; ++j) {
        const int a = start + j;
        const int b = a + half_len;
        const double wr = cos_[j * step], wi = sin_[j * step];
        const double vr = re[b] * wr - im[b] * wi;
        const double vi = re[b] * wi + im[b] * wr;
        re[b] = re[a] - vr;
        im[b] = im[a] - vi;
        re[a] += vr;
        im[a] += vi;
      }
    }
  }
}

void RealFft::PowerSpectrum(const double* signal, double* power) {
  // Transform the even samples as real parts and the odd ones as imaginary
  // parts in one half-size complex FFT, then separate the two spectra:
  // with Z the packed transform and Z*[k] = conj(Z[half - k]),
  // X[k] = (Z[k] + Z*[k]) / 2 - i/2 (Z[k] - Z*[k]) exp(-2 pi i k / size).
  const int half = size_ / 2;
  for (int i = 0; i < half; ++i) {
    re_[i] = signal[2 * i];
    im_[i] = signal[2 * i + 1];
  }
  ComplexTransform();
  for (int k = 0; k <= half; ++k) {
    const int a = k % half, b = (half - k) % half;
    const double even_re = 0.5 * (re_[a] + re_[b]);
    const double even_im = 0.5 * (im_[a] - im_[b]);
    const double odd_re = 0.5 * (im_[a] + im_[b]);
    const double odd_im = -0.5 * (re_[a] - re_[b]);
    const double wr = k < half ? cos_[k] : -1.0;
    const double wi = k < half ? sin_[k] : 0.0;
    const double x_re = even_re + odd_re * wr - odd_im * wi;
    const double x_im = even_im + odd_re * wi + odd_im * wr;
    power[k] = x_re * x_re + x_im * x_im;
  }
}

}  // namespace kestrel
