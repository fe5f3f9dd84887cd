// Frame processing of the detector stage: Read and its decision rules across
// calls, smoothing, sliding windows and reset.
//
// Most cases use one-unit hotwords scored by the naive search without its
// checks: the score is then the largest value of that column in the window,
// which makes the window contents and each step's score easy to control.
#include <gtest/gtest.h>

#include <memory>

#include "detect-test-util.h"
#include "test-log-capture.h"

namespace kestrel {
namespace {

TestModel ProbeModel(const std::vector<std::vector<int32>>& keywords, int32 slide_window = 100) {
  TestModel model;
  model.slide_window = slide_window;
  model.hotwords.assign(keywords.begin(), keywords.end());
  return model;
}

// A detector on test models, fed by a scripted upstream stage.
struct Harness {
  explicit Harness(const std::vector<TestModel>& models,
                   UniversalDetectStreamOptions options = UniversalDetectStreamOptions()) {
    options.model_str = WriteModels(dir, models);
    options.no_order_check = true;
    det = std::make_unique<UniversalDetectStream>(options);
    det->Connect(&upstream);
  }
  // One Read; the detected hotword number, or 0.
  int Read() {
    signal = det->Read(&data, &info);
    EXPECT_EQ(data.NumRows() == 0 ? 0u : 1u, info.size());
    return data.NumRows() == 0 ? 0 : static_cast<int>(data(0, 0));
  }
  // Feeds one frame with `value` in column 0 at frame id `frame`.
  int ReadAt(int32 frame, float value) {
    upstream.SetNextFrameId(frame);
    upstream.Push({{value, 0.0f, 0.0f}});
    return Read();
  }
  float Probe(int m, int k) { return det->GetHotwordPosterior(m, k, 0); }

