// `kestrel train --phrase` and `kestrel tune` end to end. Training runs
// with stand-in training scripts (KESTREL_TRAINING_DIR) that hand out a
// small corpus of whistles, so its stages, stamps and errors are tested
// without speech synthesis; tune runs the bundled model on its sample.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "model/hotword-model.h"
#include "nnet/nnet-component.h"
#include "test-audio.h"
#include "test-run-command.h"
#include "test-tone-hotword.h"

namespace kestrel {
namespace {

namespace fs = std::filesystem;

size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// A scripts directory whose make-corpus.py copies a corpus of whistles
// (positives say "AA IY": the two tones) and logs its calls; it refuses
// "hey bob", and dies half-way while a file "fail" exists.
class FakeScripts {
 public:
  FakeScripts() : dir_(TempPath("fake-training")) {
    fs::remove_all(dir_);
    fs::create_directories(dir_ + "/template/train");
    fs::create_directories(dir_ + "/template/dev");
    WriteSplit("train", 16);
    WriteSplit("dev", 8);
    WriteScript("install-deps.sh", "#!/bin/sh\nexit 0\n");
    WriteScript("make-corpus.py",
                "#!/bin/sh\n"
                "dir=$(dirname \"$0\")\n"
                "echo \"$*\" >> \"$dir/calls\"\n"
                "case \"$*\" in *--check-phrase*)\n"
                "  case \"$*\" in *'hey bob'*) echo 'error: too short'; exit 2;; esac\n"
                "  echo 'phrase: fine'; exit 0;; esac\n"
                "out=''; prev=''\n"
                "for a in \"$@\"; do [ \"$prev\" = --out ] && out=$a; prev=$a; done\n"
                "mkdir -p \"$out\"\n"
                "cp -r \"$dir/template/train\" \"$dir/template/dev\" \"$dir/template/train.jsonl\" "
                "\"$out/\"\n"
                "echo 'progress 1 2'\n"
                "if [ -e \"$dir/fail\" ]; then echo 'synthesis died' >&2; exit 1; fi\n"
                "cp \"$dir/template/dev.jsonl\" \"$out/\"\n"
                "echo 'progress 2 2'\n");
  }
  ~FakeScripts() { fs::remove_all(dir_); }

  CommandResult Train(const std::string& args) const {
    return RunKestrel("train " + args, "/dev/null", "KESTREL_TRAINING_DIR=" + Quoted(dir_) + " ");
  }
  // How often the corpus was synthesized.
  size_t CorpusRuns() const { return Count(ReadFileBytes(dir_ + "/calls"), "--out"); }
  void SetFailing(bool fail) const {
    if (fail) {
      WriteBytes(dir_ + "/fail", "");
    } else {
      fs::remove(dir_ + "/fail");
    }
  }

 private:
  void WriteScript(const std::string& name, const std::string& body) const {
    WriteBytes(dir_ + "/" + name, body);
    fs::permissions(dir_ + "/" + name, fs::perms::owner_all);
  }
  void WriteSplit(const std::string& split, int n) const {
    std::ofstream manifest(dir_ + "/template/" + split + ".jsonl");
    for (int i = 0; i < n; ++i) {
      const std::string positive = split + "/p" + std::to_string(i) + ".wav";
      WriteWave(dir_ + "/template/" + positive, WhistleAudio(2.0, {0.5 + 0.05 * i}));
      const double a = 0.5 + 0.05 * i, b = a + kWhistleToneSeconds, c = b + kWhistleToneSeconds;
      manifest << "{\"wav\": \"" << positive << "\", \"kind\": \"positive\", \"duration\": 2, "
               << "\"text\": \"hey whistle\", \"hotword\": [" << a << ", " << c << "], "
               << "\"phonemes_arpa\": [[\"AA\", " << a << ", " << b << "], [\"IY\", " << b
               << ", " << c << "]]}\n";
      const std::string negative = split + "/n" + std::to_string(i) + ".wav";
      WriteWave(dir_ + "/template/" + negative, Noise(32000, 800, i + 1));
      manifest << "{\"wav\": \"" << negative << "\", \"kind\": \"negative\", \"duration\": 2}\n";
    }
  }

