// Training data: features from the library's front end, cached; hotword
// units and frame labels; manifests of JSON lines. Evaluation: scoring
// detections against a corpus, and running the detector over stored network
// outputs.
#include <gtest/gtest.h>

#include <filesystem>

#include "corpus-manifest.h"
#include "det-evaluation.h"
#include "detect-test-util.h"
#include "feature-set.h"
#include "frontend/filterbank-stream.h"
#include "frontend/wave-source-stream.h"
#include "hotword-units.h"
#include "json-value.h"
#include "posterior-scan.h"
#include "search-tuning.h"
#include "test-audio.h"
#include "test-log-capture.h"

namespace kestrel {
namespace {

// A 16 kHz WAV file of a tone at `hz`.
void WriteTone(const std::string& path, double hz, int samples) {
  std::vector<int16_t> tone(samples, 0);
  AddTone(&tone, hz, 8000, 0, tone.size());
  WriteWave(path, tone);
}

TEST(FeatureCacheTest, FeaturesEqualTheStreamingFrontEnd) {
  const std::string wav = TempPath("a.wav");
  WriteTone(wav, 440, 8000);
  Matrix whole = ComputeWaveFeatures(wav);
  ASSERT_EQ(whole.NumRows(), (8000 - 400) / 160 + 1);
  ASSERT_EQ(whole.NumCols(), FilterbankStream::kNumBins);

  WaveSourceStream source(wav, 100);  // the detector sees the audio in small blocks
  FilterbankStream filterbank;
  filterbank.Connect(&source);
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
  std::vector<int> runs;
  for (size_t t = 1; t < labels.size(); ++t) {
    if (labels[t] != labels[t - 1] && labels[t] != 0) runs.push_back(labels[t]);
  }
  EXPECT_EQ(runs, (std::vector<int>{1, 2, 3}));
  // With edges guarded, the two frames either side of each change of label
  // are left out (47..50 at the start, 115..118 at the end, four at each of
  // the two unit edges), and nothing else moves.
  const int u = kUntrainedFrame;
  std::vector<int> guarded = FrameLabels(clips[0], units, 200, 2);
  EXPECT_EQ(std::vector<int>(guarded.begin() + 46, guarded.begin() + 52),
            (std::vector<int>{0, u, u, u, u, 1}));
  EXPECT_EQ(std::vector<int>(guarded.begin() + 114, guarded.begin() + 120),
            (std::vector<int>{3, u, u, u, u, 0}));
  int left_out = 0;
  for (size_t t = 0; t < guarded.size(); ++t) {
    if (guarded[t] == u) ++left_out;
    else EXPECT_EQ(guarded[t], labels[t]) << "frame " << t;
  }
  EXPECT_EQ(left_out, 16);
  // Timings past the end of the features are dropped, not written.
  EXPECT_EQ(FrameLabels(clips[0], units, 60).size(), 60u);
  EXPECT_EQ(FrameLabels(clips[0], units, 60, 3).size(), 60u);
  CorpusClip negative;
  negative.kind = ClipKind::kNegative;
  EXPECT_EQ(FrameLabels(negative, units, 5), std::vector<int>(5, 0));
  // A near phrase without a span is not trained on at all; with one, its
  // context is filler, the phrase untrained except where it differs.
  negative.kind = ClipKind::kConfusable;
  EXPECT_EQ(FrameLabels(negative, units, 5), std::vector<int>(5, kUntrainedFrame));
  negative.span_start = 0.02;
  negative.span_end = 0.08;
  negative.differs = {{0.04, 0.06}};
  EXPECT_EQ(FrameLabels(negative, units, 10), (std::vector<int>{0, u, u, 0, 0, u, u, 0, 0, 0}));
  // Contrast frames reach either side of where shared and differing sounds
  // meet, but never out of the phrase.
  const int c = kContrastFrame;
  EXPECT_EQ(FrameLabels(negative, units, 10, 0, 1), (std::vector<int>{0, u, c, c, c, c, u, 0, 0, 0}));
  EXPECT_EQ(FrameLabels(negative, units, 10, 0, 3), (std::vector<int>{0, c, c, c, c, c, c, 0, 0, 0}));
  EXPECT_EQ(FrameLabels(clips[0], units, 200, 0, 3), labels);
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
  EXPECT_EQ(c.confusable_texts, std::vector<std::string>{"hay kestrel"});

  // A near phrase inside a sentence: its span, where it differs, and the
  // report fields.
  c = ParseManifestLine(
      R"({"wav": "c.wav", "kind": "confusable", "duration": 3, "span": [1.0, 1.8],)"
      R"( "differs": [[1.0, 1.2]], "text": "a kestrel", "placement": "run-on", "speed": 1.2})",
      "m.jsonl:3", "");
  EXPECT_DOUBLE_EQ(c.span_end, 1.8);
  ASSERT_EQ(c.differs.size(), 1u);
  EXPECT_DOUBLE_EQ(c.differs[0].second, 1.2);
  EXPECT_EQ(c.text + "/" + c.placement, "a kestrel/run-on");
  EXPECT_DOUBLE_EQ(c.speed, 1.2);

  // Errors name the line and what was wrong with it.
  const std::pair<const char*, const char*> bad[] = {
      {R"({"wav": "a.wav", "kind": "postive", "duration": 1})", "\"postive\""},
      {R"({"wav": "a.wav", "kind": "positive", "duration": "long"})",
       "field \"duration\": expected a number, found a string"},
      {R"({"wav": "a.wav", "kind": "positive", "duration": 1, "hotword": [0.1, 0.5]})",
       "missing field \"phonemes\""},
      {R"({"wav": "a.wav", "kind": "confusable", "duration": 1, "span": [0.1]})",
       "field \"span\": expected 2 entries, found 1"},
      {R"({"wav": "a.wav", "kind": )", "m.jsonl:7: malformed JSON"}};
  for (const auto& [line, problem] : bad) {
    const std::string text = KESTREL_ERROR_TEXT(ParseManifestLine(line, "m.jsonl:7", ""));
    EXPECT_NE(text.find("m.jsonl:7"), std::string::npos) << text;
    EXPECT_NE(text.find(problem), std::string::npos) << text;
  }
}

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
  // Any grouping; clips without a group name are left out.
  EXPECT_EQ(FrrByGroupTable(clips, detections, 0.5, "engine",
                            [](const CorpusClip& c) { return c.voice == "kal" ? "" : c.engine; }),
            "| engine | detected | FRR |\n|---|---|---|\n"
            "| espeak-ng | 8/9 | 11.1% |\n"
            "| festival | 1/2 | 50.0% |\n");
}

TEST(NearPhraseTable, CountsClipsAndPhrasesInsideRecordingsMostAcceptedFirst) {
  std::vector<CorpusClip> clips{Clip(ClipKind::kConfusable, 2.0), Clip(ClipKind::kConfusable, 2.0),
                                Clip(ClipKind::kConfusable, 2.0), Clip(ClipKind::kNegative, 60.0)};
  clips[0].text = clips[1].text = "hey kettle";
  clips[2].text = "a kestrel";
  clips[3].confusable_spans = {{10.0, 11.0}, {20.0, 21.0}};
  clips[3].confusable_texts = {"a kestrel", "a kestrel"};
  // Accepted: one "hey kettle" clip, the "a kestrel" clip, the first
  // "a kestrel" in the recording (0.3 s after its end, within tolerance).
  std::vector<std::vector<int>> detections{{50}, {}, {30}, {1129, 3000}};
  EXPECT_EQ(NearPhraseTable(clips, detections, 0.5),
            "| near phrase | accepted | rate |\n|---|---|---|\n"
            "| a kestrel | 2/3 | 66.7% |\n"
            "| hey kettle | 1/2 | 50.0% |\n"
            "| all | 3/5 | 60.0% |\n");
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
};

TEST_F(ScanTest, DetectsThePatternAtItsEndInEveryClipIndependently) {
  FeatureSet posteriors;
  posteriors.Append(Posteriors(300, 100));
  posteriors.Append(Posteriors(300, 0));   // right at the start of the next clip
  posteriors.Append(Posteriors(300, 400));  // never complete
  HotwordModel settings = MakeHotwordSettings({0.2, 0.2}, 3, 1, 40, 0.05f, 0.3f);
  UniversalDetectStreamOptions options;
  for (int threads : {1, 2}) {
    std::vector<std::vector<int>> found =
        ScanDetections(posteriors, settings, options, threads);
    ASSERT_EQ(found.size(), 3u);
    ASSERT_EQ(found[0].size(), 1u);
    EXPECT_GE(found[0][0], 130);
    EXPECT_LE(found[0][0], 140);
    ASSERT_EQ(found[1].size(), 1u);
    EXPECT_LE(found[1][0], 40);
    EXPECT_TRUE(found[2].empty());
  }
  // A strict threshold finds nothing.
  settings.hotwords[0].sensitivity = 0.0f;
  std::vector<std::vector<int>> none = ScanDetections(posteriors, settings, options, 2);
  EXPECT_TRUE(none[0].empty() && none[1].empty());
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
  options.first_unit_floors = {};
  options.max_false_alarms_per_hour = 0.0;
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

  // As a near phrase the lookalike is no false alarm: within a budget that
  // allows it, it is accepted. (A budget that refuses it: the next test.)
  clips.back().kind = ClipKind::kConfusable;
  options.max_false_alarms_per_hour = 100.0;
  options.max_near_phrase_accept_rate = 1.0;
  for (const TunedSearch& t : TuneSearchMethods(clips, posteriors, {0.2, 0.2}, options, nullptr)) {
    EXPECT_EQ(t.point.confusables_accepted, 1);
  }
}

TEST_F(ScanTest, AFirstUnitFloorRejectsLookalikesThatOnlyEndLikeTheHotword) {
  // The hotwords are middling throughout; the lookalike matches the second
  // unit better than any hotword does but the first one poorly, so no
  // sensitivity separates them, and only a floor on the first unit does.
  auto two_units = [](float first, float second) {
    Matrix m(200, 3);
    for (int t = 0; t < 200; ++t) {
      const int label = (t >= 50 && t < 70) ? 1 : (t >= 70 && t < 90) ? 2 : 0;
      const float p = label == 1 ? first : label == 2 ? second : 0.9f;
      m(t, label) = p;
      m(t, label == 0 ? 1 : 0) = 1.0f - p;
    }
    return m;
  };
  FeatureSet posteriors;
  std::vector<CorpusClip> clips;
  for (int i = 0; i < 4; ++i) {
    posteriors.Append(two_units(0.65f, 0.65f));
    clips.push_back(Clip(ClipKind::kPositive, 2.0, 0.5, 0.9));
  }
  posteriors.Append(two_units(0.5f, 1.0f));
  clips.push_back(Clip(ClipKind::kConfusable, 2.0));
  SearchTuningOptions options;
  options.methods = {3};
  options.smooth_windows = {1};
  options.span_factors = {1.0};
  options.floors = {0.05f};
  options.max_near_phrase_accept_rate = 0.0;
  EXPECT_EQ(TuneSearchMethods(clips, posteriors, {0.2, 0.2}, options, nullptr)[0].point.detected, 0);

  options.first_unit_floors = {0.01f, 0.6f};  // below the common floor: not tried
  const TunedSearch tuned = TuneSearchMethods(clips, posteriors, {0.2, 0.2}, options, nullptr)[0];
  EXPECT_EQ(tuned.point.detected, 4);
  EXPECT_EQ(tuned.point.confusables_accepted, 0);
  EXPECT_EQ(tuned.settings.hotwords[0].search_floor, (std::vector<float>{0.6f, 0.05f}));
  EXPECT_EQ(SearchFloorsLabel(tuned.settings.hotwords[0]), "0.60/0.05");
}

// The other fields are copied from the arguments; the mask is computed.
TEST_F(ScanTest, SettingsSpreadTheMaskByUnitDurations) {
  const HotwordRecord hw = MakeHotwordSettings({0.1, 0.3}, 7, 5, 80, 0.2f, 0.45f).hotwords.at(0);
  EXPECT_EQ(hw.keyword, (std::vector<int32>{1, 2}));
  EXPECT_EQ(hw.search_mask, (std::vector<int32>{0, 20, 80}));
}

}  // namespace
}  // namespace kestrel
