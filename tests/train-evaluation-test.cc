// Scoring detections against a corpus, and running the detector over stored
// network outputs.
#include <gtest/gtest.h>

#include <filesystem>

#include "det-evaluation.h"
#include "detect-test-util.h"
#include "feature-set.h"
#include "hotword-model-file.h"
#include "posterior-scan.h"
#include "search-tuning.h"

namespace kestrel {
namespace {

CorpusClip Clip(ClipKind kind, double duration, double start = 0.0, double end = 0.0) {
  CorpusClip c;
  c.kind = kind;
  c.duration = duration;
  c.hotword_start = start;
  c.hotword_end = end;
  return c;
}

TEST(CountOperatingPoint, HitsMissesAndFalseAlarms) {
  std::vector<CorpusClip> clips{
      Clip(ClipKind::kPositive, 4.0, 1.0, 2.0),   // detected just after the end
      Clip(ClipKind::kPositive, 4.0, 1.0, 2.0),   // detected too late: miss + FA
      Clip(ClipKind::kPositive, 4.0, 1.0, 2.0),   // detected before it starts: miss + FA
      Clip(ClipKind::kNegative, 3600.0),          // two false alarms, one confusable
      Clip(ClipKind::kConfusable, 5.0),           // nothing
      Clip(ClipKind::kConfusable, 5.0)};          // accepted
  // A confusable phrase spoken inside the long negative at 100-101 s.
  clips[3].confusable_spans = {{100.0, 101.0}};
  // Frame f is reported at 10 f + 12.5 ms.
  std::vector<std::vector<int>> detections{{240}, {260}, {50}, {10, 5000, 10040}, {}, {30}};
  OperatingPoint p = CountOperatingPoint(clips, detections, 0.5);
  EXPECT_EQ(p.positives, 3);
  EXPECT_EQ(p.detected, 1);
  EXPECT_EQ(p.false_alarms, 4);
  EXPECT_EQ(p.confusables, 3);
  EXPECT_EQ(p.confusables_accepted, 2);
  // Hours outside the hotwords and confusables: 3 x 3 s + 3599 s.
  EXPECT_NEAR(p.hours, (9.0 + 3599.0) / 3600.0, 1e-9);
  EXPECT_NEAR(p.FalseRejectionRate(), 2.0 / 3.0, 1e-9);
  EXPECT_NEAR(p.FalseAlarmsPerHour(), 4.0 / p.hours, 1e-9);

  // Two detections inside one hotword are one hit, not a false alarm.
  OperatingPoint twice = CountOperatingPoint({clips[0]}, {{120, 180}}, 0.5);
  EXPECT_EQ(twice.detected, 1);
  EXPECT_EQ(twice.false_alarms, 0);
}

TEST(FrrByVoiceTable, OneRowPerVoiceOfFewVoiceEnginesOneForManyVoiceEngines) {
  std::vector<CorpusClip> clips;
  std::vector<std::vector<int>> detections;
  auto add = [&](const std::string& engine, const std::string& voice, bool detected) {
    clips.push_back(Clip(ClipKind::kPositive, 4.0, 1.0, 2.0));
    clips.back().engine = engine;
    clips.back().voice = voice;
    detections.push_back(detected ? std::vector<int>{150} : std::vector<int>{});
  };
  add("festival", "ked", false);
  add("festival", "ked", true);
  add("festival", "kal", true);
  for (int v = 0; v < 9; ++v) add("espeak-ng", "en+" + std::to_string(v), v != 3);
  // Negatives have no voice row, and their detections count nowhere here.
  clips.push_back(Clip(ClipKind::kNegative, 10.0));
  detections.push_back({100});
  EXPECT_EQ(FrrByVoiceTable(clips, detections, 0.5),
            "| voice | detected | FRR |\n|---|---|---|\n"
            "| espeak-ng (all voices) | 8/9 | 11.1% |\n"
            "| festival kal | 1/1 | 0.0% |\n"
            "| festival ked | 1/2 | 50.0% |\n");
}

TEST(OperatingCurve, PicksTheBestPointWithinTheBudget) {
  auto point = [](float s, int detected, int fa) {
    OperatingPoint p;
    p.sensitivity = s;
    p.positives = 100;
    p.detected = detected;
    p.false_alarms = fa;
    p.hours = 2.0;
    return p;
  };
  std::vector<OperatingPoint> curve{point(0.3f, 80, 0), point(0.5f, 95, 1), point(0.7f, 99, 5)};
  EXPECT_NEAR(FrrAtFalseAlarmRate(curve, 0.1), 0.2, 1e-12);
  EXPECT_NEAR(FrrAtFalseAlarmRate(curve, 0.5), 0.05, 1e-12);
  EXPECT_NEAR(FrrAtFalseAlarmRate(curve, 10.0), 0.01, 1e-12);
  EXPECT_DOUBLE_EQ(FrrAtFalseAlarmRate({point(0.9f, 100, 9)}, 1.0), 1.0);
  ASSERT_NE(MostSensitiveWithin(curve, 0.5), nullptr);
  EXPECT_FLOAT_EQ(MostSensitiveWithin(curve, 0.5)->sensitivity, 0.5f);
  EXPECT_EQ(MostSensitiveWithin(curve, 0.0)->sensitivity, 0.3f);
  EXPECT_EQ(MostSensitiveWithin({point(0.9f, 100, 9)}, 1.0), nullptr);

  std::string table = ComparisonTable({{"Viterbi (3)", curve}}, {0.5});
  EXPECT_NE(table.find("| Viterbi (3) | 5.0% |"), std::string::npos) << table;
}

class ScanTest : public ::testing::Test {
 protected:
  // Three outputs (filler, unit 1, unit 2); the units light up in order at
  // frames [start, start + 20) and [start + 20, start + 40) of the clip.
  static Matrix Posteriors(int frames, int start, float peak = 0.9f) {
    Matrix m(frames, 3);
    for (int t = 0; t < frames; ++t) {
      int label = (t >= start && t < start + 20) ? 1 : (t >= start + 20 && t < start + 40) ? 2 : 0;
      m(t, label) = peak;
      m(t, (label + 1) % 3) = 1.0f - peak;
    }
    return m;
  }

