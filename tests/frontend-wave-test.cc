// WAV files and the audio sources at the head of the pipeline.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "frontend/pcm-source-stream.h"
#include "frontend/wave-reader.h"
#include "frontend/wave-source-stream.h"
#include "test-audio.h"
#include "test-log-capture.h"

namespace kestrel {
namespace {

std::vector<int16_t> ReadBytesAsWave(const std::string& bytes) {
  const std::string path = TempPath("wave-test.wav");
  WriteBytes(path, bytes);
  return ReadWaveFile(path);
}

// The error text for a file holding `bytes`, with the path replaced by "F".
std::string ErrorFor(const std::string& bytes) {
  const std::string path = TempPath("wave-test.wav");
  WriteBytes(path, bytes);
  std::string text = KESTREL_ERROR_TEXT(ReadWaveFile(path));
  for (size_t at; (at = text.find(path)) != std::string::npos;) text.replace(at, path.size(), "F");
  return text;
}

const std::vector<int16_t> kSamples = {0, 1, -1, 32767, -32768, 1234};

TEST(WaveReaderTest, ReadsPlainExtensibleAndChunkedLayouts) {
  EXPECT_EQ(kSamples, ReadBytesAsWave(WaveBytes(Pcm16Bytes(kSamples))));

  WaveLayout extensible;
  extensible.format = 0xFFFE;
  EXPECT_EQ(kSamples, ReadBytesAsWave(WaveBytes(Pcm16Bytes(kSamples), extensible)));

  // Unknown chunks are skipped, odd-sized ones with their pad byte.
  WaveLayout chunked;
  chunked.extra_chunks = {{"LIST", "odd"}, {"fact", std::string(4, '\0')}};
  EXPECT_EQ(kSamples, ReadBytesAsWave(WaveBytes(Pcm16Bytes(kSamples), chunked)));
}

TEST(WaveReaderTest, MixesChannelsDownByRoundedAverage) {
  WaveLayout stereo;
  stereo.channels = 3;
  const std::vector<int16_t> interleaved = {3, 4, 5, 1, 0, 0, -1, -1, 0, 32767, 32767, 32767};
  EXPECT_EQ((std::vector<int16_t>{4, 0, -1, 32767}),
            ReadBytesAsWave(WaveBytes(Pcm16Bytes(interleaved), stereo)));
}

TEST(WaveReaderTest, RefusesOtherFormatsSayingWhatWasFoundAndHowToConvert) {
  WaveLayout cd_float;
  cd_float.format = 3;
  cd_float.channels = 2;
  cd_float.rate = 44100;
  cd_float.bits = 32;
  EXPECT_EQ(
      "F: unsupported audio: 44100 Hz, 2 channels, 32-bit float; kestrel reads 16000 Hz 16-bit "
      "PCM. Convert it first, for example: sox F -r 16000 -c 1 -b 16 -e signed-integer out.wav",
      ErrorFor(WaveBytes(std::string(16, '\0'), cd_float)));

  WaveLayout eight_bit;
  eight_bit.bits = 8;
  EXPECT_NE(std::string::npos,
            ErrorFor(WaveBytes("ab", eight_bit)).find("16000 Hz, 1 channel, 8-bit PCM;"));
  WaveLayout mulaw_extensible;
  mulaw_extensible.format = 0xFFFE;
  mulaw_extensible.subformat = 7;
  EXPECT_NE(std::string::npos,
            ErrorFor(WaveBytes("ab", mulaw_extensible)).find("16000 Hz, 1 channel, mu-law;"));
}

TEST(WaveReaderTest, RefusesDamagedFilesWithoutReadingPastThem) {
  const std::string good = WaveBytes(Pcm16Bytes(kSamples));
  EXPECT_EQ("F: not a WAV file (no RIFF/WAVE header).", ErrorFor(""));
  EXPECT_EQ("F: truncated file: the \"data\" chunk declares 12 bytes but only 7 follow.",
            ErrorFor(good.substr(0, good.size() - 5)));
  EXPECT_EQ("F: malformed WAV file: no \"data\" chunk.", ErrorFor(good.substr(0, 36)));
  EXPECT_EQ("F: malformed WAV file: \"data\" chunk before \"fmt \" chunk.",
            ErrorFor("RIFF" + Le32Bytes(12) + "WAVE" + Chunk("data", "ab")));
  EXPECT_EQ("F: malformed WAV file: data chunk of 3 bytes is not a whole number of 2-byte "
            "sample frames.",
            ErrorFor(WaveBytes("abc")));
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
}

}  // namespace
}  // namespace kestrel
