// The hotword searches, driven through the detector's public windows:
// a tiny model with an identity network, posteriors pushed straight into the
// sliding windows, scores checked against values worked out by hand (dyadic
// posteriors, so every float sum is exact) or against brute force.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "detect-test-util.h"
#include "detect/universal-detect-stream.h"

namespace kestrel {
namespace {

using Columns = std::vector<std::vector<float>>;  // [unit][frame]

// A hotword on units 0..n-1 (n = number of floors) searching `span` frames.
TestHotword Hotword(int32 method, int32 span, std::vector<float> floors,
                    std::pair<int32, int32> passes = {0, 0}, bool search_max = false) {
  const int n = static_cast<int>(floors.size());
  TestHotword hw;
  hw.search = TestSearchGroup{method, 0, {}, std::move(floors)};
  for (int i = 0; i <= n; ++i) hw.search->mask.push_back(span * i / n);
  for (int i = 0; i < n; ++i) hw.keyword.push_back(i);
  hw.passes = passes;
  hw.search_max = search_max;
  return hw;
}

class SearchTest : public ::testing::Test {
 protected:
  void Load(const std::vector<TestHotword>& hotwords, int32 min_state_frames) {
    TestModel model;
    model.hotwords = hotwords;
    options_.model_str = dir_.WriteModel("m.kmodel", model);
    options_.min_state_frames = min_state_frames;
    det_ = std::make_unique<UniversalDetectStream>(options_);
  }
  // Empties the windows, then fills them with `columns` (3 outputs).
  void Show(const Columns& columns) {
    det_->ResetDetection();
    std::vector<std::vector<float>> rows(columns[0].size(), std::vector<float>(3, 0.0f));
    for (size_t c = 0; c < columns.size(); ++c) {
      for (size_t f = 0; f < rows.size(); ++f) rows[f][c] = columns[c][f];
    }
    det_->PushSlideWindow(0, MatrixFromRows(rows));
  }
  // Hotword k's score, through the search its model names.
  float Score(int k, int32 frame_id = 0) { return det_->GetHotwordPosterior(0, k, frame_id); }
  Columns Random(std::mt19937* rng, int max_frames) {
    Columns window(3, std::vector<float>(1 + (*rng)() % max_frames));
    for (auto& column : window)
      for (float& v : column) v = ((*rng)() % 17) / 16.0f;
    return window;
  }

