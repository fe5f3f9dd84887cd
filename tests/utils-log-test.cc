// Logging and errors, and the string helpers that options and lists go through.
#include <gtest/gtest.h>

#include <climits>

#include "test-log-capture.h"
#include "utils/kestrel-log.h"
#include "utils/kestrel-utils.h"

namespace kestrel {
namespace {

void FailWith(int value) { KESTREL_ERR("some-file") << "bad value " << value << "."; }

TEST(LogTest, ErrorEmitsThenThrowsWithExactTextAndOrigin) {
  LogCapture capture;
  try {
    FailWith(7);
    FAIL() << "no exception";
  } catch (const KestrelError& e) {
    EXPECT_STREQ("bad value 7.", e.what());
    EXPECT_EQ(kKestrelError, e.type());
    EXPECT_EQ("some-file", e.file());
    EXPECT_GT(e.line(), 0);
    EXPECT_EQ("void kestrel::{anonymous}::FailWith(int)", e.function());
  }
  ASSERT_EQ(1u, capture.messages.size());
  EXPECT_EQ("bad value 7.", capture.messages[0].text);
  EXPECT_EQ(kKestrelError, capture.messages[0].type);
}

TEST(LogTest, WarningReturnsAndExplicitLineIsKept) {
  LogCapture capture;
  KestrelLogMsg(529, "universal-detect-stream", "f()", kKestrelWarning, 0).stream() << "w " << 3u;
  ASSERT_EQ(1u, capture.messages.size());
  EXPECT_EQ(529, capture.messages[0].line);
  EXPECT_EQ("w 3", capture.messages[0].text);
  EXPECT_EQ(kKestrelWarning, capture.messages[0].type);
}

TEST(LogTest, DefaultHandlerPrintsWarningsAndLeavesErrorsToTheException) {
  testing::internal::CaptureStderr();
  KESTREL_WARN("f") << "careful";
  try {
    KESTREL_ERR("f") << "broken";
  } catch (const KestrelError&) {
  }
  const std::string out = testing::internal::GetCapturedStderr();
  EXPECT_EQ(0u, out.find("WARNING (f:"));
  EXPECT_NE(std::string::npos, out.find(") careful\n"));
  EXPECT_EQ(std::string::npos, out.find("broken"));
}

std::vector<std::string> Split(const std::string& full, const std::string& delim) {
  std::vector<std::string> out = {"stale"};
  SplitStringToVector(full, delim, &out);
  return out;
}

TEST(StringsTest, SplitTakesTheWholeDelimiterAndDropsEmptyFields) {
  EXPECT_EQ((std::vector<std::string>{}), Split("", ","));
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), Split("a,,b,", ","));
  EXPECT_EQ((std::vector<std::string>{" a", " b "}), Split(" a:: b ", "::"));
  EXPECT_EQ((std::vector<std::string>{"a:b"}), Split("a:b", "::"));
  EXPECT_EQ((std::vector<std::string>{"a,b"}), Split("a,b", ""));
}

TEST(StringsTest, TrimAndCharToString) {
  for (auto [in, out] : {std::pair<std::string, std::string>{" \t x y \n", "x y"}, {"   ", ""}}) {
    Trim(&in);
    EXPECT_EQ(out, in);
  }
  EXPECT_EQ("'a'", CharToString('a'));
  EXPECT_EQ("[character 10]", CharToString('\n'));
  EXPECT_EQ("[character -1]", CharToString(static_cast<char>(-1)));
}

TEST(StringsTest, ConversionInsistsOnWholeNumbers) {
  EXPECT_EQ(42, ConvertStringToIntegerOrFloat<int>("  42 "));
  EXPECT_EQ(0, ConvertStringToIntegerOrFloat<int>(""));
  EXPECT_EQ(0, ConvertStringToIntegerOrFloat<int>("  "));
  EXPECT_EQ(INT_MAX, ConvertStringToIntegerOrFloat<int>("99999999999"));
  EXPECT_FLOAT_EQ(0.25f, ConvertStringToIntegerOrFloat<float>(" 0.25"));
  // Named as given, untrimmed.
  for (const char* bad : {"12abc", "1.5", "0x10", "3 4", "abc", " x "}) {
    EXPECT_EQ(std::string("ConvertStringToIntegerOrFloat: only part of the string can be "
                          "converted to float or integer: ") + bad,
              KESTREL_ERROR_TEXT(ConvertStringToIntegerOrFloat<int>(bad)));
  }
  LogCapture capture;
  try {
    ConvertStringToIntegerOrFloat<int>("x");
    FAIL();
  } catch (const KestrelError& e) {
    EXPECT_EQ("../utils/kestrel-utils", e.file());
  }
}

TEST(StringsTest, ListsConvertEveryFieldOrNothing) {
  std::vector<int> ints = {7, 7, 7, 7, 7};
  SplitStringToIntegers<int>("3,4, 5", ",", &ints);
  EXPECT_EQ((std::vector<int>{3, 4, 5}), ints);
  std::vector<float> floats = {1.0f};
  SplitStringToFloats("0.5;0.45", ";", &floats);
  EXPECT_EQ((std::vector<float>{0.5f, 0.45f}), floats);
  EXPECT_NE("", KESTREL_ERROR_TEXT(SplitStringToIntegers<int>("1,x,3", ",", &ints)));
  EXPECT_NE("", KESTREL_ERROR_TEXT(SplitStringToFloats("0.5,abc", ",", &floats)));
}

}  // namespace
}  // namespace kestrel