  std::string dir_;
};

TEST(TrainPhraseTest, StagesResumeAfterTheLastFinishedOneAndRedoWhatWasCutShort) {
  const FakeScripts scripts;
  const std::string model = TempPath("hey-whistle.kmodel"), work = TempPath("whistle-work");
  fs::remove_all(work);
  fs::remove(model);
  const std::string args = "--phrase 'Hey  Whistle' --out " + Quoted(model) + " --work " +
                           Quoted(work) + " --epochs 2 --hidden-dim 16 --hidden-layers 1 " +
                           "--units 2 --left-context 4 --right-context 2";

  // The synthesis dies half-way: nothing of it counts as done.
  scripts.SetFailing(true);
  CommandResult run = scripts.Train(args);
  EXPECT_EQ(1, run.status);
  EXPECT_NE(std::string::npos, run.err.find("the corpus synthesis failed")) << run.err;
  EXPECT_FALSE(fs::exists(work + "/corpus.done"));
  EXPECT_FALSE(fs::exists(model));

  scripts.SetFailing(false);
  run = scripts.Train(args);
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_EQ(2u, scripts.CorpusRuns());
  EXPECT_NE(std::string::npos, run.out.find("dev at that sensitivity: FRR ")) << run.out;
  EXPECT_NE(std::string::npos, run.out.find("time: setup ")) << run.out;
  EXPECT_NE(std::string::npos, run.err.find("corpus [####################] 100%")) << run.err;
  // The phrase, as typed but tidied, is the hotword's name.
  EXPECT_NE(std::string::npos, RunKestrel("info " + Quoted(model)).out.find(
                                   "hotword 1 \"hey whistle\": units [1 2]"));

  // Run again: every stage is taken as done, nothing is synthesized.
  run = scripts.Train(args);
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_EQ(2u, scripts.CorpusRuns());
  EXPECT_EQ(4u, Count(run.err, "done in an earlier run")) << run.err;

  // Training cut short after writing a bad network: it is redone, and the
  // tuning after it; the corpus and features are not.
  fs::remove(work + "/training.done");
  WriteBytes(work + "/network.nnet", "half a network");
  run = scripts.Train(args);
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_EQ(2u, scripts.CorpusRuns());
  EXPECT_EQ(2u, Count(run.err, "done in an earlier run")) << run.err;
  EXPECT_EQ(0, RunKestrel("info " + Quoted(model)).status);

  // Other training settings redo training and tuning only.
  run = scripts.Train(args + " --epochs 3");
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_EQ(2u, scripts.CorpusRuns());
  EXPECT_NE(std::string::npos, run.err.find("features: done in an earlier run"));
  EXPECT_EQ(std::string::npos, run.err.find("training: done in an earlier run"));

  // From a corpus, the phrase its positives say names the hotword.
  const std::string from_corpus = "train --corpus " + Quoted(work + "/corpus") + " --cache-dir " +
                                  Quoted(work + "/features") + " --epochs 1 " +
                                  "--hidden-dim 16 --hidden-layers 1 --units 2 --out ";
  run = RunKestrel(from_corpus + Quoted(model));
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_NE(std::string::npos, RunKestrel("info " + Quoted(model)).out.find(
                                   "hotword 1 \"hey whistle\""));
  // The same network tuned with its outputs scaled is written scaled, as it
  // was tuned: its output layer is the unscaled one times 4.
  const std::string scaled = model + ".scaled";
  run = RunKestrel(from_corpus + Quoted(scaled) + " --output-scales 4");
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_NE(std::string::npos, run.out.find(", output scale 4, smooth window ")) << run.out;
  const HotwordModel plain_model = HotwordModel::ReadFile(model);
  const HotwordModel scaled_model = HotwordModel::ReadFile(scaled);
  const Component& plain_out = plain_model.nnet.GetComponent(plain_model.nnet.NumComponents() - 2);
  const Component& scaled_out =
      scaled_model.nnet.GetComponent(scaled_model.nnet.NumComponents() - 2);
  std::vector<float> a(plain_out.NumParams()), b(scaled_out.NumParams());
  plain_out.GetParams(a.data());
  scaled_out.GetParams(b.data());
  ASSERT_EQ(a.size(), b.size());
  for (size_t i = 0; i < a.size(); ++i) EXPECT_EQ(4.0f * a[i], b[i]) << i;
  // Training goes on from a model of the same layout, here in two runs that
  // are averaged; one of another layout is named.
  run = RunKestrel(from_corpus + Quoted(scaled) + " --runs 2 --init-model " + Quoted(model));
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_NE(std::string::npos, run.err.find("run 2/2: seed 2")) << run.err;
  EXPECT_NE(std::string::npos, run.err.find("runs: the average of 2 networks' weights")) << run.err;
  run = RunKestrel(from_corpus + Quoted(scaled) + " --hidden-dim 8 --init-model " + Quoted(model));
  EXPECT_EQ(1, run.status);
  EXPECT_NE(std::string::npos,
            run.err.find(model + ": the network to start from has <AffineTransform> 16 x"))
      << run.err;
  fs::remove(scaled);
  fs::remove_all(work);
  fs::remove(model);
}

TEST(TrainPhraseTest, RefusedPhrasesAndMissingScriptsSayWhy) {
  const FakeScripts scripts;
  const std::string model = TempPath("bob.kmodel");
  CommandResult run = scripts.Train("--phrase 'hey bob' --out " + Quoted(model));
  EXPECT_EQ(1, run.status);
  EXPECT_NE(std::string::npos, run.err.find("error: too short")) << run.err;
  EXPECT_NE(std::string::npos, run.err.find("\"hey bob\" is refused as a wake word")) << run.err;
  EXPECT_EQ(0u, scripts.CorpusRuns());

  run = RunKestrel("train --phrase 'hey computer' --out " + Quoted(model), "/dev/null",
                   "KESTREL_TRAINING_DIR=/nonexistent ");
  EXPECT_EQ(1, run.status);
  EXPECT_NE(std::string::npos, run.err.find("/nonexistent/make-corpus.py is not there; set "
                                            "KESTREL_TRAINING_DIR"))
      << run.err;
  EXPECT_EQ(2, RunKestrel("train --out " + Quoted(model)).status);
  EXPECT_EQ(2, RunKestrel("train --phrase x --corpus y --out " + Quoted(model)).status);
  EXPECT_EQ(2, RunKestrel("train --phrase x --init-model m.kmodel --out " + Quoted(model)).status);
  const std::pair<std::string, std::string> bad_options[] = {
      {"--hard-filler-share 1.5", "--hard-filler-share must be between 0 and 1, not 1.5"},
      {"--hard-hotword-share 2", "--hard-hotword-share must be between 0 and 1, not 2"},
      {"--mining-pool 0", "--mining-pool must be at least 1, not 0"},
      {"--unit-edge-frames -1", "--unit-edge-frames must be at least 0, not -1"},
      {"--near-contrast-frames -2", "--near-contrast-frames must be at least 0, not -2"},
      {"--noise-share -0.1", "--noise-share must be between 0 and 1, not -0.1"},
      {"--white-noise-share 1.2", "--white-noise-share must be between 0 and 1, not 1.2"},
      {"--dropout 1", "--dropout must be at least 0 and below 1, not 1"},
      {"--runs 0", "--runs must be at least 1, not 0"},
      {"--runs 2", "--runs needs --init-model"},
      {"--noise-min-snr 20 --noise-max-snr 5", "--noise-min-snr 20 is above --noise-max-snr 5"},
      {"--layer-splices '-1,0,1 -2,x'",
       "--layer-splices \"-1,0,1 -2,x\": \"x\" in \"-2,x\" is not a frame offset"},
      {"--layer-splices '0,-2'", "--layer-splices \"0,-2\": the offsets \"0,-2\" do not ascend"},
      {"--output-scales 1,0", "--output-scales must list numbers above 0, not \"1,0\""},
  };
  for (const auto& [options, message] : bad_options) {
    run = RunKestrel("train --corpus y --out " + Quoted(model) + " " + options);
    EXPECT_EQ(2, run.status) << options;
    EXPECT_NE(std::string::npos, run.err.find(message)) << run.err;
  }
}

class TuneCommandTest : public testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all(dir_);
    fs::create_directories(dir_ + "/positives");
    fs::create_directories(dir_ + "/negatives");
    fs::copy(std::string(KESTREL_SOURCE_DIR) + "/samples/hey-kestrel.wav", dir_ + "/positives");
    WriteWave(dir_ + "/negatives/whistles.wav", WhistleAudio(60.0, {5.0, 20.0, 40.0}));
    WriteWave(dir_ + "/noise.wav", Noise(16000 * 120, 1500, 7));
  }
  void TearDown() override { fs::remove_all(dir_); }