  TestDir dir_;
  UniversalDetectStreamOptions options_;
  std::unique_ptr<UniversalDetectStream> det_;
};

TEST_F(SearchTest, NaiveSearchWantsOrderedPeaksAboveTheirFloors) {
  TestHotword floored{{0, 1}};
  floored.search = TestSearchGroup{1, 0, {}, {.25f, .5f}};
  auto score = [this](const Columns& window, int k) {
    Show(window);
    return Score(k);
  };
  // Without the checks: the geometric mean of the peaks, in any order.
  options_.no_order_check = true;
  Load({TestHotword{{0, 1}}, floored, TestHotword{}}, 5);
  EXPECT_FLOAT_EQ(score({{.2f, .9f}, {.4f, .1f}}, 0), 0.6f);  // sqrt(0.9 * 0.4)
  EXPECT_TRUE(std::isnan(score({{.9f}, {.1f}}, 2)));          // no states: 0 / 0
  options_.no_order_check = false;
  Load({TestHotword{{0, 1}}, floored}, 5);
  EXPECT_FLOAT_EQ(score({{.9f, .2f}, {.1f, .4f}}, 0), 0.6f);
  EXPECT_EQ(score({{.2f, .9f}, {.4f, .1f}}, 0), 0.0f);  // out of order
  EXPECT_EQ(score({{.9f}, {.9f}}, 0), 0.0f);            // same frame
  EXPECT_FLOAT_EQ(score({{.25f, .1f}, {0, 1}}, 1), 0.5f);
  EXPECT_EQ(score({{.24f, .1f}, {0, 1}}, 1), 0.0f);  // below its floor
}

TEST_F(SearchTest, DtwSearchAlignsWithinBandsOverTheFullSpan) {
  TestHotword neighbourhood = Hotword(2, 20, {0, 0});
  neighbourhood.search->neighbour = 2;
  Load({Hotword(2, 20, {.05f, .05f}), neighbourhood}, 5);
  Columns window(2, std::vector<float>(20, 0.0f));
  for (int t = 0; t < 20; ++t) window[t < 10 ? 0 : 1][t] = 1;
  Show(window);
  EXPECT_FLOAT_EQ(Score(0), 1.0f);
  EXPECT_FLOAT_EQ(Score(1), 1.0f);
  // A young window of 10 frames, state 1 only in frames 8 and 9: outside its
  // band without a neighbourhood, inside with 2. Divided by the full span.
  Show({{1, 1, 1, 1, 1, 1, 1, 1, 0, 0}, {0, 0, 0, 0, 0, 0, 0, 0, 1, 1}});
  EXPECT_EQ(Score(0), 0.0f);
  EXPECT_FLOAT_EQ(Score(1), 0.5f);  // (8 + 2) / 20
}

TEST_F(SearchTest, ViterbiLocksTiesAndFloors) {
  Load({Hotword(3, 10, {.5f, .25f}), Hotword(3, 10, {.5f, .75f}), Hotword(3, 3, {0, .5f}),
        Hotword(3, 4, {.5f, .25f}, {0, 0}, true)},
       2);
  // Unit 0 meets its floor only at frame 2, so unit 1 is first entered at
  // frame 3, re-entered at frame 4 (1.0 <= 1.25) and ends at 1.25 + 1.75.
  Show({{.25f, .25f, .5f, .25f, 0, 0, 0, 0}, {.75f, .75f, 0, 0, .5f, .5f, .5f, .25f}});
  EXPECT_FLOAT_EQ(Score(0), 3.0f / 10);
  EXPECT_EQ(Score(1), 0.0f);  // last unit's peak since entry: 0.5
  // Unit 0 never meets its floor: unit 1 stays unreached, unless the best
  // unit counts.
  Show({{.25f, .25f, .25f, .25f}, {1, 1, 1, 1}});
  EXPECT_LT(Score(0), -1e37f);
  EXPECT_FLOAT_EQ(Score(3), 1.0f / 4);

  Load({Hotword(3, 3, {0, .5f})}, 1);
  // At frame 2 unit 1 ties unit 0 at 1.5 and is re-entered: its peak restarts
  // at 0.25, below its floor. Without the tie it stays with its peak of 1.
  Show({{.5f, 1, 0}, {1, 1, .25f}});
  EXPECT_EQ(Score(0), 0.0f);
  Show({{.5f, .75f, 0}, {1, 1, .25f}});
  EXPECT_FLOAT_EQ(Score(0), 1.75f / 3);
}

TEST_F(SearchTest, PieceSearchUsesHotwordFloorsAndNoEndTest) {
  Load({Hotword(3, 6, {0, .75f, .75f}), Hotword(3, 6, {.75f, 0, 0})}, 1);
  Show({{0, 0, 0, 0, 0, 0}, {.5f, .5f, .5f, .5f, .5f, .5f}, {.5f, .5f, .5f, .5f, .5f, .5f}});
  // Units 1 and 2 over frames 0-3 take the floors of units 0 and 1: 2.0 / 4.
  EXPECT_FLOAT_EQ(det_->HotwordViterbiSearch(0, 0, 4, {4, 1, 3}), 0.5f);
  EXPECT_LT(det_->HotwordViterbiSearch(0, 1, 4, {4, 1, 3}), -1e37f);  // 0.75 locks unit 1
  EXPECT_EQ(det_->HotwordViterbiSearch(0, 0, 4, {10, 2, 1}), 0.0f);  // end before start
  EXPECT_FLOAT_EQ(det_->HotwordViterbiSearch(0, 0, 99, {6, 1, 2}), 0.5f);  // the 6 frames there are
}

TEST_F(SearchTest, SoftFloorChargesWeakFramesAndEqualsViterbiWithoutFloors) {
  Load({Hotword(6, 10, {.5f, .25f}), Hotword(3, 12, {0, 0, 0}), Hotword(6, 12, {0, 0, 0})}, 1);
  // Unit 1 enters at frame 1 (1.25), then pays 0.25 for each of eight frames
  // below its floor.
  Show({{.75f, .25f, .5f, 0, 0, 0, 0, 0, 0, 0},
        {0, .5f, .125f, .125f, .125f, .125f, .125f, .125f, .125f, .125f}});
  EXPECT_FLOAT_EQ(Score(0), -0.075f);
  std::mt19937 rng(7);
  for (int trial = 0; trial < 20; ++trial) {
    Show(Random(&rng, 16));
    EXPECT_EQ(Score(1), Score(2));
  }
}

// The best sum over alignments in which units 1..n-1 hold at least one frame
// each, in order, and the last unit holds the last frame; -1 if none fits.
float BestAlignment(const Columns& w, int unit, int frame, float sum) {
  const int frames = static_cast<int>(w[0].size());
  if (unit + 1 == static_cast<int>(w.size())) {
    for (int f = frame; f < frames; ++f) sum += w[unit][f];
    return sum;
  }
  float best = -1;
  for (int end = (unit == 0 ? frame : frame + 1); end < frames; ++end) {
    float held = sum;
    for (int f = frame; f < end; ++f) held += w[unit][f];
    best = std::max(best, BestAlignment(w, unit + 1, end, held));
  }
  return best;
}

TEST_F(SearchTest, TracebackScoresTheBestAlignmentAndCountsItsStates) {
  Load({Hotword(7, 16, {0}), Hotword(7, 16, {0, 0}), Hotword(7, 16, {0, 0, 0})}, 1);
  std::mt19937 rng(11);
  for (int trial = 0; trial < 60; ++trial) {
    Columns window = Random(&rng, 10);
    Show(window);
    window.resize(1 + trial % 3);
    const float best = BestAlignment(window, 0, 0, 0);
    EXPECT_EQ(Score(trial % 3), best < 0 ? 0.0f : best / 16);
  }
  // Path: unit 0 frames 0-2, unit 1 frame 3 (its entry frame only), unit 2
  // frames 4-7: 4.25 / 8. Units 0 and 1 peak exactly at their floors.
  const std::vector<float> floors = {.5f, .75f, .25f};
  for (int32 min_stay : {1, 2}) {
    Load({Hotword(7, 8, floors, {2, 1}), Hotword(7, 8, floors, {3, 0}),
          Hotword(7, 8, floors, {0, 2}), Hotword(7, 8, {.25f, 0}, {0, 2})},
         min_stay);
    Show({{.5f, .5f, .5f, 0, 0, 0, 0, 0},
          {0, 0, 0, .75f, 0, 0, 0, 0},
          {0, 0, 0, 0, .5f, .5f, .5f, .5f}});
    EXPECT_FLOAT_EQ(Score(0), 4.25f / 8);
    EXPECT_EQ(Score(1), min_stay == 1 ? 4.25f / 8 : 0.0f);
    EXPECT_EQ(Score(2), 0.0f);
  }
  // A tie hands frame 2 to the transition, so unit 0 keeps frame 1's 0.5,
  // above its floor.
  Show({{.25f, .5f, 0}, {0, .5f, .25f}});
  EXPECT_FLOAT_EQ(Score(3), 1.0f / 8);
}

TEST_F(SearchTest, LogTracebackCapsByMeansAndGivesEarlyFramesToFirstUnit) {
  Load({Hotword(8, 8, {.75f, .25f}, {0, 2})}, 2);
  // The traceback reaches unit 0's first sub-state at frame 1; frame 0, the
  // only one above its floor, still counts. The path, 3.25 / 8, is below the
  // cap (the larger of two means).
  Show({{1, .5f, .5f, 0, 0, 0}, {0, 0, 0, .5f, .5f, .25f}});
  EXPECT_FLOAT_EQ(Score(0), 3.25f / 8);
  Show({{1, .5f}, {0, 0}});  // four sub-states cannot fit two frames
  EXPECT_EQ(Score(0), 0.0f);

  Load({Hotword(8, 8, {0, 0, 0}), Hotword(8, 8, {0, .25f}, {0, 2})}, 1);
  // Means 1, 0.25, 0.25: the weakest left out, (1 + 0.25) / 2 caps 6.5 / 8.
  const Columns window = {
      {1, 1, 1, 1, 1, 1, 0, 0}, {0, 0, 0, 0, 0, 0, .25f, 0}, {0, 0, 0, 0, 0, 0, 0, .25f}};
  Show(window);
  EXPECT_FLOAT_EQ(Score(0), 0.625f);
  // Equal log sums at frame 3 enter unit 1 there, leaving it only 0.25.
  Show({{0, .25f, .5f, .5f}, {.5f, 0, .5f, .25f}});
  EXPECT_EQ(Score(1), 0.0f);
  Load({Hotword(8, 8, {0, 0, 0})}, 0);  // no sub-states to align
  Show(window);
  EXPECT_EQ(Score(0), 0.0f);
}

TEST_F(SearchTest, ReduplicationFiresOnTheSecondInstanceOnly) {
  Load({Hotword(5, 10, {0})}, 1);
  Show({std::vector<float>(10, .75f)});
  EXPECT_EQ(Score(0, 100), 0.0f);  // armed
  EXPECT_EQ(Score(0, 105), 0.0f);  // the same utterance
  det_->PushSlideWindow(0, MatrixFromRows(std::vector<std::vector<float>>(10, {.25f, 0, 0})));
  EXPECT_EQ(Score(0, 112), 0.0f);  // too weak
  det_->PushSlideWindow(0, MatrixFromRows(std::vector<std::vector<float>>(10, {.625f, 0, 0})));
  EXPECT_FLOAT_EQ(Score(0, 112), (.75f + .625f) / 2);
  EXPECT_EQ(Score(0, 113), 0.0f);  // the pair is used up: re-armed
  EXPECT_EQ(Score(0, 200), 0.0f);  // re-armed
  EXPECT_EQ(Score(0, 216), 0.0f);  // 1.6 spans late: re-armed
  EXPECT_FLOAT_EQ(Score(0, 228), .625f);
}

TEST_F(SearchTest, PiecewiseNeedsPiecesInOrderAtAModerateGapAndVotes) {
  // Two units in two pieces: one-frame, one-unit pieces; gaps of 3 to 9.
  options_.refractory_frames = 10;
  TestHotword two = Hotword(4, 2, {0, 0});
  two.num_pieces = 2;
  Load({two}, 1);
  for (int second : {7, 8, 14, 15}) {
    Columns window(2, std::vector<float>(30, 0.0f));
    window[0][5] = window[1][second] = 1;
    Show(window);
    EXPECT_EQ(Score(0), second == 8 || second == 14 ? 1.0f : 0.0f);
  }
  // Three units in two pieces, gaps of 21 to 99: layouts [0][1 2] (spans 10,
  // 20), [0 1][2] (20, 20) and [0 1][2] (20, 10). Unit 2's spike is 21 frames
  // after the first piece inside a 20-frame piece, not a 10-frame one.
  options_.refractory_frames = 100;
  TestHotword three = Hotword(4, 30, {0, 0, 0});
  three.num_pieces = 2;
  Load({three}, 1);
  for (int first_unit : {0, 1}) {
    Columns window(3, std::vector<float>(40, 0.0f));
    window[first_unit][10] = window[2][15] = 100;
    Show(window);
    EXPECT_EQ(Score(0), first_unit == 0 ? 1.0f : 0.0f);  // 2 or 1 of 3
  }
}

TEST_F(SearchTest, PiecewiseMatchesAPlainScanOfPieceSearches) {
  options_.refractory_frames = 30;
  TestHotword hw = Hotword(4, 30, {0, 0, 0});
  hw.num_pieces = 2;
  std::mt19937 rng(3);
  int fired = 0;
  for (int trial = 0; trial < 40; ++trial) {
    hw.sensitivity = 0.2f + 0.0125f * (trial % 40);
    Load({hw}, 1 + trial % 3);
    Columns window = Random(&rng, 60);
    Show(window);
    // Each layout scanned as described, with the public piece search.
    int completed = 0;
    for (const auto& layout : det_->PieceLayouts(0, 0)) {
      size_t next = 0;
      int last = -1;
      for (int t = 0; t < static_cast<int>(window[0].size()); ++t) {
        if (!(det_->HotwordViterbiSearch(0, 0, t, layout[next]) > 1 - hw.sensitivity)) continue;
        const float gap = std::fabs(static_cast<float>(t - last));
        if (next > 0 && !(gap < 30 && gap > 6)) continue;
        last = t;
        if (++next == layout.size()) next = 0, last = -1, ++completed;
      }
    }
    const float vote = completed > 1 ? 1.0f : 0.0f;  // of three layouts
    EXPECT_EQ(Score(0), vote) << "trial " << trial;
    fired += vote > 0;
  }
  EXPECT_GT(fired, 5);
  EXPECT_LT(fired, 35);
}

}  // namespace
}  // namespace kestrel
