#include "frontend/real-fft.h"

#include <cmath>

#include "utils/kestrel-log.h"

namespace kestrel {

namespace {

// Radix-2 decimation-in-frequency Stockham stages. The input holds `s`
// interleaved sequences of length 2m (element p of sequence q at q + s p);
// the output holds 2s interleaved ones of length m, sequence q + s e being
// the one whose transform gives the even (e = 0) or odd (e = 1) outputs of
// input sequence q. w: the stage's twiddles exp(-2 pi i p / 2m), p < m.

// Butterflies the compiler turns into one vector operation.
constexpr int kLanes = 4;

// The first stages, with fewer than kLanes sequences: vectorised along p.
template <int S>
void NarrowStage(const float* __restrict__ xr, const float* __restrict__ xi,
                 float* __restrict__ yr, float* __restrict__ yi, int m,
                 const float* __restrict__ wr, const float* __restrict__ wi) {
  for (int p = 0; p < m; ++p) {
    for (int q = 0; q < S; ++q) {
      const float ar = xr[q + S * p], ai = xi[q + S * p];
      const float br = xr[q + S * (p + m)], bi = xi[q + S * (p + m)];
      const float dr = ar - br, di = ai - bi;
      yr[q + 2 * S * p] = ar + br;
      yi[q + 2 * S * p] = ai + bi;
      yr[q + 2 * S * p + S] = dr * wr[p] - di * wi[p];
      yi[q + 2 * S * p + S] = dr * wi[p] + di * wr[p];
    }
  }
}

// The later stages, s a multiple of kLanes: vectorised along q, kLanes at a
// time, with one twiddle per p.
void WideStage(const float* __restrict__ xr, const float* __restrict__ xi,
               float* __restrict__ yr, float* __restrict__ yi, int m, int s,
               const float* __restrict__ wr, const float* __restrict__ wi) {
  for (int p = 0; p < m; ++p) {
    const float c = wr[p], d = wi[p];
    for (int q = 0; q < s; q += kLanes) {
      const int a = q + s * p, b = a + s * m, sum = q + 2 * s * p, diff = sum + s;
      for (int l = 0; l < kLanes; ++l) {
        const float ur = xr[a + l] - xr[b + l], ui = xi[a + l] - xi[b + l];
        yr[sum + l] = xr[a + l] + xr[b + l];
        yi[sum + l] = xi[a + l] + xi[b + l];
        yr[diff + l] = ur * c - ui * d;
        yi[diff + l] = ur * d + ui * c;
      }
    }
  }
}

}  // namespace

RealFft::RealFft(int size) : size_(size) {
  if (size < 2 || (size & (size - 1)) != 0) {
    KESTREL_ERR("real-fft") << "RealFft: size " << size << " is not a power of two >= 2.";
  }
  const int half = size / 2;
  const double pi = std::acos(-1.0);
  for (int length = half; length >= 2; length /= 2) {
    for (int p = 0; p < length / 2; ++p) {
      stage_cos_.push_back(static_cast<float>(std::cos(2.0 * pi * p / length)));
      stage_sin_.push_back(static_cast<float>(-std::sin(2.0 * pi * p / length)));
    }
  }
  split_cos_.resize(half);
  split_sin_.resize(half);
  for (int k = 0; k < half; ++k) {
    split_cos_[k] = static_cast<float>(std::cos(2.0 * pi * k / size));
    split_sin_[k] = static_cast<float>(-std::sin(2.0 * pi * k / size));
  }
  for (int b = 0; b < 2; ++b) {
    re_[b].resize(half);
    im_[b].resize(half);
  }
}

int RealFft::ComplexTransform() {
  const int n = size_ / 2;
  int from = 0;
  size_t twiddles = 0;
  for (int m = n / 2, s = 1; m >= 1; m /= 2, s *= 2) {
    const float* xr = re_[from].data();
    const float* xi = im_[from].data();
    float* yr = re_[1 - from].data();
    float* yi = im_[1 - from].data();
    const float* wr = stage_cos_.data() + twiddles;
    const float* wi = stage_sin_.data() + twiddles;
    if (s == 1) {
      NarrowStage<1>(xr, xi, yr, yi, m, wr, wi);
    } else if (s == 2) {
      NarrowStage<2>(xr, xi, yr, yi, m, wr, wi);
    } else {
      static_assert(kLanes == 4, "the stages above must cover every s below kLanes");
      WideStage(xr, xi, yr, yi, m, s, wr, wi);
    }
    twiddles += m;
    from = 1 - from;
  }
  return from;
}

void RealFft::PowerSpectrum(const float* signal, float* power) {
  // Transform the even samples as real parts and the odd ones as imaginary
  // parts in one half-size complex FFT, then separate the two spectra:
  // with Z the packed transform and Z*[k] = conj(Z[half - k]),
  // X[k] = (Z[k] + Z*[k]) / 2 - i/2 (Z[k] - Z*[k]) exp(-2 pi i k / size).
  const int half = size_ / 2;
  float* __restrict__ in_re = re_[0].data();
  float* __restrict__ in_im = im_[0].data();
  for (int i = 0; i < half; ++i) {
    in_re[i] = signal[2 * i];
    in_im[i] = signal[2 * i + 1];
  }
  const int out = ComplexTransform();
  const float* __restrict__ re = re_[out].data();
  const float* __restrict__ im = im_[out].data();
  // Bins 0 and half pair Z[0] with itself; the twiddle there is 1 and -1.
  power[0] = (re[0] + im[0]) * (re[0] + im[0]);
  power[half] = (re[0] - im[0]) * (re[0] - im[0]);
  const float* __restrict__ wr = split_cos_.data();
  const float* __restrict__ wi = split_sin_.data();
  for (int k = 1; k < half; ++k) {
    const int b = half - k;
    const float even_re = 0.5f * (re[k] + re[b]);
    const float even_im = 0.5f * (im[k] - im[b]);
    const float odd_re = 0.5f * (im[k] + im[b]);
    const float odd_im = -0.5f * (re[k] - re[b]);
    const float x_re = even_re + odd_re * wr[k] - odd_im * wi[k];
    const float x_im = even_im + odd_re * wi[k] + odd_im * wr[k];
    power[k] = x_re * x_re + x_im * x_im;
  }
}

}  // namespace kestrel
