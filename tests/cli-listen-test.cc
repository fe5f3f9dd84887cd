// `kestrel listen` end to end, without a microphone: ALSA's `file` device
// plays the bundled sample (raw 16 kHz 16-bit) as if it were captured, set up
// in an .asoundrc of a temporary HOME.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "test-audio.h"
#include "test-run-command.h"

namespace kestrel {
namespace {

class ListenCommandTest : public testing::Test {
 protected:
  void SetUp() override {
    if (RunKestrel("--help").out.find("\n  listen ") == std::string::npos) {
      GTEST_SKIP() << "kestrel was built without ALSA (libasound2-dev), so it has no listen";
    }
    if (std::system("command -v sox >/dev/null 2>&1") != 0) {
      GTEST_SKIP() << "sox is not installed (training/install-deps.sh installs it)";
    }
    const std::string root = std::string(KESTREL_SOURCE_DIR) + "/";
    model_ = root + "models/hey-kestrel.kmodel";
    const std::string raw = TempPath("listen.raw");
    ASSERT_EQ(0, std::system(("sox '" + root + "samples/hey-kestrel.wav' -t raw -r 16000 -c 1 "
                              "-b 16 -e signed-integer '" + raw + "'").c_str()));
    // What the device hears must be found where the file is: the same time
    // and sample as `kestrel detect` gives, whatever the bundled model is.
    const std::string json = RunKestrel("detect --json --model-str='" + model_ + "' '" + root +
                                        "samples/hey-kestrel.wav'").out;
    const size_t from = json.find("\"time\": "), to = json.find(", \"hotword\"");
    ASSERT_TRUE(from != std::string::npos && to != std::string::npos) << json;
    time_and_sample_ = json.substr(from, to - from);
    time_ = time_and_sample_.substr(8, time_and_sample_.find(',') - 8);
    home_ = TempPath("home");
    ASSERT_EQ(0, std::system(("mkdir -p '" + home_ + "'").c_str()));
    WriteBytes(home_ + "/.asoundrc", "pcm.sample {\n  type file\n  slave.pcm { type null }\n"
                                     "  file \"/dev/null\"\n  infile \"" + raw + "\"\n}\n");
  }
  CommandResult Listen(const std::string& args) {
    return RunKestrel("listen --model-str='" + model_ + "' " + args, "/dev/null",
                      "HOME='" + home_ + "' ");
  }
  std::string model_, home_;
  std::string time_;             // "3.37"
  std::string time_and_sample_;  // "\"time\": 3.37, \"sample\": 53920"
};

TEST_F(ListenCommandTest, PrintsTheDetectionHeardOnTheDevice) {
  CommandResult result = Listen("--device=sample --seconds=8 --hotword-names='hey kestrel'");
  EXPECT_EQ(0, result.status) << result.err;
  ASSERT_EQ(1u, result.OutLines().size()) << result.out << result.err;
  EXPECT_EQ("sample\t" + time_ + "\t1\they kestrel\n", result.out);
  EXPECT_NE(std::string::npos, result.err.find("listening to sample (16000 Hz, 1 channel, S16_LE)"));

  // Without names, the hotword is named after the model file.
  result = Listen("--device=sample --seconds=8 --json");
  EXPECT_EQ(0u, result.out.find("{\"file\": \"sample\", " + time_and_sample_ +
                                ", \"hotword\": 1, \"name\": \"hey kestrel\", \"score\": "))
      << result.out;
}

TEST_F(ListenCommandTest, CtrlCStopsListeningAndKeepsWhatWasHeard) {
  // No --seconds: the device gives silence after the sample until the
  // interrupt, which must end the run cleanly, detection printed.
  const CommandResult result = RunKestrel(
      "listen --model-str='" + model_ + "' --device=sample", "/dev/null",
      "HOME='" + home_ + "' timeout --preserve-status -s INT 3 ");
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_EQ(0u, result.out.find("sample\t" + time_ + "\t1\they kestrel\n")) << result.out;
  EXPECT_NE(std::string::npos, result.err.find("kestrel: interrupted; stopped listening\n"));
}

TEST_F(ListenCommandTest, ADeviceThatCannotBeOpenedIsNamed) {
  const CommandResult result = Listen("--device=nowhere --seconds=1");
  EXPECT_EQ(1, result.status);
  EXPECT_EQ(0u, result.err.find("kestrel: nowhere: cannot open the capture device: ")) << result.err;
  EXPECT_EQ(1, std::count(result.err.begin(), result.err.end(), '\n'));
  EXPECT_EQ(2, Listen("--seconds=-1").status);
}

}  // namespace
}  // namespace kestrel
