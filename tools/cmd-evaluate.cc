// kestrel evaluate: false rejections against false alarms of a hotword model
// on a held-out corpus split, over a sweep of sensitivities, and a
// comparison of the search methods on the same data.
#include <algorithm>
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
#include "det-evaluation.h"
#include "posterior-scan.h"
#include "search-tuning.h"
#include "utils/kestrel-log.h"
#include "utils/kestrel-utils.h"

namespace kestrel {
namespace {

// Sensitivities from `centre` - `radius` to `centre` + `radius` in `step`s,
// kept within [0, 1].
std::vector<float> SensitivityGrid(float centre, float radius, float step) {
  std::vector<float> grid;
  for (float s = centre - radius; s <= centre + radius + 1e-6f; s += step) {
    if (s >= 0.0f && s <= 1.0f) grid.push_back(s);
  }
  return grid;
}

// Unit durations implied by a search mask (its steps).
std::vector<double> UnitWeights(const std::vector<int32>& mask) {
  std::vector<double> weights;
  for (size_t i = 1; i < mask.size(); ++i) weights.push_back(std::max(1, mask[i] - mask[i - 1]));
  return weights;
}

// Speaking-rate band of a clip (its speed relative to the engine's normal).
std::string SpeedBand(const CorpusClip& clip) {
  if (clip.speed <= 0.0) return "";
  if (clip.speed < 0.85) return "1 slow (< 0.85x)";
  if (clip.speed < 1.15) return "2 normal (0.85-1.15x)";
  if (clip.speed < 1.35) return "3 fast (1.15-1.35x)";
  return "4 very fast (>= 1.35x)";
}

struct EvaluateConfig {
  std::string corpus;
  std::string split = "test";
  std::string tune_split = "dev";
  std::string methods = "1,2,3,6,7,8";
  std::string cache_dir;
  std::string report;
  std::string det;
  std::string tolerance = "0.5";
  std::string max_fa = "0.5";
  std::string max_near = "0.15";
  int32 threads = 2;
};

int Evaluate(const EvaluateConfig& config, const std::string& model_path,
             const UniversalDetectStreamOptions& detector) {
  auto start = std::chrono::steady_clock::now();
  HotwordModel model;
  try {
    model = HotwordModel::ReadFile(model_path);
  } catch (const KestrelError& e) {
    return Failure(model_path + ": " + e.what());
  }
  // The network runs once per clip; the sweeps below copy the settings only.
  const Nnet nnet = std::move(model.nnet);
  model.nnet = Nnet();
  if (model.hotwords.size() != 1) {
    return Failure(model_path + ": evaluation needs a model with exactly one hotword, found " +
                   std::to_string(model.hotwords.size()));
  }
  SearchTuningOptions tuning;
  tuning.detector = detector;
  tuning.num_threads = config.threads;
  tuning.tolerance_seconds = ConvertStringToIntegerOrFloat<double>(config.tolerance);
  tuning.max_false_alarms_per_hour = ConvertStringToIntegerOrFloat<double>(config.max_fa);
  tuning.max_near_phrase_accept_rate = ConvertStringToIntegerOrFloat<double>(config.max_near);
  const std::string cache = config.cache_dir.empty() ? config.corpus : config.cache_dir;
  SplitStringToIntegers<int32>(config.methods, ",", &tuning.methods);

  CorpusSplit test = LoadCorpusSplit(config.corpus, config.split, cache, config.threads, Progress);
  if (test.NumPositives() == 0) return Failure(config.split + ": the split has no positive clips");
  FeatureSet test_posteriors = ComputePosteriors(nnet, test.features, config.threads);
  Progress("network outputs of " + config.split + " computed");

  // The model as it is, over a sweep around its own sensitivity.
  std::vector<NamedCurve> curves;
  const float shipped = model.hotwords[0].sensitivity;
  curves.push_back({"model: " + SearchMethodLabel(model.hotwords[0].search_method),
                    SweepSensitivities(test.clips, test_posteriors, model,
                                       SensitivityGrid(shipped, 0.2f, 0.01f), tuning)});
  const std::vector<std::vector<int>> shipped_detections =
      ScanDetections(test_posteriors, model, tuning.detector, config.threads);
  const OperatingPoint at_shipped =
      CountOperatingPoint(test.clips, shipped_detections, tuning.tolerance_seconds);

  // Every compared method with its own windows and floors, chosen on the
  // tuning split exactly as the trainer chooses them.
  std::vector<TunedSearch> tuned;
  if (!tuning.methods.empty()) {
    CorpusSplit dev = LoadCorpusSplit(config.corpus, config.tune_split, cache, config.threads, Progress);
    FeatureSet dev_posteriors = ComputePosteriors(nnet, dev.features, config.threads);
    tuned = TuneSearchMethods(dev.clips, dev_posteriors, UnitWeights(model.hotwords[0].search_mask),
                              tuning, Progress);
    for (const TunedSearch& t : tuned) {
      const float s = t.settings.hotwords[0].sensitivity;
      curves.push_back({SearchMethodLabel(t.settings.hotwords[0].search_method),
                        SweepSensitivities(test.clips, test_posteriors, t.settings,
                                           SensitivityGrid(s, 0.2f, 0.01f), tuning)});
      Progress("swept " + curves.back().name);
    }
  }

  std::ostringstream out;
  out.setf(std::ios::fixed);
  out.precision(2);
  int negatives_clips = static_cast<int>(test.clips.size()) - test.NumPositives();
  out << "## " << model_path << " on " << config.split << "\n\n"
      << test.NumPositives() << " positives, " << negatives_clips << " other clips, "
      << curves[0].points.front().hours << " h of audio outside the hotwords.\n\n"
      << "At the model's sensitivity " << shipped << ": FRR "
      << 100.0 * at_shipped.FalseRejectionRate() << "% (" << at_shipped.detected << "/"
      << at_shipped.positives << " detected), " << at_shipped.false_alarms << " false alarms ("
      << at_shipped.FalseAlarmsPerHour() << " per hour), near phrases accepted "
      << 100.0 * at_shipped.ConfusableAcceptRate() << "% (" << at_shipped.confusables_accepted
      << "/" << at_shipped.confusables << ").\n\n"
      << "By voice:\n\n"
      << FrrByVoiceTable(test.clips, shipped_detections, tuning.tolerance_seconds) << "\n"
      << "By where the hotword is said:\n\n"
      << FrrByGroupTable(test.clips, shipped_detections, tuning.tolerance_seconds, "placement",
                         [](const CorpusClip& c) { return c.placement; })
      << "\nBy speaking rate:\n\n"
      << FrrByGroupTable(test.clips, shipped_detections, tuning.tolerance_seconds,
                         "speaking rate", SpeedBand)
      << "\nBy noise:\n\n"
      << FrrByGroupTable(test.clips, shipped_detections, tuning.tolerance_seconds, "noise",
                         [](const CorpusClip& c) { return c.noise; })
      << "\nNear phrases accepted:\n\n"
      << NearPhraseTable(test.clips, shipped_detections, tuning.tolerance_seconds) << "\n"
      << "### Search methods (each tuned on " << config.tune_split << ")\n\n"
      << ComparisonTable(curves, {0.1, 0.5, 1.0, 2.0}) << "\n";
  if (!tuned.empty()) {
    out << "| search | smooth | span | floors | tuned sensitivity |\n|---|---|---|---|---|\n";
    for (const TunedSearch& t : tuned) {
      out << "| " << SearchMethodLabel(t.settings.hotwords[0].search_method) << " | "
          << t.settings.smooth_window << " | " << t.settings.slide_window << " | "
          << SearchFloorsLabel(t.settings.hotwords[0]) << " | " << t.point.sensitivity << " |\n";
    }
    out << "\n";
  }
  out << "### Sweep of the model's sensitivity\n\n" << OperatingPointTable(curves[0]);
  std::cout << out.str() << std::flush;
  if (!config.report.empty()) {
    std::ofstream report(config.report);
    report << out.str();
    if (!report) return Failure(config.report + ": cannot write the report");
  }
  if (!config.det.empty()) {
    std::string error;
    if (!WriteDetPlot(curves, config.det, &error)) return Failure(error);
  }
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  Progress("evaluation took " + std::to_string(static_cast<int>(seconds)) + " s");
  return kExitOk;
}

}  // namespace

int RunEvaluate(int argc, char** argv) {
  EvaluateConfig config;
  UniversalDetectStreamOptions detector;
  ArgParser parser(
      "kestrel evaluate --corpus=DIR [options] MODEL.kmodel",
      "Measures a one-hotword model on a held-out corpus split (the manifest\n"
      "DIR/SPLIT.jsonl and its WAV files): runs the detector over every clip at a\n"
      "sweep of sensitivities and reports the false rejection rate of the\n"
      "positives against false alarms per hour of all audio outside the hotwords.\n"
      "Each search method of --methods is also tuned on --tune-split (windows,\n"
      "floors, sensitivity) and measured the same way. Prints a markdown report;\n"
      "--det draws the DET curves with gnuplot.");
  parser.AddString("corpus", &config.corpus, "corpus directory with the manifests; required");
  parser.AddString("split", &config.split, "split to measure on");
  parser.AddString("tune-split", &config.tune_split, "split the compared methods are tuned on");
  parser.AddString("methods", &config.methods,
                   "search methods to compare, comma-separated (empty: only the model)");
  parser.AddString("cache-dir", &config.cache_dir, "where features are cached (default: the corpus)");
  parser.AddString("report", &config.report, "also write the markdown report to this file");
  parser.AddString("det", &config.det, "draw the DET curves into this PNG file");
  parser.AddNumber("tolerance", &config.tolerance,
                   "seconds after a hotword's end in which a detection still counts");
  parser.AddNumber("max-fa-per-hour", &config.max_fa,
                   "false alarm budget when tuning the compared methods");
  parser.AddNumber("max-near-accept", &config.max_near,
                   "near-phrase acceptance allowed when tuning the compared methods");
  parser.AddInt("threads", &config.threads, "worker threads");
  AddCorpusScanOptions(&parser, &detector);
  std::vector<std::string> positional;
  int status = kExitOk;
  if (!parser.ParseCommand(argc, argv, &positional, &status)) return status;
  if (config.corpus.empty()) return UsageError("evaluate", "--corpus is required");
  if (positional.size() != 1) return UsageError("evaluate", "give exactly one model file");
  if (config.threads < 1) return UsageError("evaluate", "--threads must be at least 1");
  try {
    return Evaluate(config, positional[0], detector);
  } catch (const KestrelError& e) {
    return Failure(e.what());
  }
}

}  // namespace kestrel
