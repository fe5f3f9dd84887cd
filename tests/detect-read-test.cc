// The detector stage through its public interface: construction, model files
// (reading, writing, piece layouts) and settings; frame processing (Read and
// its decision rules across calls, smoothing, sliding windows, reset); the
// hotword searches.
//
// Most frame cases use one-unit hotwords scored by the naive search without
// its checks: the score is then the largest value of that column in the
// window, which makes the window contents and each step's score easy to
// control.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <sstream>
#include <vector>

#include "detect-test-util.h"
#include "test-log-capture.h"

namespace kestrel {
namespace {

UniversalDetectStreamOptions Options(const std::string& model_str) {
  UniversalDetectStreamOptions options;
  options.model_str = model_str;
  return options;
}

// The loaded models written in text, whitespace collapsed, for matching fields.
std::string WrittenText(const UniversalDetectStream& det, const TestDir& dir) {
  std::vector<std::string> paths;
  for (int m = 0; m < det.NumModels(); ++m) paths.push_back(dir.Path("written" + std::to_string(m)));
  det.WriteHotwordModel(false, JoinModelPaths(paths));
  std::string collapsed, word;
  for (const std::string& path : paths) {
    std::istringstream is(ReadFileBytes(path));
    while (is >> word) collapsed += (collapsed.empty() ? "" : " ") + word;
  }
  return collapsed;
}

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
  // Queues one frame per value, each with the value in column 0.
  void Push(const std::vector<float>& column0, int signal = 0) {
    std::vector<std::vector<float>> rows;
    for (float v : column0) rows.push_back({v, 0, 0});
    upstream.Push(rows, signal);
  }
  // Feeds one frame with `value` in column 0 at frame id `frame`.
  int ReadAt(int32 frame, float value) {
    upstream.SetNextFrameId(frame);
    Push({value});
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

// "file:line function text" of the error `f` throws.
template <class F>
std::string ErrorWithOrigin(F f) {
  LogCapture capture;
  try {
    f();
  } catch (const KestrelError& e) {
    return e.file() + ":" + std::to_string(e.line()) + " " + e.function() + " " + e.what();
  }
  return "no error";
}

TEST(DetectConstructionTest, BadOptionsFailWithTheirFixedOrigin) {
  auto origin_and_text = [](const UniversalDetectStreamOptions& options) {
    return ErrorWithOrigin([&] { UniversalDetectStream det(options); });
  };
  const std::string origin =
      "kestrel::UniversalDetectStream::UniversalDetectStream(const "
      "kestrel::UniversalDetectStreamOptions&) UniversalDetectStream: ";
  TestDir dir;
  UniversalDetectStreamOptions options;
  options.slide_step = 0;  // the model string is checked first
  EXPECT_EQ("universal-detect-stream:25 " + origin + "please specify models through --model-str.",
            origin_and_text(options));
  options.model_str = dir.WriteModel("a", {});
  for (int step : {0, -1}) {
    options.slide_step = step;
    EXPECT_EQ("universal-detect-stream:28 " + origin + "slide step size should be positive.",
              origin_and_text(options));
  }
  EXPECT_EQ("UniversalDetectStream: no model can be extracted from --model-str: ,,",
            KESTREL_ERROR_TEXT(UniversalDetectStream det(Options(",,"))));
}

// Optional groups absent take their defaults; the second model holds every
// allowed combination of them.
TEST(DetectModelReadTest, OptionalGroupsInEveryCombinationAndHotwordsNumberAcrossFiles) {
  TestDir dir;
  TestModel first;
  first.slide_window = 10;
  first.hotwords = {TestHotword{{0, 1, 2, 1}, 0.25f}, TestHotword{{}}};
  TestModel second;
  const TestSearchGroup search{3, 2, {0, 4, 9}, {0.1f, 0.2f, 0.9f}};  // floor cut to 2
  for (int groups = 0; groups < 16; ++groups) {
    TestHotword hw{{0, 1}};
    if (groups & 1) hw.search = search;
    if ((groups & 3) == 3) hw.search_max = true;  // only after a search group
    if (groups & 4) hw.num_pieces = 2;
    if (groups & 8) hw.passes = std::make_pair(1, 2);
    second.hotwords.push_back(hw);
  }
  UniversalDetectStream det(Options(WriteModels(dir, {first, second})));
  ASSERT_EQ(2, det.NumModels());
  EXPECT_EQ(2, det.NumHotwords(0));
  EXPECT_EQ(16, det.NumHotwords(1));
  EXPECT_EQ((std::vector<int32>{1, 2}), (std::vector<int32>{det.HotwordId(0, 0), det.HotwordId(0, 1)}));
  EXPECT_EQ(18, det.HotwordId(1, 15));

  const std::string text = WrittenText(det, dir);
  // The mask spreads 4 units over a window of 10, truncating; an empty
  // keyword gets the single boundary 0.
  for (const char* written :
       {"<Kw> [ 0 1 2 1 ] <Sensitivity> 0.25 <SearchMethod> 1 <SearchNeighbour> 0 <SearchMask> "
        "[ 0 2 5 7 10 ] <SearchFloor> [ 0.05 0.05 0.05 0.05 ] <SearchMax> F <NumPieces> 1 "
        "<DurationPass> 0 <FloorPass> 0",
        "<Kw> [ ] <Sensitivity> 0.5 <SearchMethod> 1 <SearchNeighbour> 0 <SearchMask> [ 0 ]",
        "<Kw> [ 0 1 ] <Sensitivity> 0.5 <SearchMethod> 3 <SearchNeighbour> 2 <SearchMask> "
        "[ 0 4 9 ] <SearchFloor> [ 0.1 0.2 ] <SearchMax> T <NumPieces> 2 <DurationPass> 1 "
        "<FloorPass> 2 </KwInfo>",
        "<SearchMask> [ 0 50 100 ] <SearchFloor> [ 0.05 0.05 ] <SearchMax> F <NumPieces> 1 "
        "<DurationPass> 1 <FloorPass> 2 <Kw>"}) {
    EXPECT_NE(std::string::npos, text.find(written)) << written << "\nin: " << text;
  }
}

TEST(DetectModelReadTest, MalformedFilesFailNamingWhatIsWrong) {
  TestDir dir;
  const std::string path = dir.Path("bad");
  const std::string in_hotword = "UniversalDetectStream: model file \"" + path + "\", hotword 1: ";
  auto error_for_text = [&dir](const std::string& text) {
    return KESTREL_ERROR_TEXT(UniversalDetectStream det(Options(dir.WriteFile("bad", text))));
  };
  // A hotword with a search group, or without one but with <SearchMax>.
  auto with = [](std::vector<int32> keyword, std::optional<TestSearchGroup> search) {
    TestHotword hw(std::move(keyword));
    hw.search = std::move(search);
    hw.search_max = search ? std::nullopt : std::optional<bool>(true);
    return hw;
  };
  const std::pair<TestHotword, std::string> cases[] = {
      {with({0, 1}, {}), "Expected token \"<SearchMethod>\", got instead \"<SearchMax>\"."},
      {TestHotword({0, 3}),
       in_hotword + "<Kw> unit 3 is not an output of the network, expected 0 to 2."},
      {with({0, 1}, TestSearchGroup{2, 0, {0, 5, 10}, {0.1f}}),
       in_hotword + "<SearchFloor> has 1 values, expected one for each of the 2 units of <Kw>."},
      {with({0, 1}, TestSearchGroup{2, 0, {0, 10}, {0.1f, 0.1f}}),
       in_hotword + "<SearchMask> has 2 entries; the DTW search (method 2) needs 3, one per "
                    "unit boundary of <Kw>."},
      {with({0, 1}, TestSearchGroup{7, 0, {}, {0.1f, 0.1f}}),
       in_hotword + "<SearchMask> is empty; search method 7 (Viterbi with traceback) needs its "
                    "last entry as the span it searches."},
      {with({}, TestSearchGroup{3, 0, {0}, {}}),
       in_hotword + "<Kw> is empty; only search method 1 accepts an empty keyword, got method 3."},
  };
  for (const auto& [hotword, error] : cases) {
    EXPECT_EQ(error, error_for_text(TestModelText({1, 100, {hotword}, 3, ""})));
  }
  const std::string header = "<UniversalModel> <KwInfo> <SmoothWindow> 1 <SlideWindow> 9 ";
  EXPECT_EQ("UniversalDetectStream: model file \"" + path +
                "\": <NumKws> is -1, expected 0 or more hotwords.",
            error_for_text(header + "<NumKws> -1 </KwInfo>"));
  // A huge count fails at its first missing record, without allocating for it.
  EXPECT_EQ("Expected token \"<Kw>\", got instead \"</KwInfo>\".",
            error_for_text(header + "<NumKws> 2000000000 </KwInfo>"));
  // Names after the network: one per hotword, closed.
  const std::string named =
      TestModelText({1, 100, {TestHotword({0, 1})}, 3, ""}) + "<HotwordNames> ";
  EXPECT_EQ("UniversalDetectStream: model file \"" + path + "\": <HotwordNames> must give one "
            "name for each of the 1 hotwords, not a count of 0.",
            error_for_text(named + "0 </HotwordNames>"));
  EXPECT_EQ("UniversalDetectStream: model file \"" + path + "\": <HotwordNames> of 1 names ends "
            "with \"\" instead of </HotwordNames>.",
            error_for_text(named + "1 hey"));
}

TEST(DetectModelWriteTest, RoundTripsThroughBinaryAndTextKeepingTheNames) {
  TestDir dir;
  TestModel model;
  model.smooth_window = 4;
  model.hotwords = {TestHotword{{2, 0}, 0.3f}, TestHotword{{1}, 0.7f}};
  model.hotwords[1].search = TestSearchGroup{7, 1, {0, 30}, {0.25f}};
  model.hotwords[1].passes = std::make_pair(3, 4);
  TestModel empty;  // no hotwords: loaded and written like any other
  const std::string model_str = JoinModelPaths(
      {dir.WriteFile("m0", TestModelText(model) + "<HotwordNames> 2 hey_computer b </HotwordNames>"),
       dir.WriteModel("m1", empty)});
  UniversalDetectStreamOptions options = Options(model_str);
  options.sensitivity_str = "0.125,0.375";  // saved with the model
  UniversalDetectStream original(options);
  const std::string text = WrittenText(original, dir);

  original.UpdateModel();
  const std::string binary = ReadFileBytes(dir.Path("m0"));
  ASSERT_GE(binary.size(), 2u);
  EXPECT_EQ(std::string("\0B", 2), binary.substr(0, 2));
  EXPECT_EQ("hey computer", HotwordModel::ReadFile(dir.Path("m0")).hotwords[0].name);
  UniversalDetectStream reloaded(Options(model_str));
  EXPECT_EQ(text, WrittenText(reloaded, dir));
  EXPECT_EQ("0.125, 0.125", reloaded.GetSensitivity());
  EXPECT_EQ(0, reloaded.NumHotwords(1));

  EXPECT_EQ("UniversalDetectStream: cannot write 2 models to the 1 files named in \"" +
                dir.Path("c") + "\"; name one file per model.",
            KESTREL_ERROR_TEXT(reloaded.WriteHotwordModel(true, dir.Path("c"))));
  EXPECT_FALSE(std::filesystem::exists(dir.Path("c")));
}

TEST(DetectPieceLayoutTest, LayoutsOfPiecewiseModels) {
  TestDir dir;
  auto piecewise = [](std::vector<int32> keyword, int32 pieces) {
    TestHotword hw{std::move(keyword)};
    std::vector<int32> mask(hw.keyword.size() + 1, 0);
    hw.search = TestSearchGroup{4, 0, mask, std::vector<float>(hw.keyword.size(), 0.1f)};
    hw.num_pieces = pieces;
    return hw;
  };
  TestModel model;
  model.num_outputs = 10;
  model.hotwords = {piecewise({0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, 3), piecewise({0, 1, 2, 3, 4}, 4),
                    piecewise({0, 1, 2}, 5), TestHotword{{0, 1}}};
  UniversalDetectStream det(Options(dir.WriteModel("m", model)));
  auto layouts_of = [&det](int k) {
    std::vector<std::vector<int32>> out;
    for (const auto& layout : det.PieceLayouts(0, k)) {
      out.emplace_back();
      for (const auto& p : layout) out.back().insert(out.back().end(), {p.span_frames, p.first_unit, p.end_unit});
    }
    return out;
  };
  using Layouts = std::vector<std::vector<int32>>;
  EXPECT_EQ((Layouts{{10, 0, 1, 20, 1, 3, 70, 3, 10},
                     {40, 0, 4, 40, 4, 8, 40, 8, 10},
                     {30, 0, 3, 20, 3, 5, 50, 5, 10}}),
            layouts_of(0));
  // Raised steps overshoot the keyword; the last piece still ends it.
  const Layouts five = layouts_of(1);
  EXPECT_EQ((std::vector<int32>{10, 0, 1, 20, 1, 3, 30, 3, 6, -10, 6, 5}), five[0]);
  EXPECT_EQ((std::vector<int32>{20, 0, 2, 20, 2, 4, 20, 4, 6, 20, 6, 5}), five[1]);
  EXPECT_EQ((Layouts(3, {1, 0, 1, 1, 1, 2, 1, 2, 3})), layouts_of(2));
  EXPECT_EQ(1, det.NumPieceLayouts(0, 2));
  EXPECT_EQ(3, det.NumPieceLayouts(0, 0));
  EXPECT_EQ((Layouts(3, {20, 0, 2})), layouts_of(3));  // every hotword, whatever its method

  std::swap(model.hotwords[0], model.hotwords[3]);  // first hotword not piecewise: no layouts
  UniversalDetectStream not_piecewise(Options(dir.WriteModel("m", model)));
  EXPECT_TRUE(not_piecewise.PieceLayouts(0, 3).empty());

  UniversalDetectStreamOptions options = Options(dir.WriteModel("p", {10, 100, {piecewise({0, 1}, 1)}, 3, ""}));
  options.num_piece_layouts = -2;
  EXPECT_EQ("UniversalDetectStream: num_piece_layouts is -2, expected 0 or more.",
            KESTREL_ERROR_TEXT(UniversalDetectStream det(options)));
}

TEST(DetectSettingsTest, SensitivityAndWindowListsByHotwordByModelOrForAll) {
  TestDir dir;
  TestModel one, three;
  one.hotwords = {TestHotword{{0}, 0.5f}};
  three.hotwords = {TestHotword{{0}, 0.4f}, TestHotword{{1}, 0.45f}, TestHotword{{2}, 0.1f}};
  UniversalDetectStreamOptions options = Options(WriteModels(dir, {one, three}));
  UniversalDetectStream kept(options);
  EXPECT_EQ("0.5, 0.4, 0.45, 0.1", kept.GetSensitivity());
  EXPECT_EQ(0.0f, kept.HighSensitivity(1, 2));  // no list: stays as loaded

  options.sensitivity_str = "0.25";
  options.smooth_window_str = "5,7";
  options.slide_window_str = "30,40";
  UniversalDetectStream det(options);
  EXPECT_EQ(7, det.SmoothWindow(1));
  EXPECT_EQ(30, det.SlideWindow(0));
  EXPECT_EQ(40, det.SlideWindow(1));
  EXPECT_EQ("0.25, 0.25, 0.25, 0.25", det.GetSensitivity());
  EXPECT_EQ(0.25f, det.HighSensitivity(1, 1));  // falls back to the sensitivity list
  det.SetSensitivity("0.1,0.2");
  EXPECT_EQ("0.1, 0.2, 0.2, 0.2", det.GetSensitivity());
  det.SetSensitivity("1,2,3,4");
  EXPECT_EQ("1, 2, 3, 4", det.GetSensitivity());
  EXPECT_EQ("Number of sensitivities does not match number of hotwords (3 v.s. 4). "
            "Note that each universal model may has multiple hotwords.",
            KESTREL_ERROR_TEXT(det.SetSensitivity("1,2,3")));
  EXPECT_EQ("1, 2, 3, 4", det.GetSensitivity());
  det.SetHighSensitivity("0.5,0.6");
  EXPECT_EQ(0.6f, det.HighSensitivity(1, 0));
  EXPECT_EQ("ConvertStringToIntegerOrFloat: only part of the string can be converted to "
            "float or integer: 9x", KESTREL_ERROR_TEXT(det.SetSlideWindowSize("40,9x")));

  LogCapture capture;
  EXPECT_EQ(0, det.NumHotwords(-1));
  EXPECT_EQ(0, det.NumHotwords(2));
  EXPECT_EQ(3, det.NumHotwords(1));
  ASSERT_EQ(2u, capture.messages.size());
  EXPECT_EQ(kKestrelWarning, capture.messages[0].type);
  EXPECT_EQ("UniversalDetectStream: model id runs out of range, expecting a value between "
            "[0, 2), got -1 instead.", capture.messages[0].text);
}

TEST(DetectReadTest, StopSignalsPassThroughUntouched) {
  Harness h({ProbeModel({{0}})});
  for (int stop : {0x02, 0x40, 0x80 | kSignalFlush}) {
    h.Push({.9f}, stop);
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
  h.Push({.1f, .1f, .1f, .2f, .2f, .2f, .8f}, kSignalEndOfUtterance);
  EXPECT_EQ(1, h.Read());
  EXPECT_EQ(kSignalEndOfUtterance, h.signal);
  EXPECT_EQ(6, h.info[0].frame_id);
  // Frames 7-13: the step of frames 10-12 detects and reports frame 10.
  h.Push({.1f, .1f, .1f, .1f, .7f, .1f, .4f});
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
  h.Push({.9f});
  EXPECT_EQ(0, h.Read());
  h.Push({.1f}, kSignalFlush);
  EXPECT_EQ(1, h.Read());  // the held frame came out on the flush
  EXPECT_EQ(1, h.info[0].frame_id);
  h.Push({.3f, .3f}, kSignalEndOfUtterance);
  EXPECT_EQ(0, h.Read());
  EXPECT_EQ(0.0f, h.Probe(0, 0));  // reset after a flush without detection
  h.Push({.3f, .3f});
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
  h.Push({.9f});
  EXPECT_EQ("universal-detect-stream:529 float kestrel::UniversalDetectStream::GetHotwordPosterior("
            "kestrel::int32, kestrel::int32, kestrel::int32) UniversalDetectStream: search method "
            "has not been implemented.",
            ErrorWithOrigin([&] { h.Read(); }));
  EXPECT_FLOAT_EQ(0.9f, h.Probe(0, 0));  // what the call changed stays changed

  h.det->SetSlideWindowSize("");
  h.Push({.9f});
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
  for (int i = 0; i < 8; ++i) EXPECT_NEAR(expected[i / 2][i % 2], p(i / 2, i % 2), 1e-6) << i;
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

// The searches, driven through the detector's public windows: posteriors
// pushed straight into the sliding windows, scores checked against values
// worked out by hand (dyadic posteriors, so every float sum is exact) or
// against brute force.
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

// A mask is read as stored: the span-based searches use its last entry
// whatever its length, DTW its first units + 1 entries, and the naive and
// piecewise searches may have none.
TEST_F(SearchTest, MasksOfAnyLengthServeTheEntriesTheirSearchReads) {
  auto with_mask = [](TestHotword hw, std::vector<int32> mask) {
    hw.search->mask = std::move(mask);
    return hw;
  };
  Load({Hotword(3, 6, {.25f, .25f}), with_mask(Hotword(3, 6, {.25f, .25f}), {6}),
        with_mask(Hotword(6, 6, {.25f, .25f}), {0, 1, 2, 3, 6}), Hotword(6, 6, {.25f, .25f}),
        Hotword(2, 6, {0, 0}), with_mask(Hotword(2, 6, {0, 0}), {0, 3, 6, 1, 99}),
        with_mask(Hotword(1, 6, {0, 0}), {}), with_mask(Hotword(4, 6, {0, 0}), {})},
       1);
  std::mt19937 rng(8);
  for (int i = 0; i < 50; ++i) {
    Show(Random(&rng, 12));
    EXPECT_EQ(Score(0), Score(1));
    EXPECT_EQ(Score(3), Score(2));
    EXPECT_EQ(Score(4), Score(5));
  }
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
