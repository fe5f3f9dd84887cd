// The `kestrel` program's other commands: help, info, convert, features.
#include <gtest/gtest.h>

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

std::string Quoted(const std::string& path) { return "'" + path + "'"; }

TEST(KestrelCommandTest, HelpNamesTheCommandsAndMistakesExitWithTwo) {
  CommandResult result = RunKestrel("--help");
  EXPECT_EQ(0, result.status);
  for (const char* command : {"detect", "info", "convert", "features"}) {
    EXPECT_NE(std::string::npos, result.out.find("\n  " + std::string(command) + " ")) << command;
    EXPECT_EQ(0u, RunKestrel(std::string(command) + " --help").out.find("usage: kestrel "));
  }
  EXPECT_EQ(2, RunKestrel("").status);
  result = RunKestrel("frobnicate");
  EXPECT_EQ(2, result.status);
  EXPECT_EQ(0u, result.err.find("kestrel: unknown command \"frobnicate\""));
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

  WaveLayout float_wav;
  float_wav.format = 3;
  float_wav.bits = 32;
  WriteBytes(wav, WaveBytes(std::string(64, '\0'), float_wav));
  const CommandResult refused = RunKestrel("features " + Quoted(wav) + " " + Quoted(npy));
  EXPECT_EQ(1, refused.status);
  EXPECT_NE(std::string::npos, refused.err.find("16000 Hz, 1 channel, 32-bit float"));
}

}  // namespace
}  // namespace kestrel
