// The `kestrel` program end to end: help, info, convert and features, and
// detect on generated audio with a model built by hand (a two-tone whistle as
// the hotword; see test-tone-hotword.h).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "frontend/filterbank-stream.h"
#include "frontend/wave-source-stream.h"
#include "test-audio.h"
#include "test-run-command.h"
#include "test-tone-hotword.h"

namespace kestrel {
namespace {

TEST(KestrelCommandTest, HelpNamesTheCommands) {
  CommandResult result = RunKestrel("--help");
  EXPECT_EQ(0, result.status);
  for (const char* command : {"detect", "info", "convert", "features"}) {
    EXPECT_NE(std::string::npos, result.out.find("\n  " + std::string(command) + " ")) << command;
    EXPECT_EQ(0u, RunKestrel(std::string(command) + " --help").out.find("usage: kestrel "));
  }
}

TEST(KestrelCommandTest, InfoShowsHotwordsSettingsAndNetwork) {
  const std::string model = TempPath("info.kmodel");
  WriteToneModel(model, 0.25f);
  CommandResult result = RunKestrel("info " + Quoted(model));
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_EQ(model + "\n"
                "  windows: smoothing 3 frames (0.03 s), search 100 frames (1 s)\n"
                "  hotword 1: units [1 2], sensitivity 0.25, search 1 (naive)\n"
                "  network: 40 inputs, 3 outputs, 3 components\n"
                "    1 <Splice> 40 -> 80, offsets [0 30]\n"
                "    2 <AffineTransform> 80 -> 3, 243 parameters\n"
                "    3 <Softmax> 3 -> 3\n",
            result.out);
  // Hotwords are numbered across models, as detect numbers them.
  result = RunKestrel("info " + Quoted(model) + " " + Quoted(model));
  EXPECT_NE(std::string::npos, result.out.find("  hotword 2: units [1 2]"));
  EXPECT_EQ(1, RunKestrel("info " + Quoted(TempPath("absent.kmodel"))).status);
}

TEST(KestrelCommandTest, ConvertRoundTripsBetweenBinaryAndText) {
  const std::string text = TempPath("text.kmodel"), binary = TempPath("binary.kmodel"),
                    back = TempPath("back.kmodel");
  WriteToneModel(text);
  ASSERT_EQ(0, RunKestrel("convert " + Quoted(text) + " " + Quoted(binary) + " --binary").status);
  EXPECT_EQ(std::string("\0B<UniversalModel> ", 19), ReadFileBytes(binary).substr(0, 19));
  ASSERT_EQ(0, RunKestrel("convert --text " + Quoted(binary) + " " + Quoted(back)).status);
  EXPECT_EQ(0u, ReadFileBytes(back).find("<UniversalModel> <KwInfo> <SmoothWindow> 3 "));
  const std::string info_text = RunKestrel("info " + Quoted(text)).out;
  const std::string info_back = RunKestrel("info " + Quoted(back)).out;
  EXPECT_EQ(info_text.substr(info_text.find('\n')), info_back.substr(info_back.find('\n')));

  EXPECT_EQ(2, RunKestrel("convert " + Quoted(text) + " " + Quoted(back)).status);
  EXPECT_EQ(2, RunKestrel("convert --binary --text " + Quoted(text) + " " + Quoted(back)).status);
  EXPECT_EQ(1, RunKestrel("convert --binary " + Quoted(TempPath("absent.kmodel")) + " " +
                          Quoted(back)).status);
}

TEST(KestrelCommandTest, FeaturesWritesTheFilterbankOutputAsNpy) {
  const std::string wav = TempPath("features.wav"), npy = TempPath("features.npy");
  WriteWave(wav, WhistleAudio(1.0, {0.2}));
  const CommandResult result = RunKestrel("features " + Quoted(wav) + " " + Quoted(npy));
  ASSERT_EQ(0, result.status) << result.err;

  const std::string bytes = ReadFileBytes(npy);
  const std::string dict = "{'descr': '<f4', 'fortran_order': False, 'shape': (98, 40), }";
  ASSERT_EQ(128u + 98 * 40 * 4, bytes.size());
  EXPECT_EQ(std::string("\x93NUMPY\x01\x00\x76\x00", 10), bytes.substr(0, 10));
  EXPECT_EQ(dict + std::string(117 - dict.size(), ' ') + "\n", bytes.substr(10, 118));

  WaveSourceStream source(wav);
  FilterbankStream filterbank;
  filterbank.Connect(&source);
  std::vector<float> expected;
  Matrix features;
  while (!(filterbank.Read(&features, nullptr) & kSignalEnd)) {
    for (int r = 0; r < features.NumRows(); ++r) {
      expected.insert(expected.end(), features.RowData(r), features.RowData(r) + 40);
    }
  }
  std::vector<float> written(expected.size());
  std::memcpy(written.data(), bytes.data() + 128, written.size() * 4);  // little-endian host
  EXPECT_EQ(expected, written);
}

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
    EXPECT_NE(std::string::npos, line.find(sample + ", \"hotword\": 1, \"name\": \"")) << line;
  }
  EXPECT_NEAR(1.33, std::stod(lines[0].substr(prefix.size())), 0.05);
}