  TestDir dir_;
  const std::string scratch_ = dir_.Path("");
};

TEST_F(ScanTest, DetectsThePatternAtItsEndInEveryClipIndependently) {
  FeatureSet posteriors;
  posteriors.Append(Posteriors(300, 100));
  posteriors.Append(Posteriors(300, 0));   // right at the start of the next clip
  posteriors.Append(Posteriors(300, 400));  // never complete
  HotwordModelSettings settings = MakeHotwordSettings({0.2, 0.2}, 3, 1, 40, 0.05f, 0.3f);
  UniversalDetectStreamOptions options;
  for (int threads : {1, 2}) {
    std::vector<std::vector<int>> found =
        ScanDetections(posteriors, settings, options, scratch_, threads);
    ASSERT_EQ(found.size(), 3u);
    ASSERT_EQ(found[0].size(), 1u);
    EXPECT_GE(found[0][0], 130);
    EXPECT_LE(found[0][0], 140);
    ASSERT_EQ(found[1].size(), 1u);
    EXPECT_LE(found[1][0], 40);
    EXPECT_TRUE(found[2].empty());
  }
  // A strict threshold finds nothing; no scratch files are left behind.
  settings.hotwords[0].sensitivity = 0.0f;
  std::vector<std::vector<int>> none = ScanDetections(posteriors, settings, options, scratch_, 2);
  EXPECT_TRUE(none[0].empty() && none[1].empty());
  EXPECT_TRUE(std::filesystem::is_empty(scratch_));
}

TEST_F(ScanTest, TuningFindsTheSensitivityBetweenHotwordsAndLookalikes) {
  // Four positives with a strong pattern, one negative with a weak one.
  FeatureSet posteriors;
  std::vector<CorpusClip> clips;
  for (int i = 0; i < 4; ++i) {
    posteriors.Append(Posteriors(200, 50 + 10 * i));
    clips.push_back(Clip(ClipKind::kPositive, 2.0, 0.5 + 0.1 * i, 0.9 + 0.1 * i));
  }
  posteriors.Append(Posteriors(200, 50, 0.55f));
  clips.push_back(Clip(ClipKind::kNegative, 2.0));
  SearchTuningOptions options;
  options.methods = {3, 7};
  options.smooth_windows = {1};
  options.span_factors = {1.0};
  options.floors = {0.05f};
  options.max_false_alarms_per_hour = 0.0;
  options.scratch_dir = scratch_;
  std::vector<std::string> lines;
  std::vector<TunedSearch> tuned = TuneSearchMethods(
      clips, posteriors, {0.2, 0.2}, options, [&lines](const std::string& l) { lines.push_back(l); });
  ASSERT_EQ(tuned.size(), 2u);
  EXPECT_EQ(lines.size(), 2u);
  for (const TunedSearch& t : tuned) {
    EXPECT_EQ(t.settings.slide_window, 40);  // the mean hotword length
    EXPECT_EQ(t.point.detected, 4);
    EXPECT_EQ(t.point.false_alarms, 0);
    // The Viterbi path scores 0.9 on the hotwords and 0.55 on the lookalike.
    const float s = t.settings.hotwords[0].sensitivity;
    EXPECT_GT(1.0f - s, 0.55f - 0.02f);
    EXPECT_LT(1.0f - s, 0.9f);
  }
  EXPECT_EQ(tuned[BestTunedSearch(tuned)].point.detected, 4);
}

TEST_F(ScanTest, ModelFilesRoundTripThroughTheWriterAndReader) {
  HotwordModelSettings settings = MakeHotwordSettings({0.1, 0.3}, 7, 5, 80, 0.2f, 0.45f);
  settings.hotwords[0].duration_pass = 2;
  std::istringstream net("<Nnet> <Softmax> 3 3 </Nnet>");
  Nnet nnet;
  nnet.Read(false, &net);
  for (bool binary : {true, false}) {
    std::string path = dir_.Path("m.kmodel");
    WriteHotwordModelFile(path, settings, nnet, binary);
    HotwordModelSettings back;
    Nnet back_net;
    ReadHotwordModelFile(path, &back, &back_net);
    EXPECT_EQ(back.smooth_window, 5);
    EXPECT_EQ(back.slide_window, 80);
    ASSERT_EQ(back.hotwords.size(), 1u);
    const HotwordSettings& hw = back.hotwords[0];
    EXPECT_EQ(hw.keyword, (std::vector<int32>{1, 2}));
    EXPECT_EQ(hw.search_mask, (std::vector<int32>{0, 20, 80}));
    EXPECT_EQ(hw.search_method, 7);
    EXPECT_FLOAT_EQ(hw.sensitivity, 0.45f);
    EXPECT_EQ(hw.search_floor, (std::vector<float>{0.2f, 0.2f}));
    EXPECT_EQ(hw.duration_pass, 2);
    EXPECT_EQ(back_net.OutputDim(), 3);
    // The detector stage loads it too.
    UniversalDetectStreamOptions options;
    options.model_str = path;
    UniversalDetectStream detector(options);
    EXPECT_EQ(detector.SearchMethod(0, 0), 7);
  }
}

}  // namespace
}  // namespace kestrel
