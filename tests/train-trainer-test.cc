// End-to-end training on a toy corpus: the trained network must tell the
// units apart, and the model it goes into must load in the detector.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "feature-set.h"
#include "hotword-trainer.h"
#include "hotword-units.h"
#include "posterior-scan.h"
#include "test-log-capture.h"
#include "training-frames.h"

namespace kestrel {
namespace {

// Clips of 60 frames of 4 noisy features; frames 20-29 are unit 1 and 30-39
// unit 2, each with its own mean, and the rest filler around 0. With
// `decoy_every`, every so many clips have filler frames 46-55 that look like
// unit 1 in all features but the last; with `faint_every`, every so many
// clips say unit 1 faintly, closer to filler.
void ToyCorpus(int clips, uint32 seed, FeatureSet* features, std::vector<std::vector<int>>* labels,
               int decoy_every = 0, int faint_every = 0) {
  std::mt19937 rng(seed);
  std::normal_distribution<float> noise(0.0f, 0.5f);
  const float means[5][4] = {
      {0, 0, 0, 0}, {2, 0, -1, 0}, {0, 2, 0, -1}, {2, 0, -1, 2}, {0.7f, 0, -0.3f, 0}};
  for (int c = 0; c < clips; ++c) {
    Matrix m(60, 4);
    std::vector<int> l(60, 0);
    for (int t = 0; t < 60; ++t) {
      l[t] = (t >= 20 && t < 30) ? 1 : (t >= 30 && t < 40) ? 2 : 0;
      const bool decoy = decoy_every > 0 && c % decoy_every == 0 && t >= 46 && t < 56;
      const bool faint = faint_every > 0 && c % faint_every == 0 && l[t] == 1;
      const float* mean = means[decoy ? 3 : faint ? 4 : l[t]];
      for (int d = 0; d < 4; ++d) m(t, d) = mean[d] + noise(rng) + 5.0f;  // offset: normalisation must remove it
    }
    features->Append(m);
    labels->push_back(l);
  }
}

// A small one-layer network that learns the toy corpus in a few epochs.
HotwordTrainerOptions ToyOptions(int hidden_dim, int epochs) {
  HotwordTrainerOptions options;
  options.hidden_dim = hidden_dim;
  options.hidden_layers = 1;
  options.epochs = epochs;
  options.batch_size = 32;
  options.learning_rate = 0.01f;
  options.max_bin_shift = 0;  // four toy features are no mel spectrum
  options.max_masked_bins = 0;
  return options;
}

TEST(HotwordTrainer, LearnsToSeparateUnitsFromFiller) {
  FeatureSet train_set, dev_set;
  std::vector<std::vector<int>> train_labels, dev_labels;
  ToyCorpus(40, 1, &train_set, &train_labels);
  ToyCorpus(10, 2, &dev_set, &dev_labels);
  // One layer behind a splice of -2..+1, and two time-delay layers that
  // reach as far.
  HotwordTrainerOptions flat = ToyOptions(16, 8);
  flat.left_context = 2;
  flat.right_context = 1;
  flat.max_masked_frames = 2;  // a quiet run inside the 4-frame window
  HotwordTrainerOptions time_delay = flat;
  time_delay.hidden_layers = 2;
  time_delay.layer_splices = {{-1, 0}, {-1, 0, 1}};
  time_delay.left_context = time_delay.right_context = 0;  // the splices decide
  for (const HotwordTrainerOptions& options : {flat, time_delay}) {
    SCOPED_TRACE(options.layer_splices.empty() ? "flat" : "time-delay");
    Splice splice = MakeSplice(4, options);
    EXPECT_EQ(splice.Offsets(), (std::vector<int32>{-2, -1, 0, 1}));
    TrainingFrames train(&train_set, train_labels, splice);
    TrainingFrames dev(&dev_set, dev_labels, splice);

    std::vector<std::string> lines;
    Nnet nnet = TrainHotwordNetwork(train, &dev, options,
                                    [&lines](const std::string& line) { lines.push_back(line); });
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& l) { return l.rfind("epoch ", 0) == 0; }),
              8);
    EXPECT_EQ(nnet.InputDim(), 4);
    EXPECT_EQ(nnet.OutputDim(), 3);
    int splices = 0;
    for (int i = 0; i < nnet.NumComponents(); ++i) {
      splices += dynamic_cast<const Splice*>(&nnet.GetComponent(i)) != nullptr;
    }
    EXPECT_EQ(splices, options.layer_splices.empty() ? 1 : 2);

