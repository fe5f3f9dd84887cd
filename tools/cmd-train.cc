// kestrel train: a hotword model in one run, from a phrase (the corpus is
// synthesized first; see phrase-training.h) or from a corpus made by
// training/make-corpus.py: features, frame labels, network training, choice
// of the search settings and sensitivity on the held-out split, and the
// model file.
#include <chrono>
#include <cmath>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "model-training.h"
#include "phrase-training.h"
#include "utils/kestrel-log.h"
#include "utils/kestrel-utils.h"

namespace kestrel {
namespace {

class Timer {
 public:
  double Seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

int TrainFromCorpus(const TrainConfig& config) {
  Timer total;
  CorpusSplit train = LoadSplit(config, config.train_split, Progress);
  CorpusSplit dev = LoadSplit(config, config.dev_split, Progress);
  if (dev.NumPositives() == 0) return Failure(config.dev_split + ": the split has no positive clips");
  const double feature_seconds = total.Seconds();

  HotwordUnits units = ChooseUnits(train.clips, config.units);
  Progress("units: " + units.Describe());
  Timer training;
  Nnet nnet = TrainNetwork(config, train, dev, units, Progress);
  const double training_seconds = training.Seconds();

  Timer tuning_timer;
  const TunedSearch best = TuneSearch(config, nnet, dev, units, Progress);
  const double tuning_seconds = tuning_timer.Seconds();
  const std::string name =
      config.hotword_name.empty() ? CorpusPhrase(train.clips) : config.hotword_name;
  WriteTrainedModel(config, best, nnet, name);

  std::ostringstream report;
  report.setf(std::ios::fixed);
  report.precision(0);
  report << TrainedModelReport(config, best, units, name) << "time: features "
         << feature_seconds << " s, training " << training_seconds << " s, tuning "
         << tuning_seconds << " s, total " << total.Seconds() << " s\n";
  std::cout << report.str() << std::flush;
  if (!config.report.empty()) {
    std::ofstream file(config.report);
    file << report.str();
    if (!file) return Failure(config.report + ": cannot write the report");
  }
  return kExitOk;
}

// "-1,0,1 -2,0,2 -8,0": one comma-separated list of ascending frame offsets
// per hidden layer. False, with `error` saying why, if the text is not that.
bool ParseLayerSplices(const std::string& text, std::vector<std::vector<int32>>* splices,
                       std::string* error) {
  splices->clear();
  std::istringstream layers(text);
  std::string layer;
  while (layers >> layer) {
    std::vector<int32> offsets;
    std::istringstream items(layer);
    std::string item;
    while (std::getline(items, item, ',')) {
      try {
        offsets.push_back(ConvertStringToIntegerOrFloat<int32>(item));
      } catch (const KestrelError&) {
        *error = "\"" + item + "\" in \"" + layer + "\" is not a frame offset";
        return false;
      }
      if (offsets.size() > 1 && offsets.back() <= offsets[offsets.size() - 2]) {
        *error = "the offsets \"" + layer + "\" do not ascend";
        return false;
      }
    }
    if (offsets.empty()) {
      *error = "a layer without offsets";
      return false;
    }
    splices->push_back(offsets);
  }
  if (splices->empty()) *error = "no layers";
  return !splices->empty();
}

}  // namespace

int RunTrain(int argc, char** argv) {
  TrainConfig config;
  PhraseTrainingOptions phrase;
  HotwordTrainerOptions& t = config.trainer;
  int32 seed = static_cast<int32>(t.seed);
  // 0 until given: then the trainer's default, or fewer with --quick.
  int32 epochs = 0;
  // 0 until given: then the trainer's default, or narrower with --phrase.
  int32 hidden_dim = 0;
  ArgParser parser(
      "kestrel train --phrase=\"WORDS\" --out=MODEL.kmodel [--quick] [options]\n"
      "       kestrel train --corpus=DIR --out=MODEL.kmodel [options]",
      "With --phrase, makes a model for your own wake word of 1 to 4 English words\n"
      "in one run: installs the speech synthesizers (or says what to install),\n"
      "checks the phrase, synthesizes a corpus of it said by many voices in noise,\n"
      "computes features, trains, tunes and writes the model with the phrase as its\n"
      "hotword name, showing each stage's progress and a summary. Stopped and run\n"
      "again with the same options, it resumes after the last finished stage (kept\n"
      "in --work). About 30 minutes on 2 cores; --quick takes a few minutes for a\n"
      "model good enough to try.\n\n"
      "With --corpus, trains on a corpus made by training/make-corpus.py:\n"
      "computes the filterbank features of every clip (cached in the corpus),\n"
      "labels each frame of the positives with its hotword unit from the phoneme\n"
      "timings, trains the network, then chooses the search method, windows,\n"
      "floors and sensitivity on the held-out split so that false alarms stay\n"
      "within --max-fa-per-hour and near phrases are accepted at most\n"
      "--max-near-accept of the time, and writes the model. Progress goes to standard\n"
      "error, a summary to standard output.");
  parser.AddString("phrase", &phrase.phrase, "the wake word to make a model for");
  parser.AddFlag("quick", &phrase.quick, "with --phrase: a smaller corpus and shorter training");
  parser.AddString("work", &phrase.work_dir,
                   "with --phrase: where the corpus, features and stage stamps are kept "
                   "(default: MODEL.work next to --out)");
  parser.AddString("corpus", &config.corpus, "corpus directory with the manifests");
  parser.AddString("out", &config.out, "model file to write; required");
  parser.AddString("hotword-name", &config.hotword_name,
                   "the hotword's name in the model (default: the phrase)");
  parser.AddString("train-split", &config.train_split, "split to train on");
  parser.AddString("dev-split", &config.dev_split, "held-out split for scoring and tuning");
  parser.AddString("cache-dir", &config.cache_dir, "where features are cached (default: the corpus)");
  parser.AddString("report", &config.report, "also write the summary to this file");
  parser.AddString("init-model", &config.init_model,
                   "with --corpus: go on training this model's network (of the layout the other "
                   "options give) instead of random weights, mining hard filler from the first "
                   "epoch");
  parser.AddInt("units", &config.units, "hotword units (network outputs besides the filler)");
  parser.AddInt("unit-edge-frames", &config.unit_edge_frames,
                "frames left untrained on either side of each unit's edges in the positives");
  parser.AddInt("near-contrast-frames", &config.near_contrast_frames,
                "frames of the near phrases either side of where they start to differ from the "
                "hotword, trained as filler in every epoch");
  parser.AddInt("epochs", &epochs,
                "passes over the hotword frames; 0: " + std::to_string(t.epochs) + ", " +
                    std::to_string(kQuickEpochs) + " with --quick");
  parser.AddInt("hidden-dim", &hidden_dim,
                "width of the hidden layers; 0: " + std::to_string(t.hidden_dim) + ", " +
                    std::to_string(kPhraseHiddenDim) + " with --phrase");
  parser.AddInt("hidden-layers", &t.hidden_layers, "number of hidden layers");
  parser.AddInt("left-context", &t.left_context, "past feature frames the network sees");
  parser.AddInt("right-context", &t.right_context,
                "future feature frames the network sees (each adds 10 ms of latency)");
  std::string layer_splices;
  parser.AddString("layer-splices", &layer_splices,
                   "a time-delay network: per hidden layer, the frame offsets it reads from the "
                   "layer below, e.g. \"-1,0,1 -2,0,2 -4,0,4 -8,0\" (sets the number of hidden "
                   "layers, and the context is what they reach together)");
  parser.AddNumber("filler-fraction", &config.filler_fraction,
                   "share of filler frames in each epoch, in (0, 1)");
  parser.AddInt("batch-size", &t.batch_size, "frames per minibatch");
  parser.AddInt("max-bin-shift", &t.max_bin_shift, "augmentation: largest shift of the mel bins");
  parser.AddInt("max-masked-bins", &t.max_masked_bins, "augmentation: widest masked band of bins");
  parser.AddInt("max-masked-frames", &t.max_masked_frames,
                "augmentation: longest run of context frames dropped to a quiet level");
  parser.AddNumber("max-tilt-db", &config.max_tilt_db,
                   "augmentation: largest gain, in dB either way, of each of three smooth "
                   "curves across the mel bins; 0: none");
  parser.AddNumber("noise-share", &config.noise_share,
                   "augmentation: share of rows mixed with another row's sound, in [0, 1]; 0: none");
  parser.AddInt("noise-min-snr", &t.noise_min_snr_db, "augmentation: lowest SNR of the noise mixes, in dB");
  parser.AddInt("noise-max-snr", &t.noise_max_snr_db, "augmentation: highest SNR of the noise mixes, in dB");
  parser.AddNumber("white-noise-share", &config.white_noise_share,
                   "augmentation: share of rows mixed with fresh white noise, at an SNR between "
                   "--noise-min-snr and --noise-max-snr, in [0, 1]; 0: none");
  parser.AddNumber("dropout", &config.dropout,
                   "share of the hidden layers' outputs dropped at each training step, in [0, 1); "
                   "0: none");
  parser.AddNumber("hard-filler-share", &config.hard_filler_share,
                   "share of each epoch's filler mined as the hardest frames, in [0, 1]; 0: none");
  parser.AddNumber("hard-hotword-share", &config.hard_hotword_share,
                   "hotword frames the network gets most wrong, this share of all of them, "
                   "trained on twice in each epoch once mining starts, in [0, 1]; 0: none");
  parser.AddInt("mining-pool", &t.mining_pool,
                "mining: frames scored per hard frame kept");
  parser.AddNumber("learning-rate", &config.learning_rate, "Adam step size");
  parser.AddInt("runs", &config.runs,
                "with --init-model: train this many runs on from it, with seeds --seed, --seed "
                "plus 1, ..., and keep the average of their weights");
  parser.AddInt("seed", &seed, "random seed (initial weights, sampling, and the corpus)");
  parser.AddString("methods", &config.methods, "search methods to choose from, comma-separated");
  parser.AddString("output-scales", &config.output_scales,
                   "factors for the network's output layer to choose from with the search, "
                   "comma-separated: above 1 sharpens the posteriors, below 1 flattens them");
  parser.AddNumber("max-fa-per-hour", &config.max_fa,
                   "false alarms per hour allowed on the held-out split");
  parser.AddNumber("max-near-accept", &config.max_near,
                   "share of the held-out near phrases the detector may accept");
  parser.AddInt("threads", &config.threads, "worker threads (and corpus synthesis processes)");
  parser.AddFlag("text", &config.text, "write the model in text form");
  AddCorpusScanOptions(&parser, &config.detector);
  std::vector<std::string> positional;
  int status = kExitOk;
  if (!parser.ParseCommand(argc, argv, &positional, &status)) return status;
  if (config.corpus.empty() == phrase.phrase.empty()) {
    return UsageError("train", "give either --phrase or --corpus");
  }
  if (config.out.empty()) return UsageError("train", "--out is required");
  if (!config.init_model.empty() && config.corpus.empty()) {
    return UsageError("train", "--init-model needs --corpus");
  }
  if (config.runs < 1) {
    return UsageError("train", "--runs must be at least 1, not " + std::to_string(config.runs));
  }
  if (config.runs > 1 && config.init_model.empty()) {
    return UsageError("train", "--runs needs --init-model: runs from random weights do not "
                               "average into one network");
  }
  if (!positional.empty()) return UsageError("train", "unexpected argument \"" + positional[0] + "\"");
  t.epochs = epochs > 0 ? epochs : (phrase.quick ? kQuickEpochs : t.epochs);
  t.hidden_dim = hidden_dim > 0 ? hidden_dim : (phrase.phrase.empty() ? t.hidden_dim : kPhraseHiddenDim);
  if (config.threads < 1 || config.units < 1 || epochs < 0 || hidden_dim < 0 || t.batch_size < 1 ||
      t.hidden_layers < 0 || t.left_context < 0 || t.right_context < 0) {
    return UsageError("train", "--threads, --units and --batch-size must be at least 1, --epochs, "
                               "--hidden-dim, --hidden-layers and the contexts at least 0");
  }
  if (config.unit_edge_frames < 0) {
    return UsageError("train", "--unit-edge-frames must be at least 0, not " +
                                   std::to_string(config.unit_edge_frames));
  }
  if (config.near_contrast_frames < 0) {
    return UsageError("train", "--near-contrast-frames must be at least 0, not " +
                                   std::to_string(config.near_contrast_frames));
  }
  if (!config.hotword_name.empty() && !HotwordModel::IsStorableHotwordName(config.hotword_name)) {
    return UsageError("train", "--hotword-name \"" + config.hotword_name +
                                   "\" cannot be stored: no '_', control characters or space "
                                   "at either end");
  }
  if (!layer_splices.empty()) {
    std::string error;
    if (!ParseLayerSplices(layer_splices, &t.layer_splices, &error)) {
      return UsageError("train", "--layer-splices \"" + layer_splices + "\": " + error);
    }
    t.hidden_layers = static_cast<int32>(t.layer_splices.size());
  }
  t.seed = static_cast<uint32>(seed);
  try {
    const double filler = ConvertStringToIntegerOrFloat<double>(config.filler_fraction);
    if (!(filler > 0.0 && filler < 1.0)) {
      return UsageError("train", "--filler-fraction must be between 0 and 1, not " +
                                     config.filler_fraction);
    }
    const double hard = ConvertStringToIntegerOrFloat<double>(config.hard_filler_share);
    if (!(hard >= 0.0 && hard <= 1.0)) {
      return UsageError("train", "--hard-filler-share must be between 0 and 1, not " +
                                     config.hard_filler_share);
    }
    const double hard_hotword = ConvertStringToIntegerOrFloat<double>(config.hard_hotword_share);
    if (!(hard_hotword >= 0.0 && hard_hotword <= 1.0)) {
      return UsageError("train", "--hard-hotword-share must be between 0 and 1, not " +
                                     config.hard_hotword_share);
    }
    const double noise = ConvertStringToIntegerOrFloat<double>(config.noise_share);
    if (!(noise >= 0.0 && noise <= 1.0)) {
      return UsageError("train", "--noise-share must be between 0 and 1, not " + config.noise_share);
    }
    const double white = ConvertStringToIntegerOrFloat<double>(config.white_noise_share);
    if (!(white >= 0.0 && white <= 1.0)) {
      return UsageError("train", "--white-noise-share must be between 0 and 1, not " +
                                     config.white_noise_share);
    }
    const double tilt = ConvertStringToIntegerOrFloat<double>(config.max_tilt_db);
    if (!(tilt >= 0.0 && tilt <= 40.0)) {
      return UsageError("train", "--max-tilt-db must be between 0 and 40, not " + config.max_tilt_db);
    }
    const double dropout = ConvertStringToIntegerOrFloat<double>(config.dropout);
    if (!(dropout >= 0.0 && dropout < 1.0)) {
      return UsageError("train", "--dropout must be at least 0 and below 1, not " + config.dropout);
    }
    if (t.noise_min_snr_db > t.noise_max_snr_db) {
      return UsageError("train", "--noise-min-snr " + std::to_string(t.noise_min_snr_db) +
                                     " is above --noise-max-snr " +
                                     std::to_string(t.noise_max_snr_db));
    }
    std::vector<float> scales;
    SplitStringToFloats(config.output_scales, ",", &scales);
    for (float scale : scales) {
      if (!(scale > 0.0f) || !std::isfinite(scale)) {
        return UsageError("train", "--output-scales must list numbers above 0, not \"" +
                                       config.output_scales + "\"");
      }
    }
    if (scales.empty()) return UsageError("train", "--output-scales names no scale");
    if (t.mining_pool < 1) {
      return UsageError("train", "--mining-pool must be at least 1, not " +
                                     std::to_string(t.mining_pool));
    }
    if (!phrase.phrase.empty()) return TrainPhrase(phrase, config);
    return TrainFromCorpus(config);
  } catch (const KestrelError& e) {
    return Failure(e.what());
  }
}

}  // namespace kestrel