  TestDir dir;
  ScriptedStream upstream;
  std::unique_ptr<UniversalDetectStream> det;
  Matrix data;
  std::vector<FrameInfo> info;
  int signal = 0;
};

TEST(DetectReadTest, StopSignalsPassThroughUntouched) {
  Harness h({ProbeModel({{0}})});
  for (int stop : {0x02, 0x40, 0x80 | kSignalFlush}) {
    h.upstream.Push({{0.9f, 0.0f, 0.0f}}, stop);
    h.data.Resize(2, 2);
    h.info.resize(3);
    EXPECT_EQ(0, h.Read());
    EXPECT_EQ(stop, h.signal);
    EXPECT_EQ(0, h.data.NumCols());
    EXPECT_EQ(0.0f, h.Probe(0, 0));  // nothing reached the windows
  }
  EXPECT_EQ(1, h.ReadAt(7, 0.9f));
}

TEST(DetectReadTest, DetectionReportsFirstRecordOfItsStepAndDropsTheRest) {
  UniversalDetectStreamOptions options;
  options.slide_step = 3;
  options.refractory_frames = 0;
  Harness h({ProbeModel({{0}})}, options);
  // Steps of rows 0-2, 3-5 and 6: the detecting step is the short last one.
  h.upstream.Push({{0.1f, 0, 0}, {0.1f, 0, 0}, {0.1f, 0, 0}, {0.2f, 0, 0}, {0.2f, 0, 0},
                   {0.2f, 0, 0}, {0.8f, 0, 0}}, kSignalEndOfUtterance);
  EXPECT_EQ(1, h.Read());
  EXPECT_EQ(kSignalEndOfUtterance, h.signal);
  EXPECT_EQ(6, h.info[0].frame_id);
  // Frames 7-13: the step of frames 10-12 detects and reports frame 10.
  h.upstream.Push({{0.1f, 0, 0}, {0.1f, 0, 0}, {0.1f, 0, 0}, {0.1f, 0, 0}, {0.7f, 0, 0},
                   {0.1f, 0, 0}, {0.4f, 0, 0}});
  EXPECT_EQ(1, h.Read());
  EXPECT_EQ(10, h.info[0].frame_id);
  EXPECT_EQ(0.0f, h.Probe(0, 0));  // windows restarted, and frame 13 was dropped
}

TEST(DetectReadTest, BestHotwordWinsAndEarlierModelsStopTheBlock) {
  UniversalDetectStreamOptions options;
  options.refractory_frames = 0;
  Harness h({ProbeModel({{0}, {1}, {1}}), ProbeModel({{2}})}, options);
  h.upstream.SetNextFrameId(1);  // frame 0 is within 0 frames of the start
  h.upstream.Push({{0.7f, 0.8f, 0.9f}});
  EXPECT_EQ(2, h.Read());  // 0.8 ties between hotwords 2 and 3: the lower wins
  EXPECT_EQ(0.0f, h.Probe(1, 0));  // the second model never saw the block
  h.upstream.Push({{0.1f, 0.1f, 0.9f}});
  EXPECT_EQ(4, h.Read());
}

TEST(DetectReadTest, FlushPushesOutHeldFramesAndResetsWithoutDetection) {
  TestModel model = ProbeModel({{0}});
  // Columns 0-2 hold frame t, 3-5 frame t + 1: one frame is held back.
  model.nnet_text = "<Nnet> <Splice> 6 3 [ 0 1 ] </Nnet>";
  UniversalDetectStreamOptions options;
  options.refractory_frames = 0;
  Harness h({model}, options);
  h.upstream.SetNextFrameId(1);
  h.upstream.Push({{0.9f, 0, 0}});
  EXPECT_EQ(0, h.Read());
  h.upstream.Push({{0.1f, 0, 0}}, kSignalFlush);
  EXPECT_EQ(1, h.Read());  // the held frame came out on the flush
  EXPECT_EQ(1, h.info[0].frame_id);
  h.upstream.Push({{0.3f, 0, 0}, {0.3f, 0, 0}}, kSignalEndOfUtterance);
  EXPECT_EQ(0, h.Read());
  EXPECT_EQ(0.0f, h.Probe(0, 0));  // reset after a flush without detection
  h.upstream.Push({{0.3f, 0, 0}, {0.3f, 0, 0}});
  EXPECT_EQ(0, h.Read());
  EXPECT_FLOAT_EQ(0.3f, h.Probe(0, 0));
}

TEST(DetectReadTest, NearMissLeadsToHighSensitivityModeAcrossCalls) {
  UniversalDetectStreamOptions options;
  options.sensitivity_str = "0.2";       // threshold 0.8
  options.high_sensitivity_str = "0.5";  // threshold 0.5
  Harness h({ProbeModel({{0}}, 1)}, options);
  EXPECT_EQ(0, h.ReadAt(200, 0.6f));  // near miss
  EXPECT_EQ(0, h.ReadAt(250, 0.6f));  // not yet more than 50 frames later
  EXPECT_EQ(1, h.ReadAt(251, 0.6f));  // promoted: judged by the high threshold
  EXPECT_EQ(0, h.ReadAt(351, 0.6f));  // refractory: not more than 100 frames
  EXPECT_EQ(1, h.ReadAt(352, 0.6f));  // the mode survives detections
  EXPECT_EQ(1, h.ReadAt(3353, 0.6f));  // expires, but this step is still high
  EXPECT_EQ(0, h.ReadAt(3460, 0.6f));  // normal again: a new near miss
  EXPECT_EQ(1, h.ReadAt(3470, 0.8f));

  options.high_sensitivity_str.clear();  // high equals normal: no near misses
  Harness same({ProbeModel({{0}}, 1)}, options);
  EXPECT_EQ(0, same.ReadAt(0, 0.9f));  // refractory counts from -100 at the start
  EXPECT_EQ(1, same.ReadAt(1, 0.9f));
  EXPECT_EQ(0, same.ReadAt(200, 0.7f));
  EXPECT_EQ(0, same.ReadAt(260, 0.7f));
  EXPECT_EQ(1, same.ReadAt(261, 0.8f));
}

// The Viterbi and soft-floor searches are skipped where a bound proves them
// below both thresholds; a score exactly at a threshold must still count, as
// a detection or as a near miss.
TEST(DetectReadTest, BoundedSearchesStillCountScoresExactlyAtAThreshold) {
  for (int32 method : {3, 6}) {
    TestModel model = ProbeModel({{1, 2}});
    model.hotwords[0].search = TestSearchGroup{method, 0, {0, 5, 10}, {0.1f, 0.1f}};
    // Five frames of each unit at 0.5: the path over the last ten scores 5 / 10.
    auto feed = [](Harness* h, int32 first_frame, bool pattern) {
      int detected = 0;
      for (int f = 0; f < 10; ++f) {
        h->upstream.SetNextFrameId(first_frame + f);
        const float v = pattern ? 0.5f : 0.0f;
        h->upstream.Push({{0.0f, f < 5 ? v : 0.0f, f < 5 ? 0.0f : v}});
        if (h->Read() != 0) detected = first_frame + f;
      }
      return detected;
    };
    UniversalDetectStreamOptions options;
    options.sensitivity_str = "0.5";
    Harness at_normal({model}, options);
    EXPECT_EQ(9, feed(&at_normal, 0, true)) << method;  // only the last frame completes it

    options.sensitivity_str = "0.4";
    options.high_sensitivity_str = "0.5";
    Harness at_high({model}, options);
    EXPECT_EQ(0, feed(&at_high, 0, true)) << method;  // a near miss at frame 9
    for (int32 first = 10; first < 70; first += 10) EXPECT_EQ(0, feed(&at_high, first, false));
    EXPECT_EQ(79, feed(&at_high, 70, true)) << method;  // judged by the high threshold
  }
}

TEST(DetectReadTest, MisconfiguredStageFailsTheRead) {
  TestModel model = ProbeModel({{0}, {1}});
  model.hotwords[1].search = TestSearchGroup{9, 0, {0, 10}, {0.1f}};
  Harness h({model});
  h.upstream.Push({{0.9f, 0, 0}});
  LogCapture capture;
  try {
    h.Read();
    FAIL();
  } catch (const KestrelError& e) {
    EXPECT_STREQ("UniversalDetectStream: search method has not been implemented.", e.what());
    EXPECT_EQ(529, e.line());
    EXPECT_EQ("float kestrel::UniversalDetectStream::GetHotwordPosterior(kestrel::int32, "
              "kestrel::int32, kestrel::int32)", e.function());
  }
  EXPECT_FLOAT_EQ(0.9f, h.Probe(0, 0));  // what the call changed stays changed

  h.det->SetSlideWindowSize("");
  h.upstream.Push({{0.9f, 0, 0}});
  EXPECT_EQ("UniversalDetectStream: 1 models need one window length each, got 1 smoothing "
            "and 0 slide window lengths.", KESTREL_ERROR_TEXT(h.Read()));
  h.det->Disconnect();
  EXPECT_EQ("UniversalDetectStream: Read needs an upstream stage; call Connect first.",
            KESTREL_ERROR_TEXT(h.Read()));
}

TEST(DetectWindowTest, SmoothingRampsUpAndWindowsKeepTheLastFrames) {
  Harness h({ProbeModel({{0}, {1}}, 5)});
  h.det->SetSmoothWindowSize("3");
  Matrix p = MatrixFromRows({{0.3f, 1}, {0.6f, 1}, {0.9f, 1}, {0.3f, 1}});
  h.det->SmoothPosterior(0, &p);
  const float expected[4][2] = {{0.1f, 1 / 3.f}, {0.3f, 2 / 3.f}, {0.6f, 1}, {0.6f, 1}};
  for (int r = 0; r < 4; ++r) {
    EXPECT_NEAR(expected[r][0], p(r, 0), 1e-6) << r;
    EXPECT_NEAR(expected[r][1], p(r, 1), 1e-6) << r;
  }
  h.det->ResetDetection();
  Matrix again = MatrixFromRows({{0.3f, 0}});
  h.det->SmoothPosterior(0, &again);
  EXPECT_NEAR(0.1f, again(0, 0), 1e-6);

  // Eight frames of falling values into a window of 5: the last five remain.
  h.det->PushSlideWindow(0, MatrixFromRows({{8, 0}, {7, 0}, {6, 0}, {5, 0}, {4, 0}, {3, 0},
                                            {2, 0}, {1, 0}}));
  EXPECT_FLOAT_EQ(5.0f, h.Probe(0, 0));
  h.det->SetSlideWindowSize("2");  // shrinks by one value per value added
  h.det->PushSlideWindow(0, MatrixFromRows({{0, 0}}));
  EXPECT_FLOAT_EQ(4.0f, h.Probe(0, 0));
  h.det->Reset();
  h.det->PushSlideWindow(0, MatrixFromRows({{3, 0}, {2, 0}, {1, 0}}));
  EXPECT_FLOAT_EQ(2.0f, h.Probe(0, 0));
}

}  // namespace
}  // namespace kestrel