// The value of "key": in a JSON line, as the text up to the next comma or brace.
std::string JsonField(const std::string& line, const std::string& key) {
  const size_t at = line.find("\"" + key + "\": ");
  if (at == std::string::npos) return "";
  const size_t begin = at + key.size() + 4;
  return line.substr(begin, line.find_first_of(",}", begin) - begin);
}

// The step scores themselves are checked in facade-hotword-detector-test.cc.
TEST_F(DetectCommandTest, ScoresPrintEveryStepAndMarkTheDetections) {
  const std::string whistles = "'" + TempPath("whistles.wav") + "'";
  const std::vector<std::string> detections = RunKestrel(Detect("--json " + whistles)).OutLines();
  const CommandResult scores = RunKestrel(Detect("--scores --hotword-names=whistle " + whistles));
  ASSERT_EQ(0, scores.status) << scores.err;
  ASSERT_EQ(2u, detections.size());
  // 8 s of 10 ms steps, less those a detection drops.
  const std::vector<std::string> steps = scores.OutLines();
  EXPECT_NEAR(800.0, static_cast<double>(steps.size()), 40.0);
  std::vector<std::string> marked;
  for (const std::string& line : steps) {
    EXPECT_EQ("\"whistle\"", JsonField(line, "name")) << line;
    if (JsonField(line, "detected") == "true") marked.push_back(line);
  }
  ASSERT_EQ(2u, marked.size());
  for (int i = 0; i < 2; ++i) {
    for (const char* key : {"file", "time", "sample", "hotword", "score"}) {
      EXPECT_EQ(JsonField(detections[i], key), JsonField(marked[i], key)) << key;
    }
  }
}

