// Training data: features from the library's front end, cached; hotword
// units and frame labels; manifests of JSON lines.
#include <gtest/gtest.h>

#include <filesystem>

#include "corpus-manifest.h"
#include "feature-set.h"
#include "frontend/filterbank-stream.h"
#include "frontend/pcm-source-stream.h"
#include "hotword-units.h"
#include "json-value.h"
#include "test-audio.h"
#include "test-log-capture.h"

namespace kestrel {
namespace {

// A 16 kHz WAV file of a tone at `hz`, and its samples.
std::vector<int16_t> WriteTone(const std::string& path, double hz, int samples) {
  std::vector<int16_t> tone(samples, 0);
  AddTone(&tone, hz, 8000, 0, tone.size());
  WriteWave(path, tone);
  return tone;
}

TEST(FeatureCacheTest, FeaturesEqualTheStreamingFrontEnd) {
  const std::string wav = TempPath("a.wav");
  const std::vector<int16_t> samples = WriteTone(wav, 440, 8000);
  Matrix whole = ComputeWaveFeatures(wav);
  ASSERT_EQ(whole.NumRows(), (8000 - 400) / 160 + 1);
  ASSERT_EQ(whole.NumCols(), FilterbankStream::kNumBins);

  // The detector sees the audio in small blocks.
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

TEST(FeatureCacheTest, CacheIsReusedUntilAWaveChanges) {
  std::vector<CorpusClip> clips(2);
  clips[0].wav = TempPath("a.wav");
  clips[1].wav = TempPath("b.wav");
  WriteTone(clips[0].wav, 440, 4000);
  WriteTone(clips[1].wav, 2000, 6000);
  const std::string cache = TempPath("features.bin");
  std::filesystem::remove(cache);
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

  WriteTone(clips[1].wav, 2000, 7000);  // regenerated corpus: different file
  FeatureSet changed = LoadOrComputeFeatures(clips, cache, 2, progress);
  EXPECT_NE(lines.back().find("computed"), std::string::npos);
  EXPECT_EQ(changed.NumFrames(1), (7000 - 400) / 160 + 1);

  clips[1].wav = TempPath("missing.wav");
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

CorpusClip Positive(const std::vector<std::pair<std::string, double>>& phones, double start = 0.5) {
  CorpusClip c;
  c.kind = ClipKind::kPositive;
  double t = start;
  for (const auto& [symbol, seconds] : phones) {
    c.phones.push_back({symbol, t, t + seconds});
    t += seconds;
  }
  c.hotword_start = start;
  c.hotword_end = t;
  c.duration = t + 0.5;
  return c;
}

const std::vector<std::pair<std::string, double>> kHeyKestrel = {
    {"HH", 0.06}, {"EY", 0.14}, {"K", 0.06}, {"EH", 0.10}, {"S", 0.10},
    {"T", 0.05}, {"R", 0.05}, {"AX", 0.03}, {"L", 0.09}};

TEST(HotwordUnits, GroupsTheCommonPronunciationIntoEvenUnits) {
  std::vector<CorpusClip> clips(3, Positive(kHeyKestrel));
  clips.push_back(Positive({{"HH", 0.05}, {"EY", 0.1}, {"K", 0.05}, {"EH", 0.1}, {"S", 0.1},
                            {"T", 0.05}, {"R", 0.05}, {"EL", 0.1}}));
  HotwordUnits units = ChooseUnits(clips, 4);
  EXPECT_EQ(units.phones.size(), kHeyKestrel.size());
  EXPECT_EQ(units.NumUnits(), 4);
  EXPECT_EQ(units.unit_of_phone.front(), 1);
  EXPECT_EQ(units.unit_of_phone.back(), 4);
  for (size_t i = 1; i < units.unit_of_phone.size(); ++i) {
    EXPECT_LE(units.unit_of_phone[i] - units.unit_of_phone[i - 1], 1);
    EXPECT_GE(units.unit_of_phone[i], units.unit_of_phone[i - 1]);
  }
  // Even grouping of 0.68 s: no unit is far from a quarter of it.
  for (double s : units.unit_seconds) {
    EXPECT_GT(s, 0.10);
    EXPECT_LT(s, 0.26);
  }
  // More units than phonemes: one unit per phoneme.
  EXPECT_EQ(ChooseUnits(clips, 20).NumUnits(), 9);
  const std::string text = KESTREL_ERROR_TEXT(ChooseUnits({CorpusClip()}, 6));
  EXPECT_NE(text.find("no positive clips"), std::string::npos) << text;
}

TEST(HotwordUnits, AlignsOtherPronunciationsToTheCanonicalOne) {
  std::vector<std::string> canonical{"HH", "EY", "K", "EH", "S", "T", "R", "AX", "L"};
  // A syllabic L stands for one of "AX L"; the rest match one to one.
  std::vector<int> syllabic = AlignToCanonical({"HH", "EY", "K", "EH", "S", "T", "R", "EL"}, canonical);
  ASSERT_EQ(syllabic.size(), 8u);
  for (int i = 0; i < 7; ++i) EXPECT_EQ(syllabic[i], i);
  EXPECT_GE(syllabic[7], 7);
  // An extra phoneme joins its predecessor; a leading one its successor.
  EXPECT_EQ(AlignToCanonical({"HH", "EY", "Y", "K"}, {"HH", "EY", "K"}),
            (std::vector<int>{0, 1, 1, 2}));
  EXPECT_EQ(AlignToCanonical({"AH", "HH", "EY"}, {"HH", "EY"}), (std::vector<int>{0, 0, 1}));
}

TEST(FrameLabels, LabelEachFrameByThePhonemeUnderItsCentre) {
  std::vector<CorpusClip> clips{Positive(kHeyKestrel, 0.5)};
  HotwordUnits units = ChooseUnits(clips, 3);
  std::vector<int> labels = FrameLabels(clips[0], units, 200);
  ASSERT_EQ(labels.size(), 200u);
  // Frame t's centre is 10 t + 12.5 ms: frame 48 (492.5 ms) is before the
  // hotword, frame 49 (502.5 ms) in its first phoneme.
  EXPECT_EQ(labels[48], 0);
  EXPECT_EQ(labels[49], 1);
  // The hotword ends at 1.18 s: frame 116 (1172.5 ms) is in it, 117 not.
  EXPECT_EQ(labels[116], 3);
  EXPECT_EQ(labels[117], 0);
  // Units appear in order, each as one run.
  int runs = 0;
  for (size_t t = 1; t < labels.size(); ++t) {
    if (labels[t] != labels[t - 1] && labels[t] != 0) {
      ++runs;
      EXPECT_EQ(labels[t], runs);
    }
  }
  EXPECT_EQ(runs, 3);
  // Timings past the end of the features are dropped, not written.
  EXPECT_EQ(FrameLabels(clips[0], units, 60).size(), 60u);
  CorpusClip negative;
  negative.kind = ClipKind::kNegative;
  EXPECT_EQ(FrameLabels(negative, units, 5), std::vector<int>(5, 0));
  // Confusables share the hotword's sounds: not trained on at all.
  negative.kind = ClipKind::kConfusable;
  EXPECT_EQ(FrameLabels(negative, units, 5), std::vector<int>(5, kUntrainedFrame));
}

TEST(ManifestLine, ReadsAPositiveAndNamesBadFields) {
  CorpusClip c = ParseManifestLine(
      R"({"wav": "train/pos/1.wav", "kind": "positive", "duration": 2.5, "hotword": [0.4, 1.2],)"
      R"( "phonemes": [["h", 0.4, 0.5]], "phonemes_arpa": [["HH", 0.4, 0.5], ["EY", 0.5, 1.2]]})",
      "m.jsonl:1", "/corpus");
  EXPECT_EQ(c.wav, "/corpus/train/pos/1.wav");
  EXPECT_EQ(c.kind, ClipKind::kPositive);
  ASSERT_EQ(c.phones.size(), 2u);
  EXPECT_EQ(c.phones[1].symbol, "EY");
  EXPECT_DOUBLE_EQ(c.hotword_end, 1.2);

  // A long negative keeps where its confusable phrases are spoken.
  c = ParseManifestLine(
      R"({"wav": "s.wav", "kind": "negative", "duration": 600, "utterances": [)"
      R"([0.5, 6.4, "sentence", "e", "v", "x"], [7.25, 8.0, "confusable", "e", "v", "hay kestrel"]]})",
      "m.jsonl:2", "");
  ASSERT_EQ(c.confusable_spans.size(), 1u);
  EXPECT_DOUBLE_EQ(c.confusable_spans[0].first, 7.25);
  EXPECT_DOUBLE_EQ(c.confusable_spans[0].second, 8.0);

  // Errors name the line and what was wrong with it.
  const std::pair<const char*, const char*> bad[] = {
      {R"({"wav": "a.wav", "kind": "postive", "duration": 1})", "\"postive\""},
      {R"({"wav": "a.wav", "kind": "positive", "duration": "long"})",
       "field \"duration\": expected a number, found a string"},
      {R"({"wav": "a.wav", "kind": "positive", "duration": 1, "hotword": [0.1, 0.5]})",
       "missing field \"phonemes\""},
      {R"({"wav": "a.wav", "kind": )", "m.jsonl:7: malformed JSON"}};
  for (const auto& [line, problem] : bad) {
    const std::string text = KESTREL_ERROR_TEXT(ParseManifestLine(line, "m.jsonl:7", ""));
    EXPECT_NE(text.find("m.jsonl:7"), std::string::npos) << text;
    EXPECT_NE(text.find(problem), std::string::npos) << text;
  }
}

}  // namespace
}  // namespace kestrel
