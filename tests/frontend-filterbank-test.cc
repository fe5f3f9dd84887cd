// The front end: WAV files, the audio sources at the head of the pipeline,
// and the filterbank against a straightforward computation.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "frontend/filterbank-stream.h"
#include "frontend/pcm-source-stream.h"
#include "frontend/resampler.h"
#include "frontend/wave-reader.h"
#include "frontend/wave-source-stream.h"
#include "nnet-test-util.h"
#include "test-audio.h"
#include "test-log-capture.h"

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

// One Read of the filterbank, appended to `out`; returns the signal word.
int ReadInto(FilterbankStream* filterbank, Outputs* out) {
  Matrix data;
  std::vector<FrameInfo> info;
  const int signal = filterbank->Read(&data, &info);
  out->Append(data, info);
  return signal;
}

// A source feeding a filterbank.
struct Chain {
  Chain() { filterbank.Connect(&source); }
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
// hold them too. Fed one sample at a time, the output is bit-identical.
TEST(FilterbankTest, MatchesStraightforwardComputationHoweverChunked) {
  std::vector<int16_t> loud_tone(4000, 0);
  AddTone(&loud_tone, 7000.0, 32000, 0, loud_tone.size());
  for (const std::vector<int16_t>& audio : {TestAudio(), loud_tone}) {
    Chain chain, one_sample;
    chain.source.Push(audio.data(), audio.size());
    chain.source.MarkEnd();
    Outputs out, trickled;
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
    for (int16_t s : audio) {
      one_sample.source.Push(&s, 1);
      ReadInto(&one_sample.filterbank, &trickled);
    }
    EXPECT_EQ(out.ids, trickled.ids);
    EXPECT_EQ(out.rows, trickled.rows);
  }
}

TEST(FilterbankTest, FlushAndResetDropThePartialFrameButFrameIdsRunOn) {
  const std::vector<int16_t> audio = TestAudio();
  Chain chain;
  PcmSourceStream& source = chain.source;
  FilterbankStream& filterbank = chain.filterbank;
  source.Push(audio.data(), 1000);  // four frames and 120 spare samples
  source.MarkEnd();
  Outputs out;
  EXPECT_EQ(kSignalFlush, ReadInto(&filterbank, &out));
  EXPECT_EQ((std::vector<int32>{0, 1, 2, 3}), out.ids);
  EXPECT_EQ(kSignalEnd, ReadInto(&filterbank, &out));
  EXPECT_EQ(4u, out.rows.size());

  // The spare samples are gone: the next frame is built from new audio alone.
  source.Reset();
  source.Push(audio.data() + 5000, 400);
  Outputs next;
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
  Outputs restarted;
  ReadInto(&filterbank, &restarted);
  ASSERT_EQ(std::vector<int32>{5}, restarted.ids);
  EXPECT_EQ(next.rows[0], restarted.rows[0]);
  EXPECT_EQ(6, filterbank.NextFrameId());
}

std::vector<int16_t> ReadBytesAsWave(const std::string& bytes) {
  const std::string path = TempPath("wave-test.wav");
  WriteBytes(path, bytes);
  return ReadWaveFile(path);
}

// The error text for a file holding `bytes`, with the path replaced by "F".
std::string ErrorFor(const std::string& bytes) {
  std::string text = KESTREL_ERROR_TEXT(ReadBytesAsWave(bytes));
  const std::string path = TempPath("wave-test.wav");
  for (size_t at; (at = text.find(path)) != std::string::npos;) text.replace(at, path.size(), "F");
  return text;
}

const std::vector<int16_t> kSamples = {0, 1, -1, 32767, -32768, 1234};

// The samples of a WAV image read from memory, and the warnings it gave.
std::vector<float> ReadFloats(const std::string& bytes, std::vector<std::string>* warnings = nullptr) {
  LogCapture capture;
  WaveReader reader(std::make_unique<std::istringstream>(bytes), "F");
  std::vector<float> samples(static_cast<size_t>(reader.NumSamples()) + 1);
  samples.resize(reader.Read(samples.data(), samples.size()));
  for (const CapturedMessage& m : capture.messages) {
    if (warnings != nullptr) warnings->push_back(m.text);
  }
  return samples;
}

std::string Le24Bytes(int32_t v) { return Le32Bytes(static_cast<uint32_t>(v)).substr(0, 3); }

template <typename T>
std::string FloatBytes(const std::vector<T>& values) {
  std::string bytes;
  for (T v : values) bytes.append(reinterpret_cast<const char*>(&v), sizeof(v));  // little-endian host
  return bytes;
}

TEST(WaveReaderTest, ReadsEveryIntegerAndFloatEncodingScaledToOne) {
  const std::vector<float> expected = {0.0f, 0.5f, -0.5f, -1.0f};
  struct Case {
    uint16_t format;
    int bits;
    std::string data;
  };
  const Case cases[] = {
      {1, 8, std::string("\x80\xC0\x40\x00", 4)},
      {1, 16, Le16Bytes(0) + Le16Bytes(16384) + Le16Bytes(0xC000) + Le16Bytes(0x8000)},
      {1, 24, Le24Bytes(0) + Le24Bytes(0x400000) + Le24Bytes(-0x400000) + Le24Bytes(-0x800000)},
      {1, 32, Le32Bytes(0) + Le32Bytes(0x40000000) + Le32Bytes(0xC0000000) + Le32Bytes(0x80000000)},
      {3, 32, FloatBytes<float>({0.0f, 0.5f, -0.5f, -1.0f})},
      {3, 64, FloatBytes<double>({0.0, 0.5, -0.5, -1.0})},
  };
  for (const Case& c : cases) {
    for (uint16_t format : {c.format, uint16_t{0xFFFE}}) {
      const WaveLayout layout(44100, 1, c.bits, format, c.format);
      EXPECT_EQ(expected, ReadFloats(WaveBytes(c.data, layout))) << c.bits << " " << format;
    }
  }
  // Unknown chunks are skipped, odd-sized ones with their pad byte; floats
  // are clipped, and those that are not numbers read as silence.
  WaveLayout chunked(16000, 1, 32, 3);
  chunked.extra_chunks = {{"LIST", "odd"}, {"fact", std::string(4, '\0')}};
  const float nan = std::nanf(""), inf = HUGE_VALF;
  EXPECT_EQ((std::vector<float>{0.25f, 0.0f, 0.0f, 1.0f, -1.0f}),
            ReadFloats(WaveBytes(FloatBytes<float>({0.25f, nan, -inf, 1.5f, -3e38f}), chunked)));
}

TEST(WaveReaderTest, MixesChannelsDownAndReadsOtherRatesAt16kHz) {
  const std::vector<int16_t> interleaved = {3, 4, 5, 1, 0, 0, -1, -1, 0, 32767, 32767, 32767};
  EXPECT_EQ((std::vector<int16_t>{4, 0, -1, 32767}),
            ReadBytesAsWave(WaveBytes(Pcm16Bytes(interleaved), WaveLayout(16000, 3))));
  EXPECT_EQ(kSamples, ReadBytesAsWave(WaveBytes(Pcm16Bytes(kSamples))));

  // A second at 44.1 kHz is a second at 16 kHz; a constant stays that
  // constant once the filter has the signal on both sides.
  const std::vector<int16_t> at_16k =
      ReadBytesAsWave(WaveBytes(Pcm16Bytes(std::vector<int16_t>(44100, 1000)), WaveLayout(44100)));
  ASSERT_EQ(16000u, at_16k.size());
  EXPECT_EQ(1000, at_16k[8000]);
}

TEST(WaveReaderTest, RefusesOtherFormatsSayingWhatWasFoundAndHowToConvert) {
  EXPECT_EQ(
      "F: unsupported audio: 96000 Hz, 2 channels, 32-bit float; kestrel reads 8-, 16-, 24- and "
      "32-bit PCM and 32- and 64-bit float at 8000 to 48000 Hz. Convert it first, for example: "
      "sox F -r 16000 -c 1 -b 16 -e signed-integer out.wav",
      ErrorFor(WaveBytes(std::string(16, '\0'), WaveLayout(96000, 2, 32, 3))));
  const std::pair<WaveLayout, const char*> others[] = {
      {WaveLayout(16000, 1, 12), "16000 Hz, 1 channel, 12-bit PCM;"},
      {WaveLayout(16000, 1, 16, 0xFFFE, 7), "16000 Hz, 1 channel, mu-law;"},
      {WaveLayout(7999), "7999 Hz, 1 channel"}};
  for (const auto& [layout, found] : others) {
    EXPECT_NE(std::string::npos, ErrorFor(WaveBytes("ab", layout)).find(found)) << found;
  }
}

TEST(WaveReaderTest, ReadsTruncatedAudioWithAWarningAndRefusesOtherDamage) {
  const std::string good = WaveBytes(Pcm16Bytes(kSamples));
  std::vector<std::string> warnings;
  EXPECT_EQ(3u, ReadFloats(good.substr(0, good.size() - 5), &warnings).size());
  EXPECT_EQ(std::vector<std::string>{"F: truncated file: the \"data\" chunk declares 12 bytes "
                                     "but only 7 follow; reading those."},
            warnings);
  warnings.clear();
  EXPECT_EQ(1u, ReadFloats(WaveBytes("abc"), &warnings).size());
  EXPECT_EQ(std::vector<std::string>{"F: the \"data\" chunk of 3 bytes ends inside a 2-byte "
                                     "sample frame; ignoring its last 1 bytes."},
            warnings);

  EXPECT_EQ("F: not a WAV file (no RIFF/WAVE header).", ErrorFor(""));
  EXPECT_EQ("F: malformed WAV file: no \"data\" chunk.", ErrorFor(good.substr(0, 36)));
  EXPECT_EQ("F: truncated file: the \"fmt \" chunk declares 16 bytes but only 10 follow.",
            ErrorFor(good.substr(0, 30)));
  EXPECT_EQ("F: malformed WAV file: \"data\" chunk before \"fmt \" chunk.",
            ErrorFor("RIFF" + Le32Bytes(12) + "WAVE" + Chunk("data", "ab")));
  std::string bytes = WaveBytes("abcd", WaveLayout(16000, 2));
  bytes[32] = 3;  // block align
  EXPECT_EQ("F: malformed WAV file: block align 3 for 2 channels of 16 bits (4 expected).",
            ErrorFor(bytes));
  EXPECT_EQ("F: cannot open file.", KESTREL_ERROR_TEXT(WaveReader reader("/nonexistent/F")).substr(13));
}

// One Read: its signal and the samples it delivered (the matrix row by row).
using Block = std::pair<int, std::vector<float>>;

Block ReadBlock(StreamItf* source) {
  Matrix data;
  std::vector<FrameInfo> info;
  const int signal = source->Read(&data, &info);
  EXPECT_EQ(static_cast<size_t>(data.NumRows()), info.size());
  std::vector<float> samples;
  for (int r = 0; r < data.NumRows(); ++r) {
    samples.insert(samples.end(), data.RowData(r), data.RowData(r) + data.NumCols());
  }
  return {signal, samples};
}

TEST(PcmSourceTest, DeliversPushedSamplesInCappedBlocksThenFlushesAndEnds) {
  PcmSourceStream source(4);
  EXPECT_EQ(Block(0, {}), ReadBlock(&source));  // nothing pending: no data, no signal
  const std::vector<int16_t> samples = {1, -2, 3, -4, 5, -32768};
  source.Push(samples.data(), 6);
  EXPECT_EQ(Block(0, {1, -2, 3, -4}), ReadBlock(&source));
  source.MarkEnd();
  EXPECT_EQ(Block(kSignalFlush, {5, -32768}), ReadBlock(&source));
  EXPECT_EQ(Block(kSignalEnd, {}), ReadBlock(&source));
  EXPECT_EQ("PcmSourceStream: samples pushed after the end of the stream; call Reset() first.",
            KESTREL_ERROR_TEXT(source.Push(samples.data(), 1)));

  // After a reset, an end with nothing pending still flushes, with no data.
  source.Reset();
  source.MarkEnd();
  EXPECT_EQ(Block(kSignalFlush, {}), ReadBlock(&source));
  EXPECT_EQ(Block(kSignalEnd, {}), ReadBlock(&source));
}

TEST(WaveSourceTest, DeliversTheFileLikeAPushedStreamAndRewindsOnReset) {
  const std::vector<int16_t> samples = Noise(10, 1000, 1);
  const std::string path = TempPath("source.wav");
  WriteWave(path, samples);
  WaveSourceStream source(path, 4);
  const std::vector<float> f(samples.begin(), samples.end());
  EXPECT_EQ(Block(0, {f.begin(), f.begin() + 4}), ReadBlock(&source));
  EXPECT_EQ(Block(0, {f.begin() + 4, f.begin() + 8}), ReadBlock(&source));
  EXPECT_EQ(Block(kSignalFlush, {f.begin() + 8, f.end()}), ReadBlock(&source));
  EXPECT_EQ(Block(kSignalEnd, {}), ReadBlock(&source));
  source.Reset();
  EXPECT_EQ(Block(0, {f.begin(), f.begin() + 4}), ReadBlock(&source));

  // Another rate comes out resampled, all of it.
  const std::vector<int16_t> noise = Noise(3000, 1000, 2);
  WriteBytes(path, WaveBytes(Pcm16Bytes(noise), WaveLayout(24000)));
  std::vector<float> expected;
  Resampler resampler(24000, 16000);
  const std::vector<float> scaled(noise.begin(), noise.end());
  resampler.Process(scaled.data(), scaled.size(), &expected);
  resampler.Flush(&expected);
  WaveSourceStream resampled(path, 700);
  std::vector<float> got;
  Block block;
  do {
    block = ReadBlock(&resampled);
    EXPECT_GE(700u, block.second.size());
    got.insert(got.end(), block.second.begin(), block.second.end());
  } while (block.first != kSignalFlush);
  EXPECT_EQ(2000u, got.size());
  EXPECT_EQ(expected, got);
}

}  // namespace
}  // namespace kestrel
