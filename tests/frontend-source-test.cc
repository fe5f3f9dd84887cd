#include <gtest/gtest.h>

#include <vector>

#include "frontend/pcm-source-stream.h"
#include "frontend/wave-source-stream.h"
#include "test-audio.h"
#include "test-log-capture.h"

namespace kestrel {
namespace {

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
