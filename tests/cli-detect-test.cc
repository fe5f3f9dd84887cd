// End to end: the `kestrel detect` program on generated audio, with a model
// built by hand (a two-tone whistle as the hotword; see test-tone-hotword.h).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "test-audio.h"
#include "test-run-command.h"
#include "test-tone-hotword.h"

namespace kestrel {
namespace {

class DetectCommandTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    WriteToneModel(Model());
    // Whistles at 1.0 s and 4.5 s: their second tones begin at 1.3 s and 4.8 s.
    const std::vector<int16_t> whistles = WhistleAudio(8.0, {1.0, 4.5});
    WriteWave(TempPath("whistles.wav"), whistles);
    WriteBytes(TempPath("whistles.raw"), Pcm16Bytes(whistles));
    WriteWave(TempPath("noise.wav"), Noise(6 * 16000, 500, 11));
  }
  static std::string Model() { return TempPath("tone.kmodel"); }
  static std::string Detect(const std::string& args) {
    return "detect --model-str='" + Model() + "' " + args;
  }
};

// The time column of a text line "file<TAB>time<TAB>hotword[<TAB>name]".
double TimeOf(const std::string& line) {
  return std::stod(line.substr(line.find('\t') + 1));
}

TEST_F(DetectCommandTest, ReportsTheWhistlesAtTheirTimesAndNothingOnNoise) {
  const std::string whistles = TempPath("whistles.wav"), noise = TempPath("noise.wav");
  const CommandResult result =
      RunKestrel(Detect("--hotword-names=whistle '" + noise + "' '" + whistles + "'"));
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_EQ("", result.err);
  const std::vector<std::string> lines = result.OutLines();
  ASSERT_EQ(2u, lines.size()) << result.out;
  const double expected[2] = {1.3, 4.8};
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(0u, lines[i].find(whistles + "\t")) << lines[i];
    EXPECT_NEAR(expected[i] + 0.03, TimeOf(lines[i]), 0.05) << lines[i];
    EXPECT_EQ("\t1\twhistle", lines[i].substr(lines[i].find('\t', whistles.size() + 1)));
  }
}

TEST_F(DetectCommandTest, ReadsRawSamplesFromStandardInputAndPrintsJson) {
  const CommandResult result = RunKestrel(Detect("--json -"), TempPath("whistles.raw"));
  EXPECT_EQ(0, result.status) << result.err;
  const std::vector<std::string> lines = result.OutLines();
  ASSERT_EQ(2u, lines.size()) << result.out;
  const std::string prefix = "{\"file\": \"-\", \"time\": ";
  for (const std::string& line : lines) {
    ASSERT_EQ(0u, line.find(prefix)) << line;
    const double time = std::stod(line.substr(prefix.size()));
    const std::string sample = ", \"sample\": " + std::to_string(std::lround(time * 16000));
    EXPECT_NE(std::string::npos, line.find(sample + ", \"hotword\": 1}")) << line;
  }
  EXPECT_NEAR(1.33, std::stod(lines[0].substr(prefix.size())), 0.05);
}

TEST_F(DetectCommandTest, AFailingInputIsReportedInOneLineAndTheRestStillRun) {
  WaveLayout cd;
  cd.rate = 44100;
  cd.channels = 2;
  const std::string bad = TempPath("cd.wav"), whistles = TempPath("whistles.wav");
  WriteBytes(bad, WaveBytes(std::string(400, '\0'), cd));
  CommandResult result = RunKestrel(Detect("'" + bad + "' '" + whistles + "'"));
  EXPECT_EQ(1, result.status);
  EXPECT_EQ(2u, result.OutLines().size());
  EXPECT_EQ(0u, result.err.find("kestrel: " + bad + ": unsupported audio: 44100 Hz, 2 channels, "
                                "16-bit PCM;")) << result.err;
  EXPECT_EQ(1, std::count(result.err.begin(), result.err.end(), '\n'));

  const std::string odd = TempPath("odd.raw");
  WriteBytes(odd, "abc");
  result = RunKestrel(Detect("-"), odd);
  EXPECT_EQ(1, result.status);
  EXPECT_EQ("kestrel: standard input: ends in the middle of a sample (an odd number of bytes).\n",
            result.err);

  result = RunKestrel("detect --model-str=" + TempPath("none.kmodel") + " '" + whistles + "'");
  EXPECT_EQ(1, result.status);
  EXPECT_EQ(0u, result.err.find("kestrel: cannot load " + TempPath("none.kmodel") + ": "));
  EXPECT_EQ(1, std::count(result.err.begin(), result.err.end(), '\n'));
}

TEST_F(DetectCommandTest, BadCommandLinesExitWithStatusTwo) {
  const std::string whistles = " '" + TempPath("whistles.wav") + "'";
  const struct {
    std::string args;
    std::string message;
  } cases[] = {
      {Detect("--bogus" + whistles), "unknown option \"--bogus\""},
      {Detect("--slide-step=two" + whistles), "--slide-step needs an integer, got \"two\""},
      {Detect(""), "no input: give WAV files, or - for standard input"},
  };
  for (const auto& c : cases) {
    const CommandResult result = RunKestrel(c.args);
    EXPECT_EQ(2, result.status) << c.args;
    EXPECT_EQ(0u, result.err.find("kestrel detect: " + c.message)) << result.err;
    EXPECT_EQ("", result.out);
  }
}

}  // namespace
}  // namespace kestrel
