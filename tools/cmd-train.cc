// kestrel train: a hotword model from a generated corpus, in one run:
// features, frame labels, network training, choice of the search settings
// and sensitivity on the held-out split, and the model file.
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "corpus-split.h"
#include "hotword-trainer.h"
#include "hotword-units.h"
#include "posterior-scan.h"
#include "search-tuning.h"
#include "training-frames.h"
#include "utils/kestrel-log.h"
#include "utils/kestrel-utils.h"

namespace kestrel {
namespace {

using Clock = std::chrono::steady_clock;

struct TrainConfig {
  std::string corpus;
  std::string out;
  std::string train_split = "train";
  std::string dev_split = "dev";
  std::string cache_dir;
  std::string report;
  // The two best on dev; `kestrel evaluate` compares them all.
  std::string methods = "3,6";
  std::string max_fa = "0.5";
  std::string max_near = "0.15";
  std::string learning_rate = "0.001";
  std::string filler_fraction = "0.5";
  // Four units: with six, a fast speaker's shortest units lasted fewer
  // frames than the Viterbi searches' minimum per unit, and dev misses were
  // a third higher.
  int32 units = 4;
  int32 threads = 2;
  bool text = false;
  HotwordTrainerOptions trainer;
};

class Timer {
 public:
  double Seconds() const { return std::chrono::duration<double>(Clock::now() - start_).count(); }

