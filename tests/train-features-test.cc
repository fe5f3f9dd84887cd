// Features for training come from the library's front end and are cached;
// manifests are JSON lines.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>

#include "feature-set.h"
#include "frontend/filterbank-stream.h"
#include "frontend/pcm-source-stream.h"
#include "json-value.h"
#include "test-log-capture.h"

namespace kestrel {
namespace {

class FeatureCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() /
           ("kestrel-features-test-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()));
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  // A 16 kHz mono 16-bit WAV of a tone at `hz`.
  std::string WriteTone(const std::string& name, double hz, int samples) {
    std::vector<int16_t> pcm(samples);
    for (int i = 0; i < samples; ++i) pcm[i] = static_cast<int16_t>(8000 * std::sin(2 * M_PI * hz * i / 16000));
    std::string path = (dir_ / name).string();
    std::ofstream os(path, std::ios::binary);
    auto u32 = [&os](uint32_t v) { os.write(reinterpret_cast<const char*>(&v), 4); };
    auto u16 = [&os](uint16_t v) { os.write(reinterpret_cast<const char*>(&v), 2); };
    os.write("RIFF", 4);
    u32(36 + 2 * samples);
    os.write("WAVEfmt ", 8);
    u32(16);
    u16(1);
    u16(1);
    u32(16000);
    u32(32000);
    u16(2);
    u16(16);
    os.write("data", 4);
    u32(2 * samples);
    os.write(reinterpret_cast<const char*>(pcm.data()), 2 * samples);
    return path;
  }

  std::filesystem::path dir_;
};

TEST_F(FeatureCacheTest, FeaturesEqualTheStreamingFrontEnd) {
  std::string wav = WriteTone("a.wav", 440, 8000);
  Matrix whole = ComputeWaveFeatures(wav);
  ASSERT_EQ(whole.NumRows(), (8000 - 400) / 160 + 1);
  ASSERT_EQ(whole.NumCols(), FilterbankStream::kNumBins);

  // The detector sees the audio in small blocks.
  std::ifstream is(wav, std::ios::binary);
  is.seekg(44);
  std::vector<int16_t> samples(8000);
  is.read(reinterpret_cast<char*>(samples.data()), 16000);
  PcmSourceStream source(100);
  FilterbankStream filterbank;
  filterbank.Connect(&source);
  source.Push(samples.data(), samples.size());
  source.MarkEnd();
  int row = 0;
  Matrix block;
  for (int signal = 0; !(signal & kSignalStopMask);) {
    signal = filterbank.Read(&block, nullptr);
    for (int r = 0; r < block.NumRows(); ++r, ++row) {
      for (int c = 0; c < block.NumCols(); ++c) ASSERT_EQ(block(r, c), whole(row, c));
    }
  }
  EXPECT_EQ(row, whole.NumRows());
}

TEST_F(FeatureCacheTest, CacheIsReusedUntilAWaveChanges) {
  std::vector<CorpusClip> clips(2);
  clips[0].wav = WriteTone("a.wav", 440, 4000);
  clips[1].wav = WriteTone("b.wav", 2000, 6000);
  std::string cache = (dir_ / "features.bin").string();
  std::vector<std::string> lines;
  auto progress = [&lines](const std::string& line) { lines.push_back(line); };

  FeatureSet first = LoadOrComputeFeatures(clips, cache, 2, progress);
  ASSERT_EQ(first.NumClips(), 2);
  EXPECT_EQ(first.NumFrames(1), (6000 - 400) / 160 + 1);
  EXPECT_NE(lines.back().find("computed"), std::string::npos);

  FeatureSet again = LoadOrComputeFeatures(clips, cache, 1, progress);
  EXPECT_NE(lines.back().find("read 2 clips"), std::string::npos);
  ASSERT_EQ(again.TotalFrames(), first.TotalFrames());
  for (int t = 0; t < again.NumFrames(1); ++t) EXPECT_EQ(again.Frame(1, t)[3], first.Frame(1, t)[3]);

  WriteTone("b.wav", 2000, 7000);  // regenerated corpus: different file
  FeatureSet changed = LoadOrComputeFeatures(clips, cache, 2, progress);
  EXPECT_NE(lines.back().find("computed"), std::string::npos);
  EXPECT_EQ(changed.NumFrames(1), (7000 - 400) / 160 + 1);

  clips[1].wav = (dir_ / "missing.wav").string();
  std::string text = KESTREL_ERROR_TEXT(LoadOrComputeFeatures(clips, cache, 2, progress));
  EXPECT_NE(text.find("missing.wav"), std::string::npos) << text;
}

TEST(JsonValue, ParsesManifestValues) {
  JsonValue v = ParseJson(R"( {"a": [1, -2.5e1, true, null, {"b": "x\"\u00e9\n"}], "c": {}} )", "t");
  ASSERT_TRUE(v.IsObject());
  const std::vector<JsonValue>& a = v.Find("a")->AsArray();
  ASSERT_EQ(a.size(), 5u);
  EXPECT_EQ(a[1].AsNumber(), -25.0);
  EXPECT_TRUE(a[2].AsBool());
  EXPECT_TRUE(a[3].IsNull());
  EXPECT_EQ(a[4].Find("b")->AsString(), "x\"\xc3\xa9\n");
  EXPECT_TRUE(v.Find("c")->AsObject().empty());
  EXPECT_EQ(v.Find("missing"), nullptr);

  for (const char* bad : {"{\"a\": 1,}", "[1 2]", "\"open", "{\"a\" 1}", "[1] x", "", "tru"}) {
    std::string text = KESTREL_ERROR_TEXT(ParseJson(bad, "f.jsonl:3"));
    EXPECT_EQ(text.rfind("f.jsonl:3: malformed JSON at byte ", 0), 0u) << bad << " -> " << text;
  }
  // Deep nesting is refused instead of exhausting the stack.
  std::string deep(10000, '[');
  EXPECT_NE(KESTREL_ERROR_TEXT(ParseJson(deep, "d")).find("too deep"), std::string::npos);
}

}  // namespace
}  // namespace kestrel
