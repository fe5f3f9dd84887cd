// ScanDetections: runs the library's detector stage over network outputs
// computed beforehand, so that sweeping sensitivities and search settings
// costs only the smoothing and the searches, not the network.
//
// The detector gets the given settings with an identity network (a <Rescale>
// of ones as wide as the outputs), in memory, and reads the stored outputs through an
// upstream stage that plays them back clip by clip, exactly as the real
// network would have delivered them. Each clip starts from a reset detector,
// and frame ids leave a gap between clips wider than any refractory span, so
// clips never influence each other.
#ifndef KESTREL_TRAINING_TRAINER_POSTERIOR_SCAN_H_
#define KESTREL_TRAINING_TRAINER_POSTERIOR_SCAN_H_

#include <string>
#include <vector>

#include "detect/universal-detect-stream.h"
#include "feature-set.h"
#include "model/hotword-model.h"

namespace kestrel {

// Network outputs of every clip: `nnet` run over each clip's features with a
// final flush, on `num_threads` threads.
FeatureSet ComputePosteriors(const Nnet& nnet, const FeatureSet& features, int num_threads);

// For each clip of `posteriors`, the frames (counted from the clip's first
// frame) at which the detector reported the hotword. The network of
// `settings` is not used; the option strings of `options` are ignored.
std::vector<std::vector<int>> ScanDetections(const FeatureSet& posteriors,
                                             const HotwordModel& settings,
                                             UniversalDetectStreamOptions options,
                                             int num_threads);

}  // namespace kestrel

#endif  // KESTREL_TRAINING_TRAINER_POSTERIOR_SCAN_H_