  const std::string dir_ = TempPath("tune");
};

TEST_F(TuneCommandTest, SweepsFindsTheSampleAndWritesOnlyTheSensitivity) {
  // The bundled model in text form; the conversion keeps its stored name.
  const std::string model = dir_ + "/m.kmodel";
  ASSERT_EQ(0, RunKestrel("convert --text " + Quoted(std::string(KESTREL_SOURCE_DIR) +
                                                     "/models/hey-kestrel.kmodel") +
                          " " + Quoted(model)).status);
  // At a sensitivity below the top of the range that finds the sample, so
  // that the recommendation must stop at it.
  std::string text = ReadFileBytes(model);
  const size_t value = text.find("<Sensitivity> ") + 14;
  text.replace(value, text.find(' ', value) - value, "0.419");
  WriteBytes(model, text);
  const std::string before = ReadFileBytes(model);
  EXPECT_NE(std::string::npos, before.find("<HotwordNames> 1 hey_kestrel </HotwordNames>"));
  // A "recording of the phrase" that holds only hiss: missed at every
  // sensitivity, so every row must count a miss.
  WriteWave(dir_ + "/positives/hiss.wav", Noise(16000 * 3, 300, 5));

  CommandResult run = RunKestrel("tune --model " + Quoted(model) + " --positives " +
                                 Quoted(dir_ + "/positives") + " --negatives " +
                                 Quoted(dir_ + "/negatives," + dir_ + "/noise.wav") + " --step 0.1");
  ASSERT_EQ(0, run.status) << run.err;
  const std::vector<std::string> lines = run.OutLines();
  ASSERT_EQ(12u, lines.size()) << run.out;
  EXPECT_EQ("sensitivity  misses  false alarms  per hour", lines[0]);
  // Least sensitive first; the bundled model finds the sample from 0.2 up.
  EXPECT_NE(std::string::npos, lines[1].find("0.10     2/2 ")) << lines[1];
  EXPECT_NE(std::string::npos, lines[2].find("0.20     1/2 ")) << lines[2];
  EXPECT_NE(std::string::npos, lines[9].find("0.90     1/2 ")) << lines[9];
  EXPECT_EQ("on 2 recordings of the phrase and 0.050 h of background audio", lines[10]);
  // Nothing fires on the background up to 0.9, but minutes of it cannot
  // vouch for more than the model's own sensitivity (0.419).
  EXPECT_EQ("recommended sensitivity: 0.40 (sensitivities 0.2 to 0.9 miss the fewest recordings "
            "(1) with false alarms within 1 per hour; the most sensitive of them at or below the "
            "model's own 0.419)",
            lines[11]);
  EXPECT_EQ(before, ReadFileBytes(model));

  run = RunKestrel("tune --write --model " + Quoted(model) + " --positives " +
                   Quoted(dir_ + "/positives/hey-kestrel.wav") + " --negatives " +
                   Quoted(dir_ + "/noise.wav") + " --step 0.1");
  ASSERT_EQ(0, run.status) << run.err;
  const std::string recommended = run.OutLines()[11].substr(25, 3);
  // Only the sensitivity changes; the text form and the name are kept.
  std::string expected = before;
  const size_t at = expected.find("<Sensitivity> ") + 14;
  expected.replace(at, expected.find(' ', at) - at, recommended);
  EXPECT_EQ(expected, ReadFileBytes(model));
}

