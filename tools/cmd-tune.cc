// kestrel tune: the sensitivity of a model for the user's own voice and
// room, from a few recordings of the phrase and some background audio.
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "sensitivity-sweep.h"
#include "utils/kestrel-io.h"
#include "utils/kestrel-log.h"
#include "utils/kestrel-utils.h"

namespace kestrel {
namespace {

struct TuneConfig {
  std::string model;
  std::string positives;
  std::string negatives;
  std::string max_fa = "1";
  std::string step = "0.05";
  int32 threads = 2;
  bool write = false;
};

// Whether the file is a binary model (its "\0B" marker), so that --write
// keeps its form.
bool IsBinaryFile(const std::string& path) {
  Input input(path);
  return input.Binary();
}

void WriteSensitivity(const std::string& path, float sensitivity) {
  HotwordModel model = HotwordModel::ReadFile(path);
  for (HotwordRecord& record : model.hotwords) record.sensitivity = sensitivity;
  const std::string temporary = path + ".partial";
  model.WriteFile(temporary, IsBinaryFile(path));
  std::error_code error;
  std::filesystem::rename(temporary, path, error);
  if (error) {
    std::filesystem::remove(temporary, error);
    KESTREL_ERR("tune") << path << ": cannot write the model";
  }
}

int Tune(const TuneConfig& config) {
  const double max_fa = ConvertStringToIntegerOrFloat<double>(config.max_fa);
  const double step = ConvertStringToIntegerOrFloat<double>(config.step);
  if (!(step > 0.0 && step <= 0.5)) {
    return UsageError("tune", "--step must be above 0 and at most 0.5, not " + config.step);
  }
  HotwordDetectorOptions options;
  options.models.push_back(HotwordModel::ReadFile(config.model));
  const std::vector<Recording> positives = ReadRecordings(config.positives, "--positives");
  const std::vector<Recording> negatives = ReadRecordings(config.negatives, "--negatives");
  std::vector<float> sensitivities;
  for (int i = 1; i * step < 1.0 - 1e-9; ++i) sensitivities.push_back(static_cast<float>(i * step));

  const std::vector<SweepPoint> points =
      SweepSensitivity(options, positives, negatives, sensitivities, config.threads);
  std::ostringstream table;
  table.setf(std::ios::fixed);
  table << "sensitivity  misses  false alarms  per hour\n";
  for (const SweepPoint& p : points) {
    table << std::setprecision(2) << std::setw(11) << p.sensitivity << "  " << std::setw(6)
          << (std::to_string(p.misses) + "/" + std::to_string(positives.size())) << "  "
          << std::setw(12) << p.false_alarms << "  " << std::setw(8) << p.FalseAlarmsPerHour()
          << "\n";
  }
  std::string rule;
  const SweepPoint& best =
      points[RecommendSensitivity(points, max_fa, options.models[0].hotwords.empty()
                                                      ? 1.0f
                                                      : options.models[0].hotwords[0].sensitivity,
                                  &rule)];
  table << std::setprecision(3) << "on " << positives.size() << " recordings of the phrase and "
        << points[0].negative_hours << " h of background audio\n"
        << std::setprecision(2) << "recommended sensitivity: " << best.sensitivity << " ("
        << rule << ")\n";
  std::cout << table.str();
  if (config.write) {
    WriteSensitivity(config.model, best.sensitivity);
    std::cout << "wrote sensitivity " << best.sensitivity << " into " << config.model << "\n";
  }
  std::cout << std::flush;
  return kExitOk;
}

}  // namespace

int RunTune(int argc, char** argv) {
  TuneConfig config;
  ArgParser parser(
      "kestrel tune --model=MODEL.kmodel --positives=DIR_OR_WAVS --negatives=DIR_OR_WAVS "
      "[--write]",
      "Runs the detector over your own recordings at each sensitivity from --step to\n"
      "1 - --step: the --positives (a handful of recordings, each saying the phrase\n"
      "once) should each wake it, the --negatives (background audio: talk, TV, the\n"
      "room) should not. Prints the misses and false alarms per hour at each\n"
      "sensitivity and recommends one: the middle of the range that misses fewest\n"
      "recordings while false alarms stay within --max-fa-per-hour, but no higher\n"
      "than the model's own sensitivity when one at or below it misses as few (a\n"
      "few minutes of background cannot show rare false alarms). With --write, the\n"
      "recommended sensitivity is written into the model, all else kept. Lists are\n"
      "comma-separated .wav files or directories of them.");
  parser.AddString("model", &config.model, "the model file (one model); required");
  parser.AddString("positives", &config.positives, "recordings of the phrase; required");
  parser.AddString("negatives", &config.negatives, "background audio; required");
  parser.AddNumber("max-fa-per-hour", &config.max_fa,
                   "false alarms per hour of background audio the recommendation allows");
  parser.AddNumber("step", &config.step, "distance between the sensitivities tried");
  parser.AddInt("threads", &config.threads, "worker threads");
  parser.AddFlag("write", &config.write, "write the recommended sensitivity into the model");
  std::vector<std::string> positional;
  int status = kExitOk;
  if (!parser.ParseCommand(argc, argv, &positional, &status)) return status;
  if (config.model.empty()) return UsageError("tune", "--model is required");
  if (config.positives.empty()) return UsageError("tune", "--positives is required");
  if (config.negatives.empty()) return UsageError("tune", "--negatives is required");
  if (!positional.empty()) return UsageError("tune", "unexpected argument \"" + positional[0] + "\"");
  if (config.threads < 1) return UsageError("tune", "--threads must be at least 1");
  try {
    return Tune(config);
  } catch (const KestrelError& e) {
    return Failure(e.what());
  }
}

}  // namespace kestrel