// The bundled sample, converted by sox to what microphones and editors
// produce, is found where it is in the original, counted in its own samples.
TEST(DetectSampleTest, FindsTheHotwordInTheSampleAtOtherRatesFormatsAndChannels) {
  if (std::system("command -v sox >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "sox is not installed (training/install-deps.sh installs it)";
  }
  const std::string root = std::string(KESTREL_SOURCE_DIR) + "/";
  const std::string sample = root + "samples/hey-kestrel.wav";
  const std::string detect = "detect --model-str='" + root + "models/hey-kestrel.kmodel' --json ";
  const CommandResult original = RunKestrel(detect + "'" + sample + "'");
  ASSERT_EQ(1u, original.OutLines().size()) << original.out << original.err;
  const double seconds = std::stod(JsonField(original.out, "time"));

  const struct {
    const char* name;
    const char* sox_options;
    int rate;
  } conversions[] = {
      {"cd.wav", "-r 44100 -c 2 -b 24", 44100},
      {"float.wav", "-r 48000 -e floating-point -b 32", 48000},
      {"three.wav", "-r 22050 -c 3 -e floating-point -b 64", 22050},
  };
  for (const auto& c : conversions) {
    const std::string wav = TempPath(c.name);
    ASSERT_EQ(0, std::system(("sox '" + sample + "' " + c.sox_options + " '" + wav + "'").c_str()));
    const CommandResult result = RunKestrel(detect + "'" + wav + "'");
    EXPECT_EQ(0, result.status) << result.err;
    ASSERT_EQ(1u, result.OutLines().size()) << c.name << result.out;
    const double time = std::stod(JsonField(result.out, "time"));
    EXPECT_NEAR(seconds, time, 0.011) << c.name;
    EXPECT_NEAR(time * c.rate, std::stod(JsonField(result.out, "sample")), c.rate / 100.0);
  }
  // Raw floats at 44.1 kHz on standard input.
  const std::string raw = TempPath("sample.f32");
  ASSERT_EQ(0, std::system(("sox '" + sample + "' -t raw -r 44100 -e floating-point -b 32 '" +
                            raw + "'").c_str()));
  const CommandResult piped = RunKestrel(detect + "--rate=44100 --format=f32le -", raw);
  ASSERT_EQ(1u, piped.OutLines().size()) << piped.out << piped.err;
  EXPECT_NEAR(seconds, std::stod(JsonField(piped.out, "time")), 0.011);

  // Step scores search every hotword on every step: the same detection.
  const CommandResult scores = RunKestrel(detect + "--scores '" + sample + "'");
  const size_t marked = scores.out.find("\"detected\": true");
  ASSERT_NE(std::string::npos, marked);
  const std::string line = scores.out.substr(scores.out.rfind('{', marked));
  EXPECT_EQ(JsonField(original.out, "sample"), JsonField(line, "sample"));
  EXPECT_EQ(JsonField(original.out, "score"), JsonField(line, "score"));
}

TEST_F(DetectCommandTest, AFailingInputIsReportedInOneLineAndTheRestStillRun) {
  const std::string bad = TempPath("hifi.wav"), whistles = TempPath("whistles.wav");
  WriteBytes(bad, WaveBytes(std::string(400, '\0'), WaveLayout(96000, 2)));
  CommandResult result = RunKestrel(Detect("'" + bad + "' '" + whistles + "'"));
  EXPECT_EQ(1, result.status);
  EXPECT_EQ(2u, result.OutLines().size());
  EXPECT_EQ(0u, result.err.find("kestrel: " + bad + ": unsupported audio: 96000 Hz, 2 channels, "
                                "16-bit PCM;")) << result.err;
  EXPECT_EQ(1, std::count(result.err.begin(), result.err.end(), '\n'));

  const std::string odd = TempPath("odd.raw");
  WriteBytes(odd, "abc");
  result = RunKestrel(Detect("-"), odd);
  EXPECT_EQ(1, result.status);
  EXPECT_EQ("kestrel: standard input: ends in the middle of a 2-byte sample.\n", result.err);

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
      {Detect("--bogus" + whistles), "kestrel detect: unknown option \"--bogus\""},
      {Detect("--slide-step=two" + whistles),
       "kestrel detect: --slide-step needs an integer, got \"two\""},
      {"train --corpus=c --out=m.kmodel --dropout=half",
       "kestrel train: --dropout needs a number, got \"half\""},
      {Detect(""), "kestrel detect: no input: give WAV files, or - for standard input"},
      {Detect("--rate=96000 -"), "kestrel detect: --rate must be from 8000 to 48000, got 96000"},
      {Detect("--format=s24le -"), "kestrel detect: --format must be s16le or f32le, got \"s24le\""},
      {Detect("--sensitivity-str=0.5,high" + whistles),
       "kestrel detect: --sensitivity-str: "},
      {"detect --model-str=, " + whistles, "kestrel detect: --model-str names no file"},
      {"frobnicate", "kestrel: unknown command \"frobnicate\""},
      {"", ""},
  };
  for (const auto& c : cases) {
    const CommandResult result = RunKestrel(c.args);
    EXPECT_EQ(2, result.status) << c.args;
    EXPECT_EQ(0u, result.err.find(c.message)) << result.err;
    EXPECT_EQ("", result.out);
  }
}

}  // namespace
}  // namespace kestrel
