#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <vector>

#include "frontend/filterbank-stream.h"
#include "frontend/pcm-source-stream.h"
#include "test-audio.h"

namespace kestrel {
namespace {

// The features written out the slow, obvious way: a direct DFT and mel
// weights evaluated per bin, all in double precision.
std::vector<std::vector<double>> ReferenceFeatures(const std::vector<int16_t>& audio) {
  const double pi = std::acos(-1.0);
  auto mel = [](double hz) { return 1127.0 * std::log(1.0 + hz / 700.0); };
  const double low = mel(20.0), step = (mel(7600.0) - low) / 41.0;
  std::vector<std::vector<double>> features;
  for (size_t start = 0; start + 400 <= audio.size(); start += 160) {
    std::vector<double> x(audio.begin() + start, audio.begin() + start + 400);
    double mean = 0.0;
    for (double v : x) mean += v / 400.0;
    std::vector<double> y(400);
    for (int i = 0; i < 400; ++i) {
      y[i] = (x[i] - mean) - 0.97 * (i > 0 ? x[i - 1] - mean : x[0] - mean);
      y[i] *= 0.54 - 0.46 * std::cos(2.0 * pi * i / 399.0);
    }
    std::vector<double> row(40, 0.0);
    for (int k = 0; k <= 256; ++k) {
      std::complex<double> bin = 0.0;
      for (int n = 0; n < 400; ++n) bin += y[n] * std::polar(1.0, -2.0 * pi * k * n / 512.0);
      const double m = mel(k * 16000.0 / 512.0);
      for (int j = 0; j < 40; ++j) {
        const double left = low + j * step, centre = left + step, right = centre + step;
        if (m > left && m < right) {
          row[j] += std::norm(bin) * (m <= centre ? (m - left) / step : (right - m) / step);
        }
      }
    }
    for (double& e : row) e = std::log(std::max(e, 1e-10));
    features.push_back(row);
  }
  return features;
}

struct Output {
  std::vector<std::vector<float>> rows;
  std::vector<int32> ids;
};

// One Read of the filterbank, appended to `out`; returns the signal word.
int ReadInto(FilterbankStream* filterbank, Output* out) {
  Matrix data;
  std::vector<FrameInfo> info;
  const int signal = filterbank->Read(&data, &info);
  EXPECT_EQ(static_cast<size_t>(data.NumRows()), info.size());
  for (int r = 0; r < data.NumRows(); ++r) {
    out->rows.emplace_back(data.RowData(r), data.RowData(r) + data.NumCols());
    out->ids.push_back(info[r].frame_id);
  }
  return signal;
}

// A source feeding a filterbank.
struct Chain {
  explicit Chain(int block = PcmSourceStream::kDefaultBlockSamples) : source(block) {
    filterbank.Connect(&source);
  }
  PcmSourceStream source;
  FilterbankStream filterbank;
};

std::vector<int16_t> TestAudio() {
  std::vector<int16_t> audio = Noise(16000, 2000, 7);
  for (auto& s : audio) s = static_cast<int16_t>(s + 300);  // a DC offset to remove
  AddTone(&audio, 440.0, 8000, 0, 8000);
  AddTone(&audio, 3000.0, 8000, 6000, 10000);
  return audio;
}

// Noise with tones, and a full-scale tone over nothing but 16-bit rounding,
// whose quietest bins lie 65 dB below its loudest: single precision has to
// hold them too.
TEST(FilterbankTest, MatchesStraightforwardComputation) {
  std::vector<int16_t> loud_tone(4000, 0);
  AddTone(&loud_tone, 7000.0, 32000, 0, loud_tone.size());
  for (const std::vector<int16_t>& audio : {TestAudio(), loud_tone}) {
    Chain chain;
    chain.source.Push(audio.data(), audio.size());
    chain.source.MarkEnd();
    Output out;
    while (!(ReadInto(&chain.filterbank, &out) & kSignalFlush)) {
    }
    const auto expected = ReferenceFeatures(audio);
    ASSERT_EQ((audio.size() - 240) / 160, out.rows.size());
    ASSERT_EQ(expected.size(), out.rows.size());
    for (size_t t = 0; t < expected.size(); ++t) {
      EXPECT_EQ(static_cast<int32>(t), out.ids[t]);
      for (int j = 0; j < 40; ++j) {
        ASSERT_NEAR(expected[t][j], out.rows[t][j], 1e-3) << t << " " << j;
      }
    }
  }
}

TEST(FilterbankTest, OutputDoesNotDependOnChunking) {
  const std::vector<int16_t> audio = TestAudio();
  Output whole, trickled;
  Chain one_call(audio.size()), one_sample;
  one_call.source.Push(audio.data(), audio.size());
  ReadInto(&one_call.filterbank, &whole);
  for (int16_t s : audio) {
    one_sample.source.Push(&s, 1);
    ReadInto(&one_sample.filterbank, &trickled);
  }
  EXPECT_EQ(whole.ids, trickled.ids);
  EXPECT_EQ(whole.rows, trickled.rows);  // bit-identical
}

TEST(FilterbankTest, FlushAndResetDropThePartialFrameButFrameIdsRunOn) {
  const std::vector<int16_t> audio = TestAudio();
  Chain chain;
  PcmSourceStream& source = chain.source;
  FilterbankStream& filterbank = chain.filterbank;
  source.Push(audio.data(), 1000);  // four frames and 120 spare samples
  source.MarkEnd();
  Output out;
  EXPECT_EQ(kSignalFlush, ReadInto(&filterbank, &out));
  EXPECT_EQ((std::vector<int32>{0, 1, 2, 3}), out.ids);
  EXPECT_EQ(kSignalEnd, ReadInto(&filterbank, &out));
  EXPECT_EQ(4u, out.rows.size());

  // The spare samples are gone: the next frame is built from new audio alone.
  source.Reset();
  source.Push(audio.data() + 5000, 400);
  Output next;
  ReadInto(&filterbank, &next);
  ASSERT_EQ(1u, next.rows.size());
  EXPECT_EQ(4, next.ids[0]);
  const auto expected = ReferenceFeatures({audio.begin() + 5000, audio.begin() + 5400});
  EXPECT_NEAR(expected[0][5], next.rows[0][5], 1e-3);

  source.Push(audio.data(), 100);  // with the 240 left over, still short of a frame
  ReadInto(&filterbank, &next);
  ASSERT_EQ(1u, next.rows.size());
  filterbank.Reset();
  source.Push(audio.data() + 5000, 400);
  Output restarted;
  ReadInto(&filterbank, &restarted);
  ASSERT_EQ(std::vector<int32>{5}, restarted.ids);
  EXPECT_EQ(next.rows[0], restarted.rows[0]);
  EXPECT_EQ(6, filterbank.NextFrameId());
}

}  // namespace
}  // namespace kestrel
