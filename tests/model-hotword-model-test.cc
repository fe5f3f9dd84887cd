// HotwordModel: the model file read from files, streams and memory, written
// back, and checked when built in code. The detector's use of the same reader
// (defaults, messages) is covered in detect-read-test.cc.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "detect-test-util.h"
#include "model/hotword-model.h"
#include "test-log-capture.h"

namespace kestrel {
namespace {

std::string Written(const HotwordModel& model, bool binary) {
  std::ostringstream os;
  model.Write(os, binary);
  return os.str();
}

TEST(HotwordModelTest, FileMemoryAndStreamFormsAgreeInBothEncodings) {
  TestDir dir;
  TestModel source;
  source.smooth_window = 4;
  source.hotwords = {TestHotword{{2, 0}, 0.3f}, TestHotword{{1}, 0.7f}};
  source.hotwords[1].search = TestSearchGroup{7, 1, {0, 30}, {0.25f, 0.5f}};
  source.hotwords[1].passes = std::make_pair(3, 4);
  const HotwordModel model = HotwordModel::ReadFile(dir.WriteModel("m", source));
  ASSERT_EQ(2u, model.hotwords.size());
  for (bool binary : {true, false}) {
    const std::string bytes = Written(model, binary);
    model.WriteFile(dir.Path("out"), binary);
    EXPECT_EQ(bytes, ReadFileBytes(dir.Path("out")));
    EXPECT_EQ(binary, bytes.compare(0, 2, std::string("\0B", 2)) == 0);
    const HotwordModel from_memory = HotwordModel::ReadMemory(bytes.data(), bytes.size(), "mem");
    EXPECT_EQ("mem", from_memory.name);
    EXPECT_EQ(bytes, Written(from_memory, binary));
    std::istringstream is(bytes);
    EXPECT_EQ(bytes, Written(HotwordModel::Read(is, "stream"), binary));
  }
}

TEST(HotwordModelTest, MessagesNameTheBufferAndTheReporter) {
  TestModel source;
  source.hotwords = {TestHotword{{0, 5}}};
  const std::string text = TestModelText(source);
  EXPECT_EQ("HotwordModel: model file \"built-in\", hotword 1: <Kw> unit 5 is not an output of "
            "the network, expected 0 to 2.",
            KESTREL_ERROR_TEXT(HotwordModel::ReadMemory(text.data(), text.size(), "built-in")));
  EXPECT_EQ("Expected token \"<UniversalModel>\", got instead \"<Kw>\".",
            KESTREL_ERROR_TEXT(HotwordModel::ReadMemory("<Kw>", 4, "x")));

  // Built in code: Check applies the reader's rules.
  source.hotwords = {TestHotword{{0, 1}}};
  HotwordModel model = HotwordModel::ReadMemory(TestModelText(source).data(),
                                                TestModelText(source).size(), "edited");
  EXPECT_EQ("", KESTREL_ERROR_TEXT(model.Check()));
  model.hotwords[0].search_floor.pop_back();
  EXPECT_EQ("Stage: model file \"edited\", hotword 1: <SearchFloor> has 1 values, expected one "
            "for each of the 2 units of <Kw>.",
            KESTREL_ERROR_TEXT(model.Check("Stage")));
  model.nnet = Nnet();
  model.hotwords.clear();
  EXPECT_EQ("HotwordModel: model file \"edited\": the network has 0 outputs, expected 1 to "
            "65536.",
            KESTREL_ERROR_TEXT(model.Check()));
}

TEST(HotwordModelTest, NamesFollowTheNetworkAndSurviveEveryRoundTrip) {
  TestModel source;
  source.hotwords = {TestHotword{{1}}, TestHotword{{2}}};
  const std::string text = TestModelText(source);
  HotwordModel model = HotwordModel::ReadMemory(text.data(), text.size(), "m");
  EXPECT_EQ("", model.hotwords[0].name);
  // Unnamed models are written as before: nothing after the network.
  for (bool binary : {true, false}) {
    EXPECT_EQ(std::string::npos, Written(model, binary).find("<HotwordNames>"));
  }
  model.hotwords[0].name = "hey computer";
  model.hotwords[1].name = "okay l'antern";
  for (bool binary : {true, false}) {
    const std::string bytes = Written(model, binary);
    // After the network, where readers that stop there never look.
    EXPECT_GT(bytes.find("<HotwordNames>"), bytes.find("</Nnet>"));
    const HotwordModel back = HotwordModel::ReadMemory(bytes.data(), bytes.size(), "m");
    EXPECT_EQ("hey computer", back.hotwords[0].name);
    EXPECT_EQ("okay l'antern", back.hotwords[1].name);
    EXPECT_EQ(bytes, Written(back, binary));
  }
  // Names a file cannot hold are refused before anything is written.
  for (const char* bad : {"hey_computer", " hey", "", "tab\there"}) {
    model.hotwords[1].name = bad;
    EXPECT_NE("", KESTREL_ERROR_TEXT(Written(model, true))) << bad;
    EXPECT_NE("", KESTREL_ERROR_TEXT(model.Check())) << bad;
  }
  model.hotwords[0].name = "";
  model.hotwords[1].name = "okay";
  EXPECT_EQ("HotwordModel: model file \"m\", hotword 2: named \"okay\" while hotword 1 has no "
            "name; name every hotword or none.",
            KESTREL_ERROR_TEXT(model.Check()));
}

TEST(HotwordModelTest, MalformedNameBlocksFailNamingTheFile) {
  TestModel source;
  source.hotwords = {TestHotword{{1}}};
  const std::string model = TestModelText(source);
  const std::string where = "HotwordModel: model file \"f\": ";
  const std::pair<std::string, std::string> cases[] = {
      {"<HotwordNames> 2 a b </HotwordNames>",
       where + "<HotwordNames> must give one name for each of the 1 hotwords, not a count of 2."},
      {"<HotwordNames> x </HotwordNames>",
       where + "<HotwordNames> must give one name for each of the 1 hotwords, not a count of "
               "(unreadable)."},
      {"<HotwordNames> 1 hey",
       where + "<HotwordNames> of 1 names ends with \"\" instead of </HotwordNames>."},
      {"<HotwordNames> 1 hey there </HotwordNames>",
       where + "<HotwordNames> of 1 names ends with \"there\" instead of </HotwordNames>."},
      {"<HotwordNamez> 1 hey </HotwordNames>",
       where + "expected <HotwordNames> after the network, got \"<HotwordNamez>\"."},
      {"<HotwordNames> 1 \x01hey </HotwordNames>",
       "HotwordModel: model file \"f\", hotword 1: name \"\x01hey\" cannot be stored; a name "
       "is not empty, has no control characters, no '_' and no space at either end."},
  };
  for (const auto& [block, error] : cases) {
    const std::string bytes = model + block;
    EXPECT_EQ(error, KESTREL_ERROR_TEXT(HotwordModel::ReadMemory(bytes.data(), bytes.size(), "f")))
        << block;
  }
  // Anything else after the network is ignored, as it always was.
  const std::string trailing = model + "# a comment\n";
  EXPECT_EQ("", KESTREL_ERROR_TEXT(HotwordModel::ReadMemory(trailing.data(), trailing.size(), "f")));
}

}  // namespace
}  // namespace kestrel
