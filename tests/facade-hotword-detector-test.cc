#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "facade/hotword-detector.h"
#include "test-audio.h"
#include "test-log-capture.h"
#include "test-tone-hotword.h"

namespace kestrel {
namespace {

// Runs `audio` through in chunks of the sizes given (cycled), then flushes.
template <typename Sample>
std::vector<Detection> RunStream(HotwordDetector* detector, const std::vector<Sample>& audio,
                                 const std::vector<size_t>& chunks = {1u << 30}) {
  std::vector<Detection> all;
  for (size_t at = 0, i = 0; at < audio.size(); ++i) {
    const size_t n = std::min(chunks[i % chunks.size()], audio.size() - at);
    for (const Detection& d : detector->Process(audio.data() + at, n)) all.push_back(d);
    at += n;
  }
  for (const Detection& d : detector->Flush()) all.push_back(d);
  return all;
}

class HotwordDetectorTest : public testing::Test {
 protected:
  void SetUp() override {
    WriteToneModel(model_);
    options_.models = {HotwordModel::ReadFile(model_)};
    options_.hotword_names = {"whistle"};
  }
  size_t Count(const std::vector<int16_t>& audio) {
    HotwordDetector detector(options_);
    return RunStream(&detector, audio).size();
  }

  const std::string model_ = TempPath("tone.kmodel");
  HotwordDetectorOptions options_;
};

TEST_F(HotwordDetectorTest, ReportsEachWhistleWhereItsSecondToneBeginsHoweverChunked) {
  const std::vector<int16_t> audio = WhistleAudio(6.0, {1.0, 4.5});
  HotwordDetector detector(options_);
  const std::vector<Detection> found = RunStream(&detector, audio);
  ASSERT_EQ(2u, found.size());
  const double second_tone[2] = {1.3, 4.8};
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(1, found[i].hotword);
    EXPECT_EQ("whistle", found[i].name);
    EXPECT_EQ(found[i].sample, static_cast<int64>(found[i].seconds * 16000 + 0.5));
    EXPECT_NEAR(second_tone[i] + 0.03, found[i].seconds, 0.05);
  }
  std::mt19937 rng(5);
  std::vector<size_t> random_chunks(50);
  for (size_t& n : random_chunks) n = std::uniform_int_distribution<size_t>(1, 5000)(rng);
  for (const auto& chunks : {std::vector<size_t>{1}, std::vector<size_t>{159, 1601}, random_chunks}) {
    HotwordDetector chunked(options_);
    const std::vector<Detection> again = RunStream(&chunked, audio, chunks);
    ASSERT_EQ(2u, again.size()) << "first chunk " << chunks[0];
    for (int i = 0; i < 2; ++i) EXPECT_EQ(found[i].sample, again[i].sample);
  }
}

TEST_F(HotwordDetectorTest, ScoresEveryStepAndEachDetectionCarriesTheScoreThatPassed) {
  const std::vector<int16_t> audio = WhistleAudio(6.0, {1.0, 4.5});
  HotwordDetector detector(options_);
  std::vector<HotwordScore> steps;
  detector.SetScoreListener([&steps](const HotwordScore& s) { steps.push_back(s); });
  const std::vector<Detection> found = RunStream(&detector, audio, {777});
  std::vector<HotwordScore> detected;
  for (size_t i = 0; i < steps.size(); ++i) {
    EXPECT_EQ(1, steps[i].hotword);
    EXPECT_TRUE(i == 0 || steps[i - 1].sample < steps[i].sample) << i;
    if (steps[i].detected) detected.push_back(steps[i]);
    // Noise before the first whistle scores well below the threshold.
    EXPECT_TRUE(steps[i].seconds >= 0.9 || steps[i].score < 0.2f) << steps[i].seconds;
  }
  // One step per 10 ms frame (slide step 1), less the frames a detection drops.
  EXPECT_NEAR(600.0, static_cast<double>(steps.size()), 40.0);
  // Without the listener (a new stream after the flush): no steps, and the
  // same detections.
  detector.SetScoreListener(nullptr);
  steps.clear();
  const std::vector<Detection> expected = RunStream(&detector, audio);
  EXPECT_TRUE(steps.empty());
  ASSERT_EQ(2u, expected.size());
  ASSERT_EQ(2u, found.size());
  ASSERT_EQ(2u, detected.size());
  for (size_t i = 0; i < found.size(); ++i) {
    EXPECT_EQ(expected[i].sample, found[i].sample);
    EXPECT_EQ(expected[i].score, found[i].score);
    EXPECT_GE(found[i].score, 0.5f);  // the threshold: 1 - sensitivity
    EXPECT_LE(found[i].score, 1.0f);
    EXPECT_EQ(found[i].sample, detected[i].sample);
    EXPECT_EQ(found[i].score, detected[i].score);
  }
}

TEST_F(HotwordDetectorTest, TakesAnySampleRateAsIntegersOrFloatsAndCountsInputSamples) {
  for (int rate : {8000, 22050, 44100, 48000}) {
    options_.sample_rate = rate;
    const std::vector<int16_t> audio = WhistleAudio(6.0, {1.0, 4.5}, 3, rate);
    std::vector<float> floats(audio.size());
    for (size_t i = 0; i < audio.size(); ++i) floats[i] = audio[i] / 32768.0f;
    HotwordDetector detector(options_);
    const std::vector<Detection> found = RunStream(&detector, audio);
    ASSERT_EQ(2u, found.size()) << rate;
    const double second_tone[2] = {1.3, 4.8};
    for (int i = 0; i < 2; ++i) {
      EXPECT_NEAR(second_tone[i] + 0.03, found[i].seconds, 0.05) << rate;
      EXPECT_EQ(found[i].sample, static_cast<int64>(found[i].seconds * rate + 0.5)) << rate;
    }
    // Floats of the same audio, a few samples at a time: the same detections.
    const std::vector<Detection> again = RunStream(&detector, floats, {333});
    ASSERT_EQ(2u, again.size()) << rate;
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(found[i].sample, again[i].sample) << rate;
      EXPECT_EQ(found[i].score, again[i].score) << rate;
    }
  }
  options_.sample_rate = 96000;
  EXPECT_EQ("HotwordDetector: sample rate 96000 Hz is not supported; give 8000 to 48000 Hz.",
            KESTREL_ERROR_TEXT(HotwordDetector detector(options_)));
}