    // Streamed through the whole network, held-out frames are labelled right.
    FeatureSet posteriors = ComputePosteriors(nnet, dev_set, 2);
    int correct = 0, total = 0;
    for (int c = 0; c < posteriors.NumClips(); ++c) {
      ASSERT_EQ(posteriors.NumFrames(c), 60);
      for (int t = 0; t < 60; ++t) {
        const float* p = posteriors.Frame(c, t);
        int best = static_cast<int>(std::max_element(p, p + 3) - p);
        correct += best == dev_labels[c][t];
        ++total;
      }
    }
    EXPECT_GT(static_cast<double>(correct) / total, 0.95);

    // Going on from the trained network at step size 0 gives it back bit for
    // bit, normalisation included, after mining at once; one of another
    // width is refused by name.
    HotwordTrainerOptions still = options;
    still.epochs = 1;
    still.learning_rate = 0.0f;
    std::ostringstream before, after;
    nnet.Write(false, &before);
    lines.clear();
    TrainHotwordNetwork(train, nullptr, still, [&lines](const std::string& l) { lines.push_back(l); },
                        &nnet)
        .Write(false, &after);
    EXPECT_EQ(after.str(), before.str());
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0].rfind("mining: ", 0), 0u) << lines[0];
    HotwordTrainerOptions wider = options;
    wider.hidden_dim = 24;
    const std::string refused = KESTREL_ERROR_TEXT(TrainHotwordNetwork(train, nullptr, wider, {}, &nnet));
    EXPECT_NE(refused.find("has <AffineTransform> 16 x"), std::string::npos) << refused;
    EXPECT_NE(refused.find("make <AffineTransform> 24 x"), std::string::npos) << refused;
  }
}

// One frame per row, no augmentation.
HotwordTrainerOptions FrameByFrameOptions(int hidden_dim = 8, int epochs = 6) {
  HotwordTrainerOptions options = ToyOptions(hidden_dim, epochs);
  options.left_context = 0;
  options.right_context = 0;
  options.max_masked_frames = 0;
  return options;
}

// Mean unit-1 posterior of a network trained with `options` over frames
// first..first+9 of every 20th clip, where the toy corpus puts its rare frames.
double RareFramesUnitPosterior(const TrainingFrames& frames, const FeatureSet& set,
                               const HotwordTrainerOptions& options, int first) {
  FeatureSet posteriors = ComputePosteriors(TrainHotwordNetwork(frames, nullptr, options, {}), set, 1);
  double sum = 0.0;
  for (int c = 0; c < set.NumClips(); c += 20) {
    for (int t = first; t < first + 10; ++t) sum += posteriors.Frame(c, t)[1];
  }
  return sum / (10.0 * ((set.NumClips() + 19) / 20));
}

// Filler frames that look almost like unit 1 (every feature but the last)
// are rare: uniformly drawn filler seldom shows them to the network, mining
// shows them every epoch, so only a network trained with mining learns to
// reject them.
TEST(HotwordTrainer, MiningTeachesRareDecoysAreFiller) {
  FeatureSet set;
  std::vector<std::vector<int>> labels;
  ToyCorpus(200, 3, &set, &labels, 20);
  HotwordTrainerOptions options = FrameByFrameOptions();
  // A fifth of each epoch is filler, and mining scores all of it.
  options.filler_fraction = 0.2;
  options.mining_pool = 20;
  TrainingFrames frames(&set, labels, MakeSplice(4, options));
  // Decoys sit more than five frames from the units: clear filler.
  EXPECT_EQ(frames.ClearFillerFrames(5).size(), 200u * 30);
  options.hard_filler_share = 0.0;
  const double without = RareFramesUnitPosterior(frames, set, options, 46);
  EXPECT_GT(without, 0.5);
  options.hard_filler_share = 0.5;
  EXPECT_LT(RareFramesUnitPosterior(frames, set, options, 46), without / 2);
}