 private:
  Clock::time_point start_ = Clock::now();
};

std::vector<std::vector<int>> LabelsOf(const CorpusSplit& split, const HotwordUnits& units) {
  std::vector<std::vector<int>> labels;
  for (size_t c = 0; c < split.clips.size(); ++c) {
    labels.push_back(FrameLabels(split.clips[c], units, split.features.NumFrames(static_cast<int>(c))));
  }
  return labels;
}

int Train(TrainConfig config, const UniversalDetectStreamOptions& detector) {
  Timer total;
  const std::string cache = config.cache_dir.empty() ? config.corpus : config.cache_dir;
  CorpusSplit train = LoadCorpusSplit(config.corpus, config.train_split, cache, config.threads, Progress);
  CorpusSplit dev = LoadCorpusSplit(config.corpus, config.dev_split, cache, config.threads, Progress);
  if (dev.NumPositives() == 0) return Failure(config.dev_split + ": the split has no positive clips");
  const double feature_seconds = total.Seconds();

  HotwordUnits units = ChooseUnits(train.clips, config.units);
  Progress("units: " + units.Describe());
  Splice splice = MakeSplice(train.features.Dim(), config.trainer);
  TrainingFrames train_frames(&train.features, LabelsOf(train, units), splice);
  TrainingFrames dev_frames(&dev.features, LabelsOf(dev, units), splice);
  Progress("frames: " + std::to_string(train_frames.UnitFrames().size()) + " hotword, " +
           std::to_string(train_frames.FillerFrames().size()) + " filler");

  Timer training;
  config.trainer.learning_rate = ConvertStringToIntegerOrFloat<float>(config.learning_rate);
  Nnet nnet = TrainHotwordNetwork(train_frames, &dev_frames, config.trainer, Progress);
  const double training_seconds = training.Seconds();

  Timer tuning_timer;
  SearchTuningOptions tuning;
  tuning.detector = detector;
  tuning.num_threads = config.threads;
  tuning.max_false_alarms_per_hour = ConvertStringToIntegerOrFloat<double>(config.max_fa);
  tuning.max_near_phrase_accept_rate = ConvertStringToIntegerOrFloat<double>(config.max_near);
  SplitStringToIntegers<int32>(config.methods, ",", &tuning.methods);
  if (tuning.methods.empty()) return UsageError("train", "--methods names no search method");
  FeatureSet dev_posteriors = ComputePosteriors(nnet, dev.features, config.threads);
  std::vector<TunedSearch> tuned =
      TuneSearchMethods(dev.clips, dev_posteriors, units.unit_seconds, tuning, Progress);
  const TunedSearch& best = tuned[BestTunedSearch(tuned)];
  const double tuning_seconds = tuning_timer.Seconds();

  HotwordModel model = best.settings;
  model.nnet = std::move(nnet);
  model.WriteFile(config.out, !config.text);
  const HotwordRecord& hw = model.hotwords[0];

  std::ostringstream report;
  report.setf(std::ios::fixed);
  report.precision(3);
  report << "model: " << config.out << " (" << std::filesystem::file_size(config.out) << " bytes)\n"
         << "units: " << units.Describe() << "\n"
         << "search: " << SearchMethodLabel(hw.search_method) << ", smooth window "
         << best.settings.smooth_window << ", slide window " << best.settings.slide_window
         << ", floors " << SearchFloorsLabel(hw) << ", sensitivity " << hw.sensitivity << "\n"
         << config.dev_split << " at that sensitivity: FRR " << 100.0 * best.point.FalseRejectionRate()
         << "%, " << best.point.false_alarms << " false alarms in " << best.point.hours
         << " h, near phrases accepted " << best.point.confusables_accepted << "/"
         << best.point.confusables << "\n";
  report.precision(0);
  report << "time: features " << feature_seconds << " s, training " << training_seconds
         << " s, tuning " << tuning_seconds << " s, total " << total.Seconds() << " s\n";
  std::cout << report.str() << std::flush;
  if (!config.report.empty()) {
    std::ofstream file(config.report);
    file << report.str();
    if (!file) return Failure(config.report + ": cannot write the report");
  }
  return kExitOk;
}

}  // namespace

int RunTrain(int argc, char** argv) {
  TrainConfig config;
  UniversalDetectStreamOptions detector;
  HotwordTrainerOptions& t = config.trainer;
  int32 seed = static_cast<int32>(t.seed);
  ArgParser parser(
      "kestrel train --corpus=DIR --out=MODEL.kmodel [options]",
      "Trains a one-hotword model from a corpus made by training/make-corpus.py:\n"
      "computes the filterbank features of every clip (cached in the corpus),\n"
      "labels each frame of the positives with its hotword unit from the phoneme\n"
      "timings, trains the network, then chooses the search method, windows,\n"
      "floors and sensitivity on the held-out split so that false alarms stay\n"
      "within --max-fa-per-hour and near phrases are accepted at most\n"
      "--max-near-accept of the time, and writes the model. Progress goes to standard\n"
      "error, a summary to standard output.");
  parser.AddString("corpus", &config.corpus, "corpus directory with the manifests; required");
  parser.AddString("out", &config.out, "model file to write; required");
  parser.AddString("train-split", &config.train_split, "split to train on");
  parser.AddString("dev-split", &config.dev_split, "held-out split for scoring and tuning");
  parser.AddString("cache-dir", &config.cache_dir, "where features are cached (default: the corpus)");
  parser.AddString("report", &config.report, "also write the summary to this file");
  parser.AddInt("units", &config.units, "hotword units (network outputs besides the filler)");
  parser.AddInt("epochs", &t.epochs, "passes over the hotword frames");
  parser.AddInt("hidden-dim", &t.hidden_dim, "width of the hidden layers");
  parser.AddInt("hidden-layers", &t.hidden_layers, "number of hidden layers");
  parser.AddInt("left-context", &t.left_context, "past feature frames the network sees");
  parser.AddInt("right-context", &t.right_context,
                "future feature frames the network sees (each adds 10 ms of latency)");
  parser.AddString("filler-fraction", &config.filler_fraction,
                   "share of filler frames in each epoch, in (0, 1)");
  parser.AddInt("batch-size", &t.batch_size, "frames per minibatch");
  parser.AddInt("max-bin-shift", &t.max_bin_shift, "augmentation: largest shift of the mel bins");
  parser.AddInt("max-masked-bins", &t.max_masked_bins, "augmentation: widest masked band of bins");
  parser.AddInt("max-masked-frames", &t.max_masked_frames,
                "augmentation: longest run of context frames dropped to a quiet level");
  parser.AddString("learning-rate", &config.learning_rate, "Adam step size");
  parser.AddInt("seed", &seed, "random seed (initial weights, sampling)");
  parser.AddString("methods", &config.methods, "search methods to choose from, comma-separated");
  parser.AddString("max-fa-per-hour", &config.max_fa,
                   "false alarms per hour allowed on the held-out split");
  parser.AddString("max-near-accept", &config.max_near,
                   "share of the held-out near phrases the detector may accept");
  parser.AddInt("threads", &config.threads, "worker threads for features and tuning");
  parser.AddFlag("text", &config.text, "write the model in text form");
  AddCorpusScanOptions(&parser, &detector);
  std::vector<std::string> positional;
  int status = kExitOk;
  if (!parser.ParseCommand(argc, argv, &positional, &status)) return status;
  if (config.corpus.empty()) return UsageError("train", "--corpus is required");
  if (config.out.empty()) return UsageError("train", "--out is required");
  if (!positional.empty()) return UsageError("train", "unexpected argument \"" + positional[0] + "\"");
  if (config.threads < 1 || config.units < 1 || t.epochs < 1 || t.batch_size < 1 ||
      t.hidden_dim < 1 || t.hidden_layers < 0 || t.left_context < 0 || t.right_context < 0) {
    return UsageError("train", "--threads, --units, --epochs, --batch-size and --hidden-dim must be "
                               "at least 1, --hidden-layers and the contexts at least 0");
  }
  t.seed = static_cast<uint32>(seed);
  try {
    config.trainer.filler_fraction = ConvertStringToIntegerOrFloat<double>(config.filler_fraction);
    if (!(config.trainer.filler_fraction > 0.0 && config.trainer.filler_fraction < 1.0)) {
      return UsageError("train", "--filler-fraction must be between 0 and 1, not " +
                                     config.filler_fraction);
    }
    return Train(config, detector);
  } catch (const KestrelError& e) {
    return Failure(e.what());
  }
}

}  // namespace kestrel
