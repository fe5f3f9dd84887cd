#include "model-training.h"

#include <filesystem>
#include <map>
#include <sstream>

#include "network-average.h"
#include "output-scale.h"
#include "posterior-scan.h"
#include "training-frames.h"
#include "utils/kestrel-log.h"
#include "utils/kestrel-utils.h"

namespace kestrel {

namespace {

std::vector<std::vector<int>> LabelsOf(const CorpusSplit& split, const HotwordUnits& units,
                                       int edge_frames, int contrast_frames) {
  std::vector<std::vector<int>> labels;
  for (size_t c = 0; c < split.clips.size(); ++c) {
    labels.push_back(FrameLabels(split.clips[c], units,
                                 split.features.NumFrames(static_cast<int>(c)), edge_frames,
                                 contrast_frames));
  }
  return labels;
}

// ", output scale 2" for reports; nothing for the unscaled network.
std::string OutputScaleLabel(float scale) {
  if (scale == 1.0f) return "";
  std::ostringstream label;
  label << ", output scale " << scale;
  return label.str();
}

}  // namespace

std::string CorpusPhrase(const std::vector<CorpusClip>& clips) {
  std::map<std::string, int> counts;
  int positives = 0;
  for (const CorpusClip& clip : clips) {
    if (clip.kind != ClipKind::kPositive) continue;
    ++positives;
    ++counts[clip.text];
  }
  std::string phrase;
  int best = 0;
  for (const auto& [text, count] : counts) {
    if (count > best) {
      best = count;
      phrase = text;
    }
  }
  return 10 * best >= positives && HotwordModel::IsStorableHotwordName(phrase) ? phrase : "";
}

CorpusSplit LoadSplit(const TrainConfig& config, const std::string& split,
                      const ProgressFunction& progress) {
  const std::string cache = config.cache_dir.empty() ? config.corpus : config.cache_dir;
  return LoadCorpusSplit(config.corpus, split, cache, config.threads, progress);
}

Nnet TrainNetwork(const TrainConfig& config, const CorpusSplit& train, const CorpusSplit& dev,
                  const HotwordUnits& units, const ProgressFunction& progress) {
  HotwordTrainerOptions options = config.trainer;
  Splice splice = MakeSplice(train.features.Dim(), options);
  TrainingFrames train_frames(
      &train.features,
      LabelsOf(train, units, config.unit_edge_frames, config.near_contrast_frames), splice);
  TrainingFrames dev_frames(
      &dev.features, LabelsOf(dev, units, config.unit_edge_frames, config.near_contrast_frames),
      splice);
  progress("frames: " + std::to_string(train_frames.UnitFrames().size()) + " hotword, " +
           std::to_string(train_frames.FillerFrames().size()) + " filler, " +
           std::to_string(train_frames.ContrastFrames().size()) + " near-phrase contrast");
  options.learning_rate = ConvertStringToIntegerOrFloat<float>(config.learning_rate);
  options.filler_fraction = ConvertStringToIntegerOrFloat<double>(config.filler_fraction);
  options.hard_filler_share = ConvertStringToIntegerOrFloat<double>(config.hard_filler_share);
  options.hard_hotword_share = ConvertStringToIntegerOrFloat<double>(config.hard_hotword_share);
  options.noise_share = ConvertStringToIntegerOrFloat<double>(config.noise_share);
  options.white_noise_share = ConvertStringToIntegerOrFloat<double>(config.white_noise_share);
  options.max_tilt_db = ConvertStringToIntegerOrFloat<float>(config.max_tilt_db);
  options.dropout = ConvertStringToIntegerOrFloat<float>(config.dropout);
  options.threads = config.threads;
  if (config.init_model.empty()) return TrainHotwordNetwork(train_frames, &dev_frames, options, progress);
  const HotwordModel start = HotwordModel::ReadFile(config.init_model, "train");
  const std::string problem = StartingNetworkProblem(start.nnet, train_frames, options);
  if (!problem.empty()) KESTREL_ERR("train") << config.init_model << ": " << problem;
  if (config.runs == 1) return TrainHotwordNetwork(train_frames, &dev_frames, options, progress, &start.nnet);
  std::vector<Nnet> runs;
  const uint32 first_seed = options.seed;
  for (int32 r = 0; r < config.runs; ++r) {
    options.seed = first_seed + static_cast<uint32>(r);
    progress("run " + std::to_string(r + 1) + "/" + std::to_string(config.runs) + ": seed " +
             std::to_string(options.seed));
    runs.push_back(TrainHotwordNetwork(train_frames, &dev_frames, options, progress, &start.nnet));
  }
  progress("runs: the average of " + std::to_string(config.runs) + " networks' weights");
  return AverageNetworks(runs);
}

TunedSearch TuneSearch(const TrainConfig& config, const Nnet& nnet, const CorpusSplit& dev,
                       const HotwordUnits& units, const ProgressFunction& progress) {
  if (dev.NumPositives() == 0) {
    KESTREL_ERR("train") << config.dev_split << ": the split has no positive clips";
  }
  SearchTuningOptions tuning;
  tuning.detector = config.detector;
  tuning.num_threads = config.threads;
  tuning.max_false_alarms_per_hour = ConvertStringToIntegerOrFloat<double>(config.max_fa);
  tuning.max_near_phrase_accept_rate = ConvertStringToIntegerOrFloat<double>(config.max_near);
  SplitStringToIntegers<int32>(config.methods, ",", &tuning.methods);
  if (tuning.methods.empty()) KESTREL_ERR("train") << "--methods names no search method";
  std::vector<float> scales;
  SplitStringToFloats(config.output_scales, ",", &scales);
  if (scales.empty()) KESTREL_ERR("train") << "--output-scales names no scale";
  std::vector<TunedSearch> tuned;
  for (float scale : scales) {
    FeatureSet dev_posteriors =
        ComputePosteriors(ScaleOutputLogits(nnet, scale), dev.features, config.threads);
    const std::string label = OutputScaleLabel(scale);
    for (TunedSearch& t : TuneSearchMethods(dev.clips, dev_posteriors, units.unit_seconds, tuning,
                                            [&](const std::string& line) {
                                              progress(line + label);
                                            })) {
      t.output_scale = scale;
      tuned.push_back(std::move(t));
    }
  }
  return tuned[BestTunedSearch(tuned)];
}

void WriteTrainedModel(const TrainConfig& config, const TunedSearch& best, const Nnet& nnet,
                       const std::string& name) {
  HotwordModel model = best.settings;
  model.nnet = ScaleOutputLogits(nnet, best.output_scale);
  model.name = config.out;
  model.hotwords[0].name = name;
  model.Check("train");
  const std::string temporary = config.out + ".partial";
  model.WriteFile(temporary, !config.text);
  std::error_code error;
  std::filesystem::rename(temporary, config.out, error);
  if (error) {
    std::filesystem::remove(temporary, error);
    KESTREL_ERR("train") << config.out << ": cannot write the model.";
  }
}

std::string TrainedModelReport(const TrainConfig& config, const TunedSearch& best,
                               const HotwordUnits& units, const std::string& name) {
  const HotwordRecord& hw = best.settings.hotwords[0];
  std::ostringstream report;
  report.setf(std::ios::fixed);
  report.precision(3);
  report << "model: " << config.out << " (" << std::filesystem::file_size(config.out)
         << " bytes)" << (name.empty() ? "" : ", hotword \"" + name + "\"") << "\n"
         << "units: " << units.Describe() << "\n"
         << "search: " << SearchMethodLabel(hw.search_method)
         << OutputScaleLabel(best.output_scale)
         << ", smooth window "
         << best.settings.smooth_window << ", slide window " << best.settings.slide_window
         << ", floors " << SearchFloorsLabel(hw) << ", sensitivity " << hw.sensitivity << "\n"
         << config.dev_split << " at that sensitivity: FRR " << 100.0 * best.point.FalseRejectionRate()
         << "%, " << best.point.false_alarms << " false alarms in " << best.point.hours
         << " h (" << best.point.FalseAlarmsPerHour() << " per hour), near phrases accepted "
         << best.point.confusables_accepted << "/" << best.point.confusables << "\n";
  return report.str();
}

}  // namespace kestrel