// The mirror image: hotword frames said faintly are rare, and filler mining
// teaches the network that anything not clearly a unit is filler. Mining
// the hotword frames it gets most wrong shows it the faint ones every epoch.
TEST(HotwordTrainer, HotwordMiningKeepsRareFaintUnits) {
  FeatureSet set;
  std::vector<std::vector<int>> labels;
  ToyCorpus(200, 7, &set, &labels, 0, 20);
  HotwordTrainerOptions options = FrameByFrameOptions();
  TrainingFrames frames(&set, labels, MakeSplice(4, options));
  // Two frames at either edge of each 10-frame unit are left out.
  EXPECT_EQ(frames.ClearUnitFrames(2).size(), 200u * 12);
  const double without = RareFramesUnitPosterior(frames, set, options, 20);
  options.hard_hotword_share = 0.03;
  const double with = RareFramesUnitPosterior(frames, set, options, 20);
  std::printf("faint unit posterior: without hotword mining %.3f, with %.3f\n", without, with);
  EXPECT_GT(with, without + 0.02);
}

// Held-out clips with other clips' filler added in the power domain at
// -3 to 3 dB: a network that heard such mixes in training finds the units
// under them far more often than one trained on clean clips alone, and the
// mix it hears does not depend on the thread count.
// Share of the toy corpus's unit frames (20-39) in `set` that `nnet` labels
// right.
double UnitAccuracy(const Nnet& nnet, const FeatureSet& set, const std::vector<std::vector<int>>& labels) {
  FeatureSet posteriors = ComputePosteriors(nnet, set, 1);
  int correct = 0, total = 0;
  for (int c = 0; c < posteriors.NumClips(); ++c) {
    for (int t = 20; t < 40; ++t) {
      const float* p = posteriors.Frame(c, t);
      correct += std::max_element(p, p + 3) - p == labels[c][t];
      ++total;
    }
  }
  return static_cast<double>(correct) / total;
}

// The toy corpus's train clips and held-out clips of the robustness tests.
struct ToySplits {
  FeatureSet train, dev;
  std::vector<std::vector<int>> train_labels, dev_labels;
};
ToySplits RobustnessSplits() {
  ToySplits s;
  ToyCorpus(100, 4, &s.train, &s.train_labels);
  ToyCorpus(20, 5, &s.dev, &s.dev_labels);
  return s;
}

TEST(HotwordTrainer, NoiseMixingHoldsUpUnderAddedSound) {
  const ToySplits toy = RobustnessSplits();
  const FeatureSet& clean_dev = toy.dev;
  const std::vector<std::vector<int>>& dev_labels = toy.dev_labels;
  FeatureSet noisy_dev;
  std::mt19937 rng(6);
  std::uniform_real_distribution<float> snr_db(-3.0f, 3.0f);
  for (int c = 0; c < clean_dev.NumClips(); ++c) {
    const int other = (c + 1) % clean_dev.NumClips();
    Matrix m(60, 4);
    for (int t = 0; t < 60; ++t) {
      // Filler around the same level as the clip, scaled down by the SNR.
      const float gain = -snr_db(rng) * std::log(10.0f) / 10.0f;
      const int filler_t = t < 20 ? t : 40 + t % 20;
      for (int d = 0; d < 4; ++d) {
        const float a = clean_dev.Frame(c, t)[d], b = clean_dev.Frame(other, filler_t)[d] + gain;
        m(t, d) = std::max(a, b) + std::log1p(std::exp(-std::fabs(a - b)));
      }
    }
    noisy_dev.Append(m);
  }
  HotwordTrainerOptions options = FrameByFrameOptions(16, 8);
  options.noise_min_snr_db = 0;
  options.noise_max_snr_db = 10;
  TrainingFrames train(&toy.train, toy.train_labels, MakeSplice(4, options));
  auto unit_accuracy = [&](const Nnet& nnet) { return UnitAccuracy(nnet, noisy_dev, dev_labels); };
  const double clean_trained = unit_accuracy(TrainHotwordNetwork(train, nullptr, options, {}));
  options.noise_share = 0.5;
  options.threads = 1;
  const Nnet one_thread = TrainHotwordNetwork(train, nullptr, options, {});
  const double noise_trained = unit_accuracy(one_thread);
  std::printf("unit accuracy under added sound: clean-trained %.3f, noise-trained %.3f\n",
              clean_trained, noise_trained);
  EXPECT_GT(noise_trained, clean_trained + 0.05);
  options.threads = 2;
  FeatureSet a = ComputePosteriors(one_thread, noisy_dev, 1);
  FeatureSet b = ComputePosteriors(TrainHotwordNetwork(train, nullptr, options, {}), noisy_dev, 1);
  for (int t = 0; t < 60; ++t) ASSERT_EQ(a.Frame(0, t)[1], b.Frame(0, t)[1]) << "frame " << t;
}

