#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "frontend/resampler.h"
#include "test-log-capture.h"

namespace kestrel {
namespace {

const double kPi = std::acos(-1.0);

std::vector<float> Sine(double hz, int rate, double seconds) {
  std::vector<float> x(static_cast<size_t>(seconds * rate));
  for (size_t i = 0; i < x.size(); ++i) x[i] = static_cast<float>(std::sin(2 * kPi * hz * i / rate));
  return x;
}

std::vector<float> ResampleAll(Resampler* resampler, const std::vector<float>& x) {
  std::vector<float> y;
  resampler->Process(x.data(), x.size(), &y);
  resampler->Flush(&y);
  return y;
}

// Level of the middle half of `y` relative to a unit sine, in dB.
double LevelDb(const std::vector<float>& y) {
  double sum = 0.0;
  const size_t begin = y.size() / 4, end = 3 * y.size() / 4;
  for (size_t i = begin; i < end; ++i) sum += static_cast<double>(y[i]) * y[i];
  return 10.0 * std::log10(sum / (end - begin) / 0.5 + 1e-30);
}

// Level of what is left of the middle half of `y` (at 16 kHz) once its
// component at `hz` is taken out, relative to a unit sine, in dB.
double ResidualDb(const std::vector<float>& y, double hz) {
  const size_t begin = y.size() / 4, end = 3 * y.size() / 4;
  double ss = 0, sc = 0, cc = 0, ys = 0, yc = 0;
  for (size_t i = begin; i < end; ++i) {
    const double s = std::sin(2 * kPi * hz * i / 16000), c = std::cos(2 * kPi * hz * i / 16000);
    ss += s * s, sc += s * c, cc += c * c, ys += y[i] * s, yc += y[i] * c;
  }
  const double det = ss * cc - sc * sc;
  const double a = (ys * cc - yc * sc) / det, b = (yc * ss - ys * sc) / det;
  std::vector<float> rest(y.begin() + begin, y.begin() + end);
  for (size_t i = begin; i < end; ++i) {
    rest[i - begin] -= static_cast<float>(a * std::sin(2 * kPi * hz * i / 16000) +
                                          b * std::cos(2 * kPi * hz * i / 16000));
  }
  return LevelDb(rest);
}

// The rates a microphone or file commonly has, one without a small ratio to
// 16 kHz (interpolated phases) and one below 16 kHz.
const int kRates[] = {8000, 22050, 32000, 44100, 48000, 47999};

TEST(ResamplerTest, PassesThroughAtEqualRatesAndTakesOnlyRatesItCovers) {
  Resampler same(16000, 16000);
  const std::vector<float> x = {0.5f, -1.0f, 3.0f, 1e-9f};
  std::vector<float> y;
  same.Process(x.data(), 2, &y);
  same.Process(x.data() + 2, 2, &y);
  same.Flush(&y);
  EXPECT_EQ(x, y);
  EXPECT_EQ("Resampler: sample rate 7999 Hz is outside 8000 to 48000 Hz.",
            KESTREL_ERROR_TEXT(Resampler bad(7999, 16000)));
  EXPECT_EQ("Resampler: sample rate 96000 Hz is outside 8000 to 48000 Hz.",
            KESTREL_ERROR_TEXT(Resampler bad(16000, 96000)));
}

TEST(ResamplerTest, OutputDoesNotDependOnChunkingAndSpansTheInput) {
  for (int rate : kRates) {
    const std::vector<float> x = Sine(440.0, rate, 0.25);
    Resampler whole(rate, 16000), single(rate, 16000);
    const std::vector<float> expected = ResampleAll(&whole, x);
    EXPECT_EQ((x.size() * 16000 + rate - 1) / rate, expected.size()) << rate;
    std::vector<float> y;
    for (float v : x) single.Process(&v, 1, &y);
    single.Flush(&y);
    EXPECT_EQ(expected, y) << rate;
    // Flush started a new stream.
    EXPECT_EQ(expected, ResampleAll(&single, x)) << rate;
  }
}

TEST(ResamplerTest, KeepsThePassbandAndStopsWhatWouldAlias) {
  for (int rate : kRates) {
    const int low_nyquist = std::min(rate, 16000) / 2;
    double worst_pass = 0.0, worst_alias = -200.0;
    for (double hz = 100.0; hz <= 0.9 * low_nyquist; hz += 0.9 * low_nyquist / 16) {
      Resampler resampler(rate, 16000);
      worst_pass = std::max(worst_pass, std::fabs(LevelDb(ResampleAll(&resampler, Sine(hz, rate, 0.2)))));
    }
    // Downsampling: tones above 1.05 times the new Nyquist frequency must
    // go. Upsampling: the images of tones up to 0.95 times the old one.
    const double from = rate > 16000 ? 1.05 * 8000.0 : 0.5 * low_nyquist;
    const double to = rate > 16000 ? rate / 2.0 : 0.95 * low_nyquist;
    for (double hz = from; hz < to; hz += 500.0) {
      Resampler resampler(rate, 16000);
      const std::vector<float> y = ResampleAll(&resampler, Sine(hz, rate, 0.2));
      worst_alias = std::max(worst_alias, rate > 16000 ? LevelDb(y) : ResidualDb(y, hz));
    }
    std::printf("%5d Hz: passband within %.4f dB, aliases and images at most %.1f dB\n", rate, worst_pass,
                worst_alias);
    EXPECT_LT(worst_pass, 0.01) << rate;
    EXPECT_LT(worst_alias, -75.0) << rate;
  }
}

}  // namespace
}  // namespace kestrel
