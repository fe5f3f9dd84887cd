// Hotword units and frame labels: grouping, alignment of other
// pronunciations, and which frames get which unit.
#include <gtest/gtest.h>

#include "corpus-manifest.h"
#include "hotword-units.h"
#include "test-log-capture.h"

namespace kestrel {
namespace {

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
}

TEST(HotwordUnits, NoPositivesIsAnError) {
  CorpusClip negative;
  std::string text = KESTREL_ERROR_TEXT(ChooseUnits({negative}, 6));
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

  std::string text = KESTREL_ERROR_TEXT(ParseManifestLine(
      R"({"wav": "a.wav", "kind": "postive", "duration": 1})", "m.jsonl:7", ""));
  EXPECT_NE(text.find("m.jsonl:7"), std::string::npos) << text;
  EXPECT_NE(text.find("\"postive\""), std::string::npos) << text;
  text = KESTREL_ERROR_TEXT(ParseManifestLine(
      R"({"wav": "a.wav", "kind": "positive", "duration": "long"})", "m.jsonl:8", ""));
  EXPECT_NE(text.find("field \"duration\": expected a number, found a string"), std::string::npos)
      << text;
  text = KESTREL_ERROR_TEXT(ParseManifestLine(
      R"({"wav": "a.wav", "kind": "positive", "duration": 1, "hotword": [0.1, 0.5]})", "m:9", ""));
  EXPECT_NE(text.find("missing field \"phonemes\""), std::string::npos) << text;
  text = KESTREL_ERROR_TEXT(ParseManifestLine(R"({"wav": "a.wav", "kind": )", "m:10", ""));
  EXPECT_NE(text.find("m:10: malformed JSON"), std::string::npos) << text;
}

}  // namespace
}  // namespace kestrel