// Clips of 60 frames of 40 mel bins, labelled as ToyCorpus labels them,
// shaped like speech: a level falling towards the high bins. Each unit
// raises a high band strongly and a low band faintly, so that white noise,
// strongest in the high bins, buries its strong cue.
void MelToyCorpus(int clips, uint32 seed, FeatureSet* features, std::vector<std::vector<int>>* labels) {
  std::mt19937 rng(seed);
  std::normal_distribution<float> noise(0.0f, 0.3f);
  for (int c = 0; c < clips; ++c) {
    Matrix m(60, 40);
    std::vector<int> l(60, 0);
    for (int t = 0; t < 60; ++t) {
      l[t] = (t >= 20 && t < 30) ? 1 : (t >= 30 && t < 40) ? 2 : 0;
      for (int b = 0; b < 40; ++b) {
        float level = 14.0f - 0.2f * b;
        if (l[t] == 1) level += (b >= 30 ? 3.0f : 0.0f) + (b >= 4 && b < 8 ? 1.0f : 0.0f);
        if (l[t] == 2) level += (b >= 20 && b < 30 ? 3.0f : 0.0f) + (b >= 8 && b < 12 ? 1.0f : 0.0f);
        m(t, b) = level + noise(rng);
      }
    }
    features->Append(m);
    labels->push_back(l);
  }
}

// Held-out frames with white noise at 0-6 dB below each frame's power are
// labelled better by a network trained with white noise mixed in.
TEST(HotwordTrainer, WhiteNoiseMixingHoldsUpInWhiteNoise) {
  FeatureSet train_set, clean_dev, noisy_dev;
  std::vector<std::vector<int>> train_labels, dev_labels;
  MelToyCorpus(100, 8, &train_set, &train_labels);
  MelToyCorpus(20, 9, &clean_dev, &dev_labels);
  std::mt19937 rng(10);
  std::normal_distribution<float> sample(0.0f, 300.0f);
  std::vector<int16_t> samples(160 * (60 * 20 + 2));
  for (int16_t& x : samples) x = static_cast<int16_t>(sample(rng));
  const Matrix white = ComputeSampleFeatures(samples);
  std::uniform_real_distribution<float> snr_db(0.0f, 6.0f);
  auto power = [](const float* x) {
    double sum = 0.0;
    for (int b = 0; b < 40; ++b) sum += std::exp(x[b]);
    return static_cast<float>(std::log(sum));
  };
  for (int c = 0; c < clean_dev.NumClips(); ++c) {
    Matrix m(60, 40);
    for (int t = 0; t < 60; ++t) {
      const float* x = clean_dev.Frame(c, t);
      const float* n = white.RowData(c * 60 + t);
      const float gain = power(x) - power(n) - snr_db(rng) * std::log(10.0f) / 10.0f;
      for (int b = 0; b < 40; ++b) m(t, b) = std::log(std::exp(x[b]) + std::exp(n[b] + gain));
    }
    noisy_dev.Append(m);
  }
  HotwordTrainerOptions options = FrameByFrameOptions(16, 8);
  options.max_bin_shift = 0;
  options.noise_min_snr_db = 0;
  options.noise_max_snr_db = 10;
  TrainingFrames train(&train_set, train_labels, MakeSplice(40, options));
  const double clean_trained =
      UnitAccuracy(TrainHotwordNetwork(train, nullptr, options, {}), noisy_dev, dev_labels);
  options.white_noise_share = 0.5;
  const Nnet noise_trained = TrainHotwordNetwork(train, nullptr, options, {});
  const double noisy = UnitAccuracy(noise_trained, noisy_dev, dev_labels);
  std::printf("unit accuracy in white noise: clean-trained %.3f, white-noise-trained %.3f\n",
              clean_trained, noisy);
  EXPECT_GT(noisy, clean_trained + 0.05);
  EXPECT_GT(UnitAccuracy(noise_trained, clean_dev, dev_labels), 0.9);
  // The noise comes from the front end, so it only fits its features.
  FeatureSet four_bins;
  std::vector<std::vector<int>> four_labels;
  ToyCorpus(4, 1, &four_bins, &four_labels);
  TrainingFrames four(&four_bins, four_labels, MakeSplice(4, options));
  EXPECT_EQ(KESTREL_ERROR_TEXT(TrainHotwordNetwork(four, nullptr, options, {})),
            "white noise mixing needs the front end's 40 mel bins, but the features have 4");
}