TEST_F(TuneCommandTest, UnreadableOrEmptyInputsAreNamed) {
  const std::string model = std::string(KESTREL_SOURCE_DIR) + "/models/hey-kestrel.kmodel";
  const std::string tune = "tune --model " + Quoted(model) + " ";
  fs::create_directories(dir_ + "/empty");
  CommandResult run = RunKestrel(tune + "--positives " + Quoted(dir_ + "/empty") +
                                 " --negatives " + Quoted(dir_ + "/noise.wav"));
  EXPECT_EQ(1, run.status);
  EXPECT_NE(std::string::npos, run.err.find(dir_ + "/empty: the directory has no .wav files"));
  WriteBytes(dir_ + "/silent.wav", WaveBytes(""));
  run = RunKestrel(tune + "--positives " + Quoted(dir_ + "/positives") + " --negatives " +
                   Quoted(dir_ + "/silent.wav"));
  EXPECT_EQ(1, run.status);
  EXPECT_NE(std::string::npos, run.err.find(dir_ + "/silent.wav: the file has no audio"));
  run = RunKestrel(tune + "--positives " + Quoted(dir_ + "/absent.wav") + " --negatives " +
                   Quoted(dir_ + "/noise.wav"));
  EXPECT_EQ(1, run.status);
  EXPECT_NE(std::string::npos, run.err.find(dir_ + "/absent.wav")) << run.err;
  EXPECT_EQ(2, RunKestrel(tune + "--positives " + Quoted(dir_ + "/positives")).status);
}

}  // namespace
}  // namespace kestrel
