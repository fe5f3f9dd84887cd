#include <gtest/gtest.h>

#include "test-log-capture.h"
#include "utils/kestrel-globals.h"
#include "utils/kestrel-log.h"

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

TEST(LogTest, DefaultHandlerWritesOneLineToStandardError) {
  testing::internal::CaptureStderr();
  KESTREL_WARN("f") << "careful";
  std::string out = testing::internal::GetCapturedStderr();
  EXPECT_EQ(0u, out.find("WARNING (f:"));
  EXPECT_NE(std::string::npos, out.find(") careful\n"));
}

TEST(LogTest, GlobalsHaveDocumentedDefaults) {
  EXPECT_EQ(",", global_kestrel_string_delimiter);
  EXPECT_EQ(0, global_kestrel_verbose_level);
}

}  // namespace
}  // namespace kestrel