TEST_F(HotwordDetectorTest, IgnoresNoiseAndTheTonesInReverseOrder) {
  EXPECT_EQ(0u, Count(Noise(5 * 16000, 500, 9)));
  std::vector<int16_t> reversed = Noise(3 * 16000, 500, 2);
  AddTone(&reversed, kWhistleSecondHz, 6000, 16000, 4800);
  AddTone(&reversed, kWhistleFirstHz, 6000, 16000 + 4800, 4800);
  EXPECT_EQ(0u, Count(reversed));
}

TEST_F(HotwordDetectorTest, FlushFindsAWhistleAtTheEndAndStartsANewStream) {
  // The whistle ends with the audio, inside the frames the network holds back.
  const std::vector<int16_t> audio = WhistleAudio(2.0, {2.0 - 2 * kWhistleToneSeconds});
  HotwordDetector detector(options_);
  EXPECT_TRUE(detector.Process(audio.data(), audio.size()).empty());
  const std::vector<Detection> at_end = detector.Flush();
  ASSERT_EQ(1u, at_end.size());
  // The same audio again is a new stream: same position, not 2 s later, and
  // not lost to the refractory time of the first detection.
  EXPECT_TRUE(detector.Process(audio.data(), audio.size()).empty());
  const std::vector<Detection> again = detector.Flush();
  ASSERT_EQ(1u, again.size());
  EXPECT_EQ(at_end[0].sample, again[0].sample);
}

