// The steps of `kestrel train` that its two ways in share: from a corpus
// (--corpus DIR) and from a phrase (--phrase, which synthesizes the corpus
// first and runs these steps as resumable stages). Each step reports its
// progress lines through `progress`; errors are KestrelError exceptions.
#ifndef KESTREL_TOOLS_MODEL_TRAINING_H_
#define KESTREL_TOOLS_MODEL_TRAINING_H_

#include <functional>
#include <string>
#include <vector>

#include "corpus-split.h"
#include "hotword-trainer.h"
#include "hotword-units.h"
#include "search-tuning.h"

namespace kestrel {

using ProgressFunction = std::function<void(const std::string&)>;

struct TrainConfig {
  std::string corpus;
  std::string out;
  std::string train_split = "train";
  std::string dev_split = "dev";
  std::string cache_dir;
  std::string report;
  // A model whose network training goes on from (TrainHotwordNetwork's
  // `start_from`); empty: random weights.
  std::string init_model;
  // With init_model: runs trained on from it, with seeds seed, seed + 1, ...,
  // whose weights are averaged (AverageNetworks) into the network tuned.
  int32 runs = 1;
  // Stored in the model; empty: the corpus's phrase (CorpusPhrase).
  std::string hotword_name;
  // The two best on dev (naive and Viterbi; soft-floor Viterbi missed ten
  // points more); `kestrel evaluate` compares them all.
  std::string methods = "1,3";
  // Output scales tried in tuning (ScaleOutputLogits), comma-separated.
  std::string output_scales = "1";
  std::string max_fa = "0.5";
  std::string max_near = "0.15";
  std::string learning_rate = "0.001";
  std::string filler_fraction = "0.5";
  std::string hard_filler_share = "0.5";
  std::string hard_hotword_share = "0";
  std::string noise_share = "0";
  std::string white_noise_share = "0";
  std::string max_tilt_db = "0";
  std::string dropout = "0";
  // Four units: with six, a fast speaker's shortest units lasted fewer
  // frames than the Viterbi searches' minimum per unit, and dev misses were
  // a third higher.
  int32 units = 4;
  // Frames left untrained on either side of each unit edge in the positives
  // (FrameLabels).
  int32 unit_edge_frames = 0;
  // Frames of the near phrases either side of where their shared and
  // differing sounds meet, trained as filler in every epoch (FrameLabels).
  int32 near_contrast_frames = 0;
  int32 threads = 2;
  bool text = false;
  HotwordTrainerOptions trainer;
  UniversalDetectStreamOptions detector;
};

// The phrase a corpus's positives say: the text most of them share (those
// said alone say nothing else); "" when no text is shared by a tenth of them.
std::string CorpusPhrase(const std::vector<CorpusClip>& clips);

// A split with its features (cached in config.cache_dir, else the corpus).
CorpusSplit LoadSplit(const TrainConfig& config, const std::string& split,
                      const ProgressFunction& progress);

// The network, trained on `train`, scored on `dev` after every epoch.
Nnet TrainNetwork(const TrainConfig& config, const CorpusSplit& train, const CorpusSplit& dev,
                  const HotwordUnits& units, const ProgressFunction& progress);

// The search settings, sensitivity and output scale chosen on `dev` for
// `nnet`: every method of config.methods is tuned at every scale of
// config.output_scales. A "tune:" progress line follows each method at each
// scale.
TunedSearch TuneSearch(const TrainConfig& config, const Nnet& nnet, const CorpusSplit& dev,
                       const HotwordUnits& units, const ProgressFunction& progress);

// Writes best.settings with `nnet` (its outputs scaled by best.output_scale)
// and `name` to config.out, through a temporary file so that an interrupted
// write leaves no model behind.
void WriteTrainedModel(const TrainConfig& config, const TunedSearch& best, const Nnet& nnet,
                       const std::string& name);

// What the summary says about a written model: file, units, search
// settings, and the dev figures at the chosen sensitivity.
std::string TrainedModelReport(const TrainConfig& config, const TunedSearch& best,
                               const HotwordUnits& units, const std::string& name);

}  // namespace kestrel

#endif  // KESTREL_TOOLS_MODEL_TRAINING_H_
