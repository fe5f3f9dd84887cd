// Choice of the decoding settings of a trained network: the search method,
// smoothing window, slide window (span) and per-unit floors, and the
// sensitivity that keeps false alarms within a budget, all chosen on
// held-out data by running the library's own detector over the network's
// outputs (posterior-scan.h).
//
// For every search method the grid of window and floor settings is tried;
// for each setting the largest sensitivity whose false alarm rate stays
// within the budget, and that accepts near phrases ("a kestrel", "hey
// kettle") at most as often as allowed, is found by bisection, and the setting with the lowest
// false rejection rate there wins (ties: fewer false alarms, then the larger
// sensitivity).
#ifndef KESTREL_TRAINING_TRAINER_SEARCH_TUNING_H_
#define KESTREL_TRAINING_TRAINER_SEARCH_TUNING_H_

#include <functional>
#include <string>
#include <vector>

#include "corpus-manifest.h"
#include "det-evaluation.h"
#include "detect/universal-detect-stream.h"
#include "feature-set.h"
#include "model/hotword-model.h"

namespace kestrel {

struct SearchTuningOptions {
  std::vector<int32> methods{1, 2, 3, 6, 7, 8};
  // Smoothing beyond 10 frames pays for the naive search, whose peaks it
  // steadies (dev: 15.9% missed at smooth 15 against 19.0% at 10).
  std::vector<int32> smooth_windows{1, 5, 10, 15, 20};
  // Span (= slide window) as a multiple of the mean hotword duration.
  std::vector<double> span_factors{0.9, 1.15, 1.4};
  // Floors of 0.15 sit between letting weak hotwords through and keeping
  // near phrases out (dev, at most 5% of them accepted: 25.9% missed
  // against 27.0% with 0.05 and 0.3 alone).
  std::vector<float> floors{0.05f, 0.15f, 0.3f};
  // Higher floors also tried on the first unit alone: near phrases that end
  // in the hotword's last word ("haw kestrel") differ from it only there.
  std::vector<float> first_unit_floors{0.5f, 0.7f};
  double max_false_alarms_per_hour = 0.5;
  // Share of near phrases (confusables) the detector may accept: they are
  // false alarms to a user, but too dense in a corpus to count per hour.
  double max_near_phrase_accept_rate = 0.15;
  double tolerance_seconds = 0.5;
  int bisection_steps = 10;
  // Detector options as the application will use them (slide step, minimum
  // state frames, refractory span); the model file cannot carry these.
  UniversalDetectStreamOptions detector;
  int num_threads = 2;
};

struct TunedSearch {
  HotwordModel settings;  // one hotword, sensitivity included; no network
  OperatingPoint point;           // on the tuning data
  // The factor the network's outputs were sharpened by before tuning
  // (ScaleOutputLogits); the settings hold only for the scaled network.
  float output_scale = 1.0f;
};

// Settings (no network) for keyword [1..U] (U = unit_seconds.size()) with
// the given search method, windows and floor; the mask spreads the units over
// the span in proportion to their mean durations.
HotwordModel MakeHotwordSettings(const std::vector<double>& unit_seconds, int32 method,
                                         int32 smooth_window, int32 span, float floor,
                                         float sensitivity);

// Mean hotword duration of the positives of `clips`, in frames.
double MeanHotwordFrames(const std::vector<CorpusClip>& clips);

// Operating points of `settings` at each of `sensitivities`.
std::vector<OperatingPoint> SweepSensitivities(const std::vector<CorpusClip>& clips,
                                               const FeatureSet& posteriors,
                                               HotwordModel settings,
                                               const std::vector<float>& sensitivities,
                                               const SearchTuningOptions& options);

// The best settings of each method of options.methods, in that order.
std::vector<TunedSearch> TuneSearchMethods(const std::vector<CorpusClip>& clips,
                                           const FeatureSet& posteriors,
                                           const std::vector<double>& unit_seconds,
                                           const SearchTuningOptions& options,
                                           const std::function<void(const std::string&)>& progress);

// Index of the best of `tuned` (by the rule above); `tuned` must not be empty.
size_t BestTunedSearch(const std::vector<TunedSearch>& tuned);

// The hotword's unit floors, "0.50/0.05/0.05/0.05".
std::string SearchFloorsLabel(const HotwordRecord& hotword);

// "Viterbi (3)" and so on.
std::string SearchMethodLabel(int32 method);

}  // namespace kestrel

#endif  // KESTREL_TRAINING_TRAINER_SEARCH_TUNING_H_
