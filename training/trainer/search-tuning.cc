#include "search-tuning.h"

#include <cmath>
#include <sstream>

#include "hotword-units.h"
#include "posterior-scan.h"

namespace kestrel {

std::string SearchMethodLabel(int32 method) {
  return std::string(SearchMethodName(method)) + " (" + std::to_string(method) + ")";
}

std::string SearchFloorsLabel(const HotwordRecord& hotword) {
  std::ostringstream label;
  label.setf(std::ios::fixed);
  label.precision(2);
  for (size_t u = 0; u < hotword.search_floor.size(); ++u) {
    label << (u > 0 ? "/" : "") << hotword.search_floor[u];
  }
  return label.str();
}

namespace {

// A search mask of `unit_seconds.size() + 1` offsets that places each unit's
// nominal interval by its share of the total duration, the last offset
// being `span`.
std::vector<int32> MaskFromDurations(const std::vector<double>& unit_seconds, int32 span) {
  double total = 0.0;
  for (double s : unit_seconds) total += s;
  std::vector<int32> mask{0};
  double sum = 0.0;
  for (double s : unit_seconds) {
    sum += s;
    mask.push_back(static_cast<int32>(std::lround(total > 0 ? sum / total * span : 0.0)));
  }
  mask.back() = span;
  return mask;
}

}  // namespace

HotwordModel MakeHotwordSettings(const std::vector<double>& unit_seconds, int32 method,
                                 int32 smooth_window, int32 span, float floor,
                                 float sensitivity) {
  HotwordRecord hw;
  for (size_t u = 1; u <= unit_seconds.size(); ++u) hw.keyword.push_back(static_cast<int32>(u));
  hw.sensitivity = sensitivity;
  hw.search_method = method;
  hw.search_mask = MaskFromDurations(unit_seconds, span);
  hw.search_floor.assign(hw.keyword.size(), floor);
  HotwordModel settings;
  settings.smooth_window = smooth_window;
  settings.slide_window = span;
  settings.hotwords.push_back(hw);
  return settings;
}

double MeanHotwordFrames(const std::vector<CorpusClip>& clips) {
  double sum = 0.0;
  int n = 0;
  for (const CorpusClip& c : clips) {
    if (c.kind != ClipKind::kPositive) continue;
    sum += c.hotword_end - c.hotword_start;
    ++n;
  }
  return n > 0 ? sum / n / kFrameShiftSeconds : 0.0;
}

std::vector<OperatingPoint> SweepSensitivities(const std::vector<CorpusClip>& clips,
                                               const FeatureSet& posteriors,
                                               HotwordModel settings,
                                               const std::vector<float>& sensitivities,
                                               const SearchTuningOptions& options) {
  std::vector<OperatingPoint> curve;
  for (float s : sensitivities) {
    settings.hotwords[0].sensitivity = s;
    std::vector<std::vector<int>> detections = ScanDetections(
        posteriors, settings, options.detector, options.num_threads);
    OperatingPoint p = CountOperatingPoint(clips, detections, options.tolerance_seconds);
    p.sensitivity = s;
    curve.push_back(p);
  }
  return curve;
}

namespace {

// Largest sensitivity in [0, 1] whose false alarms and near-phrase
// acceptances are within budget (both grow with the sensitivity), with its
// operating point.
TunedSearch BisectSensitivity(const std::vector<CorpusClip>& clips, const FeatureSet& posteriors,
                              const HotwordModel& settings, const SearchTuningOptions& options) {
  float low = 0.0f, high = 1.0f;
  TunedSearch best;
  best.settings = settings;
  best.settings.hotwords[0].sensitivity = 0.0f;
  best.point.detected = -1;  // nothing within budget yet
  for (int step = 0; step <= options.bisection_steps; ++step) {
    // The first probe is the top of the range, which often suffices for
    // weak searches; then halve the interval.
    float s = step == 0 ? high : 0.5f * (low + high);
    OperatingPoint p = SweepSensitivities(clips, posteriors, settings, {s}, options)[0];
    if (p.FalseAlarmsPerHour() <= options.max_false_alarms_per_hour &&
        p.ConfusableAcceptRate() <= options.max_near_phrase_accept_rate) {
      if (best.point.detected < 0 || s > best.point.sensitivity) {
        best.point = p;
        best.settings.hotwords[0].sensitivity = s;
      }
      if (step == 0) break;
      low = s;
    } else {
      high = s;
    }
  }
  if (best.point.detected < 0) {
    // Even the strictest threshold raises too many false alarms.
    best.point = SweepSensitivities(clips, posteriors, settings, {0.0f}, options)[0];
    best.point.detected = 0;
  }
  return best;
}

bool Better(const TunedSearch& a, const TunedSearch& b) {
  if (a.point.detected != b.point.detected) return a.point.detected > b.point.detected;
  if (a.point.false_alarms != b.point.false_alarms) return a.point.false_alarms < b.point.false_alarms;
  return a.point.sensitivity > b.point.sensitivity;
}

}  // namespace

size_t BestTunedSearch(const std::vector<TunedSearch>& tuned) {
  size_t best = 0;
  for (size_t i = 1; i < tuned.size(); ++i) {
    if (Better(tuned[i], tuned[best])) best = i;
  }
  return best;
}

std::vector<TunedSearch> TuneSearchMethods(const std::vector<CorpusClip>& clips,
                                           const FeatureSet& posteriors,
                                           const std::vector<double>& unit_seconds,
                                           const SearchTuningOptions& options,
                                           const std::function<void(const std::string&)>& progress) {
  const double mean_frames = MeanHotwordFrames(clips);
  std::vector<TunedSearch> results;
  for (int32 method : options.methods) {
    TunedSearch best;
    bool have = false;
    for (int32 smooth : options.smooth_windows) {
      for (double factor : options.span_factors) {
        int32 span = std::max<int32>(static_cast<int32>(unit_seconds.size()) + 1,
                                     static_cast<int32>(std::lround(mean_frames * factor)));
        for (float floor : options.floors) {
          std::vector<float> first_floors{floor};
          for (float f : options.first_unit_floors) {
            if (f > floor) first_floors.push_back(f);
          }
          for (float first : first_floors) {
            HotwordModel settings =
                MakeHotwordSettings(unit_seconds, method, smooth, span, floor, 0.5f);
            settings.hotwords[0].search_floor[0] = first;
            TunedSearch t = BisectSensitivity(clips, posteriors, settings, options);
            if (!have || Better(t, best)) {
              best = t;
              have = true;
            }
          }
        }
      }
    }
    if (progress) {
      std::ostringstream line;
      line.setf(std::ios::fixed);
      line.precision(3);
      line << "tune: " << SearchMethodLabel(method) << ": smooth " << best.settings.smooth_window
           << ", span " << best.settings.slide_window << ", floors "
           << SearchFloorsLabel(best.settings.hotwords[0]) << ", sensitivity "
           << best.point.sensitivity << " -> FRR " << 100.0 * best.point.FalseRejectionRate()
           << "% at " << best.point.FalseAlarmsPerHour() << " FA/h, near phrases accepted "
           << 100.0 * best.point.ConfusableAcceptRate() << "%";
      progress(line.str());
    }
    results.push_back(best);
  }
  return results;
}

}  // namespace kestrel
