#include "phrase-training.h"

#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>
#include <utility>
#include <vector>

#include "args.h"
#include "commands.h"
#include "corpus-manifest.h"
#include "progress-bar.h"
#include "stage-stamps.h"
#include "utils/kestrel-io.h"
#include "utils/kestrel-log.h"

#ifndef KESTREL_SOURCE_DIR
#define KESTREL_SOURCE_DIR ""
#endif

namespace kestrel {

namespace {

namespace fs = std::filesystem;

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Runs `command` with /bin/sh, handing each line of its standard output to
// `on_line`; returns its exit status, 128 + the signal when one ended it.
int RunCommandLines(const std::string& command,
                    const std::function<void(const std::string&)>& on_line) {
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) KESTREL_ERR("train") << "cannot run " << command;
  std::string line;
  char buffer[4096];
  while (std::fgets(buffer, sizeof(buffer), pipe) != nullptr) {
    line += buffer;
    if (line.back() != '\n') continue;
    line.pop_back();
    on_line(line);
    line.clear();
  }
  if (!line.empty()) on_line(line);
  const int status = pclose(pipe);
  if (status != -1 && WIFEXITED(status)) return WEXITSTATUS(status);
  if (status != -1 && WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

// "progress DONE TOTAL", as make-corpus.py --progress-lines prints it.
bool ParseProgressLine(const std::string& line, double* done, double* total) {
  std::istringstream is(line);
  std::string word;
  return (is >> word >> *done >> *total) && word == "progress";
}

// The first "D/N" after `prefix` at the start of `line`: the trainer's
// "epoch 3/12: ..." and "features: 2000/6000 clips".
bool ParseCount(const std::string& line, const std::string& prefix, double* done, double* total) {
  if (line.compare(0, prefix.size(), prefix) != 0) return false;
  std::istringstream is(line.substr(prefix.size()));
  char slash = 0;
  return (is >> *done >> slash >> *total) && slash == '/';
}

std::string NormalisedPhrase(const std::string& phrase) {
  std::istringstream words(phrase);
  std::string word, out;
  while (words >> word) {
    for (char& c : word) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    out += (out.empty() ? "" : " ") + word;
  }
  return out;
}

// What each stage's result depends on (StageStamps keys); each includes
// the one before, so a redone stage redoes all after it.
struct StageKeys {
  std::string corpus, features, training, tuning;
};

// One `kestrel train --phrase` run: the stages of phrase-training.h over
// the work directory, which it owns for the run.
class PhraseRun {
 public:
  PhraseRun(const PhraseTrainingOptions& options, TrainConfig config)
      : phrase_(NormalisedPhrase(options.phrase)),
        size_(options.quick ? "quick" : "custom"),
        config_(std::move(config)),
        scripts_(FindTrainingScripts()),
        stamps_(options.work_dir.empty() ? config_.out + ".work" : options.work_dir),
        log_(stamps_.Path("train.log"), std::ios::app) {
    config_.corpus = stamps_.Path("corpus");
    config_.cache_dir = stamps_.Path("features");
    if (config_.hotword_name.empty()) config_.hotword_name = phrase_;
  }

  int Run();

 private:
  // Runs `body` (given the stage's progress bar) unless `stage` finished
  // with `key` before; records the stage's time either way.
  void Stage(const std::string& stage, const std::string& key,
             const std::function<void(ProgressBar*)>& body);
  void Log(const std::string& line) { log_ << line << std::endl; }
  // A script of the training directory with its arguments, for /bin/sh,
  // its standard error going to the log.
  std::string ScriptCommand(const std::string& script, const std::vector<std::string>& args) const;
  StageKeys Keys() const;
  int CheckPhrase();
  void MakeCorpus(ProgressBar* bar);
  void ComputeFeatures(ProgressBar* bar);
  void TrainAndSaveNetwork(ProgressBar* bar);
  void TuneAndWrite(ProgressBar* bar);
  std::string Summary() const;

  const std::string phrase_;
  const std::string size_;
  TrainConfig config_;
  const std::string scripts_;
  StageStamps stamps_;
  std::ofstream log_;
  std::vector<std::pair<std::string, double>> times_;
  bool resumed_ = false;
  // Set once a stage runs: every stage after it runs too, on its output.
  bool redoing_ = false;
};

std::string PhraseRun::ScriptCommand(const std::string& script,
                                     const std::vector<std::string>& args) const {
  std::string command = ShellQuote((fs::path(scripts_) / script).string());
  for (const std::string& arg : args) command += " " + ShellQuote(arg);
  return command + " 2>>" + ShellQuote(stamps_.Path("train.log"));
}

void PhraseRun::Stage(const std::string& stage, const std::string& key,
                      const std::function<void(ProgressBar*)>& body) {
  double seconds = 0.0;
  if (!redoing_ && stamps_.Done(stage, key, &seconds)) {
    std::cerr << stage << ": done in an earlier run (" << FormatDuration(seconds) << ")"
              << std::endl;
    resumed_ = true;
  } else {
    // Whatever an interrupted run of this stage left is redone from the start.
    stamps_.Forget(stage);
    Log("== " + stage + ": " + key);
    redoing_ = true;
    const auto start = std::chrono::steady_clock::now();
    {
      ProgressBar bar(stage, ProgressBar::Show::kOnTerminalOrLines);
      body(&bar);
    }
    seconds = SecondsSince(start);
    stamps_.MarkDone(stage, key, seconds);
    std::cerr << stage << ": " << FormatDuration(seconds) << std::endl;
  }
  times_.emplace_back(stage, seconds);
}

StageKeys PhraseRun::Keys() const {
  const HotwordTrainerOptions& t = config_.trainer;
  const UniversalDetectStreamOptions& d = config_.detector;
  StageKeys keys;
  std::ostringstream key;
  key << "phrase=" << phrase_ << " size=" << size_ << " seed=" << t.seed;
  keys.corpus = key.str();
  key << " | features";
  keys.features = key.str();
  key << " | units=" << config_.units << " edges=" << config_.unit_edge_frames
      << " contrast=" << config_.near_contrast_frames << " epochs=" << t.epochs << " hidden=" << t.hidden_dim
      << "x" << t.hidden_layers << " context=" << t.left_context << "," << t.right_context;
  if (!t.layer_splices.empty()) key << " splices=";
  for (const std::vector<int32>& layer : t.layer_splices) {
    for (size_t i = 0; i < layer.size(); ++i) key << (i == 0 ? "" : ",") << layer[i];
    key << ";";
  }
  key << " rate=" << config_.learning_rate << " filler=" << config_.filler_fraction
      << " hard=" << config_.hard_filler_share << "," << config_.hard_hotword_share << "," << t.mining_pool << "," << t.mining_interval
      << " batch=" << t.batch_size << " augment=" << t.max_bin_shift << ","
      << t.max_masked_bins << "," << t.max_masked_frames << " noise=" << config_.noise_share << ","
      << t.noise_min_snr_db << "," << t.noise_max_snr_db << " dropout=" << config_.dropout;
  // Only when on, so that work directories made before the knob keep their network.
  if (config_.max_tilt_db != "0") key << " tilt=" << config_.max_tilt_db;
  if (config_.white_noise_share != "0") key << " white=" << config_.white_noise_share;
  keys.training = key.str();
  key << " | methods=" << config_.methods << " output-scales=" << config_.output_scales
      << " max-fa=" << config_.max_fa
      << " max-near=" << config_.max_near << " detector=" << d.slide_step << ","
      << d.min_state_frames << "," << d.refractory_frames << " name=" << config_.hotword_name
      << " text=" << config_.text << " out=" << config_.out;
  keys.tuning = key.str();
  return keys;
}

int PhraseRun::CheckPhrase() {
  std::vector<std::string> lines;
  const int status = RunCommandLines(
      ScriptCommand("make-corpus.py", {"--phrase", phrase_, "--check-phrase", "--no-install"}),
      [&lines](const std::string& line) { lines.push_back(line); });
  for (const std::string& line : lines) std::cerr << line << std::endl;
  if (status == 2) {
    return Failure("\"" + phrase_ + "\" is refused as a wake word (see above); choose another");
  }
  if (status != 0) {
    return Failure("the phrase check failed (exit status " + std::to_string(status) + "); see " +
                   stamps_.Path("train.log"));
  }
  return kExitOk;
}

void PhraseRun::MakeCorpus(ProgressBar* bar) {
  std::error_code ignored;
  fs::remove_all(config_.corpus, ignored);
  const int status = RunCommandLines(
      ScriptCommand("make-corpus.py",
                    {"--phrase", phrase_, "--out", config_.corpus, "--splits", "train,dev",
                     "--size", size_, "--seed", std::to_string(config_.trainer.seed), "--jobs",
                     std::to_string(config_.threads), "--no-install", "--progress-lines"}),
      [this, bar](const std::string& line) {
        double done = 0.0, total = 0.0;
        if (ParseProgressLine(line, &done, &total)) {
          bar->Update(done, total);
        } else {
          Log(line);
        }
      });
  if (status != 0) {
    bar->Clear();
    KESTREL_ERR("train") << "the corpus synthesis failed (exit status " << status << "); see "
                         << stamps_.Path("train.log");
  }
}

void PhraseRun::ComputeFeatures(ProgressBar* bar) {
  std::error_code ignored;
  fs::remove_all(config_.cache_dir, ignored);
  const double train_clips =
      ReadManifest((fs::path(config_.corpus) / (config_.train_split + ".jsonl")).string()).size();
  const double dev_clips =
      ReadManifest((fs::path(config_.corpus) / (config_.dev_split + ".jsonl")).string()).size();
  const double total = train_clips + dev_clips;
  double offset = 0.0;
  auto progress = [&](const std::string& line) {
    Log(line);
    double done = 0.0, split_total = 0.0;
    if (ParseCount(line, "features: ", &done, &split_total)) bar->Update(offset + done, total);
  };
  LoadSplit(config_, config_.train_split, progress);
  offset = train_clips;
  bar->Update(offset, total);
  LoadSplit(config_, config_.dev_split, progress);
  bar->Update(total, total);
}

void PhraseRun::TrainAndSaveNetwork(ProgressBar* bar) {
  const CorpusSplit train = LoadSplit(config_, config_.train_split, [this](const std::string& l) {
    Log(l);
  });
  const CorpusSplit dev = LoadSplit(config_, config_.dev_split, [this](const std::string& l) {
    Log(l);
  });
  const HotwordUnits units = ChooseUnits(train.clips, config_.units);
  Log("units: " + units.Describe());
  const Nnet nnet = TrainNetwork(config_, train, dev, units, [this, bar](const std::string& line) {
    Log(line);
    double done = 0.0, total = 0.0;
    if (ParseCount(line, "epoch ", &done, &total)) bar->Update(done, total);
  });
  const std::string path = stamps_.Path("network.nnet");
  {
    Output out(path + ".partial", true);
    nnet.Write(true, out.Stream());
    out.Close();
  }
  fs::rename(path + ".partial", path);
}

void PhraseRun::TuneAndWrite(ProgressBar* bar) {
  const std::vector<CorpusClip> train_clips =
      ReadManifest((fs::path(config_.corpus) / (config_.train_split + ".jsonl")).string());
  const HotwordUnits units = ChooseUnits(train_clips, config_.units);
  const CorpusSplit dev = LoadSplit(config_, config_.dev_split, [this](const std::string& l) {
    Log(l);
  });
  Nnet nnet;
  {
    Input in(stamps_.Path("network.nnet"));
    nnet.Read(in.Binary(), in.Stream());
  }
  std::vector<int32> methods;
  SplitStringToIntegers<int32>(config_.methods, ",", &methods);
  std::vector<float> scales;
  SplitStringToFloats(config_.output_scales, ",", &scales);
  const double steps = static_cast<double>(methods.size() * scales.size());
  double tuned = 0.0;
  bar->Update(0.0, steps);
  const TunedSearch best = TuneSearch(config_, nnet, dev, units, [&](const std::string& line) {
    Log(line);
    if (line.compare(0, 5, "tune:") == 0) bar->Update(++tuned, steps);
  });
  WriteTrainedModel(config_, best, nnet, config_.hotword_name);
  std::ofstream report(stamps_.Path("report.txt"), std::ios::trunc);
  report << TrainedModelReport(config_, best, units, config_.hotword_name);
  if (!report) KESTREL_ERR("train") << stamps_.Path("report.txt") << ": cannot write the report";
}

std::string PhraseRun::Summary() const {
  std::ifstream in(stamps_.Path("report.txt"));
  std::ostringstream summary;
  summary << in.rdbuf() << "time:";
  double total = 0.0;
  for (const auto& [stage, seconds] : times_) {
    summary << " " << stage << " " << FormatDuration(seconds) << ",";
    total += seconds;
  }
  summary << " total " << FormatDuration(total) << (resumed_ ? " (over more than one run)" : "")
          << "\n";
  return summary.str();
}

int PhraseRun::Run() {
  std::cerr << "kestrel train: \"" << phrase_ << "\" -> " << config_.out << " (work directory "
            << stamps_.Dir() << ")" << std::endl;
  const auto start = std::chrono::steady_clock::now();
  // Silent when everything is installed; otherwise it says what it installs,
  // or what it could not.
  const int installed = RunCommandLines(
      ShellQuote((fs::path(scripts_) / "install-deps.sh").string()) + " 1>&2",
      [](const std::string&) {});
  if (installed != 0) {
    return Failure("the speech synthesizers are not installed and could not be (see above); "
                   "install the packages named there, then run this again");
  }
  if (const int status = CheckPhrase(); status != kExitOk) return status;
  times_.emplace_back("setup", SecondsSince(start));

  const StageKeys keys = Keys();
  Stage("corpus", keys.corpus, [this](ProgressBar* bar) { MakeCorpus(bar); });
  Stage("features", keys.features, [this](ProgressBar* bar) { ComputeFeatures(bar); });
  Stage("training", keys.training, [this](ProgressBar* bar) { TrainAndSaveNetwork(bar); });
  if (!fs::exists(config_.out)) stamps_.Forget("tuning");
  Stage("tuning", keys.tuning, [this](ProgressBar* bar) { TuneAndWrite(bar); });
  const std::string summary = Summary();
  std::cout << summary << std::flush;
  if (!config_.report.empty()) {
    std::ofstream file(config_.report);
    file << summary;
    if (!file) return Failure(config_.report + ": cannot write the report");
  }
  return kExitOk;
}

}  // namespace

std::string ShellQuote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

std::string FindTrainingScripts() {
  const char* override_dir = std::getenv("KESTREL_TRAINING_DIR");
  const std::string dir = override_dir != nullptr && *override_dir != '\0'
                              ? std::string(override_dir)
                              : (fs::path(KESTREL_SOURCE_DIR) / "training").string();
  for (const char* script : {"make-corpus.py", "install-deps.sh"}) {
    if (!fs::is_regular_file(fs::path(dir) / script)) {
      KESTREL_ERR("train") << "kestrel train --phrase needs Kestrel's training scripts, and "
                           << (fs::path(dir) / script).string() << " is not there; set "
                           << "KESTREL_TRAINING_DIR to the training/ directory of a Kestrel "
                           << "source tree";
    }
  }
  return dir;
}

int TrainPhrase(const PhraseTrainingOptions& options, TrainConfig config) {
  if (config.corpus.empty() && !config.cache_dir.empty()) {
    return UsageError("train", "--cache-dir is for --corpus; --phrase keeps its features in --work");
  }
  PhraseRun run(options, std::move(config));
  return run.Run();
}

}  // namespace kestrel