// Held-out clips whose spectrum slopes another way (a ramp across the
// features, the same for every frame of a clip) are labelled better by a
// network trained on randomly tilted rows.
TEST(HotwordTrainer, TiltHoldsUpUnderAnotherSpectralSlope) {
  const ToySplits toy = RobustnessSplits();
  const FeatureSet& dev_set = toy.dev;
  FeatureSet sloped_dev;
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> slope_of(-2.0f, 2.0f);
  for (int c = 0; c < dev_set.NumClips(); ++c) {
    const float slope = slope_of(rng);
    Matrix m(60, 4);
    for (int t = 0; t < 60; ++t) {
      for (int d = 0; d < 4; ++d) m(t, d) = dev_set.Frame(c, t)[d] + slope * (d - 1.5f);
    }
    sloped_dev.Append(m);
  }
  HotwordTrainerOptions options = ToyOptions(16, 8);
  options.left_context = 8;
  options.right_context = 0;
  options.max_masked_frames = 0;
  TrainingFrames train(&toy.train, toy.train_labels, MakeSplice(4, options));
  const double plain = UnitAccuracy(TrainHotwordNetwork(train, nullptr, options, {}), sloped_dev, toy.dev_labels);
  options.max_tilt_db = 4.0f;
  const double tilted = UnitAccuracy(TrainHotwordNetwork(train, nullptr, options, {}), sloped_dev, toy.dev_labels);
  std::printf("unit accuracy on sloped clips: plain %.3f, tilt-trained %.3f\n", plain, tilted);
  EXPECT_GT(tilted, plain + 0.05);
}

TEST(TrainingFrames, EpochsBalanceFillerAgainstUnits) {
  FeatureSet set;
  std::vector<std::vector<int>> labels;
  ToyCorpus(10, 3, &set, &labels);
  HotwordTrainerOptions options;
  options.left_context = 10;
  options.right_context = 5;
  TrainingFrames frames(&set, labels, MakeSplice(4, options));
  std::mt19937 rng(1);
  std::vector<FrameRef> epoch = frames.EpochFrames(0.6, &rng);
  size_t filler = 0;
  for (const FrameRef& f : epoch) filler += frames.Label(f) == 0;
  EXPECT_EQ(epoch.size() - filler, 200u);  // every unit frame
  EXPECT_EQ(filler, 300u);                 // 60% of the epoch
  // Hard unit frames come on top, and leave the filler as it was.
  epoch = frames.EpochFrames(0.6, &rng, {}, {{0, 25}, {0, 25}, {1, 31}});
  EXPECT_EQ(epoch.size(), 503u);
  EXPECT_EQ(std::count_if(epoch.begin(), epoch.end(),
                          [](const FrameRef& f) { return f.clip == 0 && f.frame == 25; }),
            3);
  // Contrast frames are filler that every epoch holds, within its share.
  std::vector<std::vector<int>> marked = labels;
  std::vector<FrameRef> contrast;
  for (int c = 0; c < 3; ++c) {
    for (int t = 0; t < static_cast<int>(marked[c].size()) && contrast.size() < 5u * (c + 1); ++t) {
      if (marked[c][t] == 0) {
        marked[c][t] = kContrastFrame;
        contrast.push_back({c, t});
      }
    }
  }
  TrainingFrames with_contrast(&set, marked, MakeSplice(4, options));
  for (int e = 0; e < 3; ++e) {
    std::vector<FrameRef> frames_of_epoch = with_contrast.EpochFrames(0.6, &rng);
    EXPECT_EQ(frames_of_epoch.size(), 500u);
    for (const FrameRef& f : contrast) {
      EXPECT_EQ(with_contrast.Label(f), 0);
      EXPECT_EQ(std::count_if(frames_of_epoch.begin(), frames_of_epoch.end(),
                              [&](const FrameRef& g) { return g.clip == f.clip && g.frame == f.frame; }),
                1);
    }
  }
  // Spliced rows repeat the first frame where the context reaches before it.
  Matrix rows;
  std::vector<int32> row_labels;
  frames.MakeBatch({{0, 0}}, 0, 1, &rows, &row_labels);
  ASSERT_EQ(rows.NumCols(), 16 * 4);
  EXPECT_EQ(rows(0, 0), set.Frame(0, 0)[0]);
  EXPECT_EQ(rows(0, 10 * 4), set.Frame(0, 0)[0]);
  EXPECT_EQ(rows(0, 15 * 4), set.Frame(0, 5)[0]);
}

}  // namespace
}  // namespace kestrel
