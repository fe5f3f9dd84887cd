#include <gtest/gtest.h>

#include <vector>

#include "frontend/pcm-source-stream.h"
#include "frontend/wave-source-stream.h"
#include "test-audio.h"
#include "test-log-capture.h"

namespace kestrel {
namespace {

// One Read: the samples it delivered (the matrix read row by row) and its signal.
struct Block {
  int signal;
  std::vector<float> samples;
};

Block ReadBlock(StreamItf* source) {
  Matrix data;
  std::vector<FrameInfo> info;
  Block block;
  block.signal = source->Read(&data, &info);
  EXPECT_EQ(static_cast<size_t>(data.NumRows()), info.size());
  for (int r = 0; r < data.NumRows(); ++r) {
    block.samples.insert(block.samples.end(), data.RowData(r), data.RowData(r) + data.NumCols());
  }
  return block;
}

TEST(PcmSourceTest, DeliversPushedSamplesInCappedBlocksThenFlushesAndEnds) {
  PcmSourceStream source(4);
  EXPECT_EQ(0, ReadBlock(&source).signal);  // nothing yet: no data, no signal
  const std::vector<int16_t> samples = {1, -2, 3, -4, 5, -32768};
  source.Push(samples.data(), 6);
  Block first = ReadBlock(&source);
  EXPECT_EQ(0, first.signal);
  EXPECT_EQ((std::vector<float>{1, -2, 3, -4}), first.samples);
  source.MarkEnd();
  Block last = ReadBlock(&source);
  EXPECT_EQ(kSignalFlush, last.signal);
  EXPECT_EQ((std::vector<float>{5, -32768}), last.samples);
  Block after = ReadBlock(&source);
  EXPECT_EQ(kSignalEnd, after.signal);
  EXPECT_TRUE(after.samples.empty());

  EXPECT_EQ("PcmSourceStream: samples pushed after the end of the stream; call Reset() first.",
            KESTREL_ERROR_TEXT(source.Push(samples.data(), 1)));
  source.Reset();
  source.Push(samples.data(), 1);
  EXPECT_EQ(std::vector<float>{1}, ReadBlock(&source).samples);
}

TEST(PcmSourceTest, EndWithNothingPendingFlushesAnEmptyBlock) {
  PcmSourceStream source;
  source.MarkEnd();
  Block block = ReadBlock(&source);
  EXPECT_EQ(kSignalFlush, block.signal);
  EXPECT_TRUE(block.samples.empty());
  EXPECT_EQ(kSignalEnd, ReadBlock(&source).signal);
}

TEST(WaveSourceTest, DeliversTheFileLikeAPushedStreamAndRewindsOnReset) {
  const std::vector<int16_t> samples = Noise(10, 1000, 1);
  const std::string path = TempPath("source.wav");
  WriteWave(path, samples);
  WaveSourceStream source(path, 4);
  std::vector<int> signals;
  std::vector<float> delivered;
  for (int i = 0; i < 4; ++i) {
    Block block = ReadBlock(&source);
    signals.push_back(block.signal);
    delivered.insert(delivered.end(), block.samples.begin(), block.samples.end());
  }
  EXPECT_EQ((std::vector<int>{0, 0, kSignalFlush, kSignalEnd}), signals);
  EXPECT_EQ(std::vector<float>(samples.begin(), samples.end()), delivered);
  EXPECT_EQ(10, source.Reader().Position());

  source.Reset();
  EXPECT_EQ(std::vector<float>(samples.begin(), samples.begin() + 4), ReadBlock(&source).samples);
}

}  // namespace
}  // namespace kestrel