TEST_F(HotwordDetectorTest, SensitivitiesAreSetAndReadPerHotwordNumber) {
  const std::vector<int16_t> audio = WhistleAudio(3.0, {1.0});
  // Two models of one whistle each: hotwords 1 and 2, named in that order.
  options_.models.push_back(options_.models[0]);
  options_.hotword_names = {"first", "second"};
  options_.sensitivities = {0.0f};  // a score would have to reach 1
  HotwordDetector detector(options_);
  EXPECT_EQ(2, detector.NumHotwords());
  EXPECT_EQ("second", detector.HotwordName(2));
  EXPECT_EQ((std::vector<float>{0, 0}), detector.HighSensitivities());
  EXPECT_TRUE(RunStream(&detector, audio).empty());

  detector.SetSensitivity(2, 0.5f);
  EXPECT_EQ((std::vector<float>{0, 0.5f}), detector.Sensitivities());
  std::vector<Detection> found = RunStream(&detector, audio);
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ(2, found[0].hotword);
  EXPECT_EQ("second", found[0].name);

  detector.SetSensitivities({0.5f, 0.0f});
  EXPECT_EQ(0.5f, detector.Sensitivity(1));
  found = RunStream(&detector, audio);
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ(1, found[0].hotword);

  EXPECT_EQ("HotwordDetector: no hotword 3; hotwords are numbered 1 to 2.",
            KESTREL_ERROR_TEXT(detector.SetSensitivity(3, 0.5f)));
  EXPECT_EQ("HotwordDetector: no hotword 0; hotwords are numbered 1 to 2.",
            KESTREL_ERROR_TEXT(detector.HotwordName(0)));
  EXPECT_NE("", KESTREL_ERROR_TEXT(detector.SetSensitivities({0.1f, 0.2f, 0.3f})));
  EXPECT_EQ((std::vector<float>{0.5f, 0}), detector.Sensitivities());
}

TEST_F(HotwordDetectorTest, NamesComeFromTheOptionsThenTheModelThenItsFile) {
  HotwordModel stored = options_.models[0];
  stored.hotwords[0].name = "hey whistle";
  HotwordModel two = options_.models[0];
  two.hotwords.push_back(two.hotwords[0]);
  two.name = "dir.d/two_tones.kmodel";
  HotwordModel buffer = options_.models[0];
  buffer.name = "model buffer 1";
  options_.models = {options_.models[0], stored, two, buffer};
  options_.hotword_names.clear();
  HotwordDetector detector(options_);
  // The fixture's file is "tone.kmodel".
  const std::string tone = "tone";
  const std::vector<std::string> expected = {tone, "hey whistle", "two tones 1", "two tones 2", ""};
  for (int k = 1; k <= detector.NumHotwords(); ++k) {
    EXPECT_EQ(expected[k - 1], detector.HotwordName(k)) << k;
  }
  const std::vector<Detection> found = RunStream(&detector, WhistleAudio(3.0, {1.0}));
  ASSERT_FALSE(found.empty());
  EXPECT_EQ(tone, found[0].name);
  // Names given by the caller win over the stored one.
  options_.hotword_names = {"a", "b", "c", "d", "e"};
  EXPECT_EQ("b", HotwordDetector(options_).HotwordName(2));
}

TEST_F(HotwordDetectorTest, RefusesOptionsThatDoNotFitTheModels) {
  options_.hotword_names = {"a", "b"};
  EXPECT_EQ("HotwordDetector: 2 hotword names given for 1 hotwords.",
            KESTREL_ERROR_TEXT(HotwordDetector detector(options_)));
  options_.hotword_names.clear();
  options_.slide_windows = {50, 60};
  EXPECT_EQ("HotwordDetector: 2 slide window lengths given for 1 models; give one per model, "
            "or none.",
            KESTREL_ERROR_TEXT(HotwordDetector detector(options_)));
  options_.slide_windows.clear();
  const std::string small = "<UniversalModel> <KwInfo> <SmoothWindow> 1 <SlideWindow> 10 "
                            "<NumKws> 1 <Kw> [ 1 ] <Sensitivity> 0.5 </KwInfo> "
                            "<Nnet> <Softmax> 3 3 </Nnet>";
  options_.models.push_back(HotwordModel::ReadMemory(small.data(), small.size(), "small"));
  EXPECT_EQ("HotwordDetector: model 2 (\"small\") takes 3 features per frame; the front end "
            "gives 40.",
            KESTREL_ERROR_TEXT(HotwordDetector detector(options_)));
  // A model edited in code is checked as a file would be.
  options_.models[1].hotwords[0].keyword = {7};
  EXPECT_EQ("UniversalDetectStream: model file \"small\", hotword 1: <Kw> unit 7 is not an "
            "output of the network, expected 0 to 2.",
            KESTREL_ERROR_TEXT(HotwordDetector detector(options_)));
  options_.models.clear();
  EXPECT_EQ("HotwordDetector: no models given; add at least one to options.models.",
            KESTREL_ERROR_TEXT(HotwordDetector detector(options_)));
}

}  // namespace
}  // namespace kestrel
