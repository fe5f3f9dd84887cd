// Detector construction, model files (reading, writing, piece layouts) and
// settings, through the stage's public interface.
#include <gtest/gtest.h>

#include <cctype>

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
  std::string text;
  for (const std::string& path : paths) text += ReadFileBytes(path);
  std::string collapsed;
  for (char c : text) {
    const bool space = std::isspace(static_cast<unsigned char>(c));
    if (!space) collapsed += c;
    else if (!collapsed.empty() && collapsed.back() != ' ') collapsed += ' ';
  }
  return collapsed;
}

TEST(DetectConstructionTest, BadOptionsFailWithTheirFixedOrigin) {
  auto origin_and_text = [](const UniversalDetectStreamOptions& options) {
    LogCapture capture;
    try {
      UniversalDetectStream det(options);
    } catch (const KestrelError& e) {
      return e.file() + ":" + std::to_string(e.line()) + " " + e.function() + " " + e.what();
    }
    return std::string("no error");
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

TEST(DetectModelReadTest, AbsentGroupsTakeDefaultsAndHotwordsNumberAcrossFiles) {
  TestDir dir;
  TestModel first;
  first.slide_window = 10;
  first.hotwords = {TestHotword{{0, 1, 2, 1}, 0.25f}, TestHotword{{}}};
  TestModel second;
  second.hotwords = {TestHotword{{2}}, TestHotword{{1}}, TestHotword{{0}}};
  UniversalDetectStream det(Options(WriteModels(dir, {first, second})));
  ASSERT_EQ(2, det.NumModels());
  EXPECT_EQ(2, det.NumHotwords(0));
  EXPECT_EQ(3, det.NumHotwords(1));
  EXPECT_EQ((std::vector<int32>{1, 2}), (std::vector<int32>{det.HotwordId(0, 0), det.HotwordId(0, 1)}));
  EXPECT_EQ(5, det.HotwordId(1, 2));
  EXPECT_EQ(10, det.SlideWindow(0));

  const std::string text = WrittenText(det, dir);
  // The mask spreads 4 units over a window of 10, truncating; an empty
  // keyword gets the single boundary 0.
  EXPECT_NE(std::string::npos,
            text.find("<Kw> [ 0 1 2 1 ] <Sensitivity> 0.25 <SearchMethod> 1 "
                      "<SearchNeighbour> 0 <SearchMask> [ 0 2 5 7 10 ] "
                      "<SearchFloor> [ 0.05 0.05 0.05 0.05 ] <SearchMax> F <NumPieces> 1 "
                      "<DurationPass> 0 <FloorPass> 0"))
      << text;
  EXPECT_NE(std::string::npos, text.find("<Kw> [ ] <Sensitivity> 0.5 <SearchMethod> 1 "
                                         "<SearchNeighbour> 0 <SearchMask> [ 0 ]"))
      << text;
}

TEST(DetectModelReadTest, OptionalGroupsInEveryAllowedCombination) {
  TestDir dir;
  TestModel model;
  const TestSearchGroup search{3, 2, {0, 4, 9}, {0.1f, 0.2f, 0.9f}};  // floor cut to 2
  for (int groups = 0; groups < 16; ++groups) {
    TestHotword hw{{0, 1}};
    if (groups & 1) hw.search = search;
    if ((groups & 3) == 3) hw.search_max = true;  // only after a search group
    if (groups & 4) hw.num_pieces = 2;
    if (groups & 8) hw.passes = std::make_pair(1, 2);
    model.hotwords.push_back(hw);
  }
  UniversalDetectStream det(Options(dir.WriteModel("m", model)));
  ASSERT_EQ(16, det.NumHotwords(0));
  const std::string text = WrittenText(det, dir);
  EXPECT_NE(std::string::npos,
            text.find("<Kw> [ 0 1 ] <Sensitivity> 0.5 <SearchMethod> 3 <SearchNeighbour> 2 "
                      "<SearchMask> [ 0 4 9 ] <SearchFloor> [ 0.1 0.2 ] <SearchMax> T "
                      "<NumPieces> 2 <DurationPass> 1 <FloorPass> 2 </KwInfo>"))
      << text;
  EXPECT_NE(std::string::npos,
            text.find("<SearchMask> [ 0 50 100 ] <SearchFloor> [ 0.05 0.05 ] <SearchMax> F "
                      "<NumPieces> 1 <DurationPass> 1 <FloorPass> 2 <Kw>"))
      << text;
}

TEST(DetectModelReadTest, MalformedFilesFailNamingWhatIsWrong) {
  TestDir dir;
  auto error_for = [&dir](const TestModel& model) {
    return KESTREL_ERROR_TEXT(UniversalDetectStream det(Options(dir.WriteModel("bad", model))));
  };
  const std::string file = "model file \"" + dir.Path("bad") + "\"";
  TestModel model;
  model.hotwords = {TestHotword{{0, 1}}};
  model.hotwords[0].search_max = true;
  EXPECT_EQ("Expected token \"<SearchMethod>\", got instead \"<SearchMax>\".", error_for(model));

  model.hotwords[0] = TestHotword{{0, 3}};
  EXPECT_EQ("UniversalDetectStream: " + file + ", hotword 1: <Kw> unit 3 is not an output of "
            "the network, expected 0 to 2.", error_for(model));

  model.hotwords[0].keyword = {0, 1};
  model.hotwords[0].search = TestSearchGroup{2, 0, {0, 5, 10}, {0.1f}};
  EXPECT_EQ("UniversalDetectStream: " + file + ", hotword 1: <SearchFloor> has 1 values, "
            "expected one for each of the 2 units of <Kw>.", error_for(model));

  model.hotwords[0].search = TestSearchGroup{2, 0, {0, 10}, {0.1f, 0.1f}};
  EXPECT_EQ("UniversalDetectStream: " + file + ", hotword 1: <SearchMask> has 2 entries, "
            "expected 3 (one per unit boundary of <Kw>).", error_for(model));

  model.hotwords[0] = TestHotword{{}};
  model.hotwords[0].search = TestSearchGroup{3, 0, {0}, {}};
  EXPECT_EQ("UniversalDetectStream: " + file + ", hotword 1: <Kw> is empty; only search "
            "method 1 accepts an empty keyword, got method 3.", error_for(model));

  const std::string header = "<UniversalModel> <KwInfo> <SmoothWindow> 1 <SlideWindow> 9 ";
  EXPECT_EQ("UniversalDetectStream: " + file + ": <NumKws> is -1, expected 0 or more hotwords.",
            KESTREL_ERROR_TEXT(UniversalDetectStream det(
                Options(dir.WriteFile("bad", header + "<NumKws> -1 </KwInfo>")))));
  // A huge count fails at its first missing record, without allocating for it.
  EXPECT_EQ("Expected token \"<Kw>\", got instead \"</KwInfo>\".",
            KESTREL_ERROR_TEXT(UniversalDetectStream det(
                Options(dir.WriteFile("bad", header + "<NumKws> 2000000000 </KwInfo>")))));
}

TEST(DetectModelWriteTest, RoundTripsThroughBinaryAndText) {
  TestDir dir;
  TestModel model;
  model.smooth_window = 4;
  model.hotwords = {TestHotword{{2, 0}, 0.3f}, TestHotword{{1}, 0.7f}};
  model.hotwords[1].search = TestSearchGroup{7, 1, {0, 30}, {0.25f}};
  model.hotwords[1].passes = std::make_pair(3, 4);
  TestModel empty;  // no hotwords: loaded and written like any other
  const std::string model_str = WriteModels(dir, {model, empty});
  UniversalDetectStreamOptions options = Options(model_str);
  options.sensitivity_str = "0.125,0.375";  // saved with the model
  UniversalDetectStream original(options);
  const std::string text = WrittenText(original, dir);

  original.UpdateModel();
  const std::string binary = ReadFileBytes(dir.Path("m0"));
  ASSERT_GE(binary.size(), 2u);
  EXPECT_EQ(std::string("\0B", 2), binary.substr(0, 2));
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

TEST(DetectSettingsTest, SensitivityListsByHotwordByModelOrForAll) {
  TestDir dir;
  TestModel one, three;
  one.hotwords = {TestHotword{{0}, 0.5f}};
  three.hotwords = {TestHotword{{0}, 0.4f}, TestHotword{{1}, 0.45f}, TestHotword{{2}, 0.1f}};
  UniversalDetectStreamOptions options = Options(WriteModels(dir, {one, three}));
  UniversalDetectStream kept(options);
  EXPECT_EQ("0.5, 0.4, 0.45, 0.1", kept.GetSensitivity());
  EXPECT_EQ(0.0f, kept.HighSensitivity(1, 2));  // no list: stays as loaded

  options.sensitivity_str = "0.25";
  UniversalDetectStream det(options);
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
}

TEST(DetectSettingsTest, WindowListsAndModelCounts) {
  TestDir dir;
  TestModel model;
  model.hotwords = {TestHotword{{0}}, TestHotword{{1}}};
  UniversalDetectStreamOptions options = Options(dir.WriteModel("a", model));
  options.smooth_window_str = "7";
  options.slide_window_str = "40";
  UniversalDetectStream det(options);
  EXPECT_EQ(7, det.SmoothWindow(0));
  EXPECT_EQ(40, det.SlideWindow(0));
  EXPECT_EQ("ConvertStringToIntegerOrFloat: only part of the string can be converted to "
            "float or integer: 9x", KESTREL_ERROR_TEXT(det.SetSlideWindowSize("40,9x")));

  LogCapture capture;
  EXPECT_EQ(0, det.NumHotwords(-1));
  EXPECT_EQ(0, det.NumHotwords(1));
  EXPECT_EQ(2, det.NumHotwords(0));
  ASSERT_EQ(2u, capture.messages.size());
  EXPECT_EQ(kKestrelWarning, capture.messages[0].type);
  EXPECT_EQ("UniversalDetectStream: model id runs out of range, expecting a value between "
            "[0, 1), got -1 instead.", capture.messages[0].text);
}

}  // namespace
}  // namespace kestrel
