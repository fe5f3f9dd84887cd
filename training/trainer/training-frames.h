// TrainingFrames: the labelled frames of a corpus split, and the shuffled,
// class-balanced minibatches the trainer draws from them.
//
// Inputs are spliced exactly as the network's <Splice> does at detection
// time (clip edges repeat the first and last frames), so the trainer can
// train the layers after the splice on independent frames from many clips.
//
// Borrows the feature set, which must outlive it. Const methods are safe to
// call from several threads.
#ifndef KESTREL_TRAINING_TRAINER_TRAINING_FRAMES_H_
#define KESTREL_TRAINING_TRAINER_TRAINING_FRAMES_H_

#include <random>
#include <vector>

#include "feature-set.h"
#include "nnet/nnet-splice.h"
#include "utils/kestrel-matrix.h"
#include "utils/kestrel-types.h"

namespace kestrel {

struct FrameRef {
  int32 clip = 0;
  int32 frame = 0;
};

// `n` frames of `from` drawn without replacement (all of them if there are
// fewer), in random order.
std::vector<FrameRef> RandomFrames(std::vector<FrameRef> from, size_t n, std::mt19937* rng);

class TrainingFrames {
 public:
  // `labels[c]` holds one label per frame of clip c (0 = filler, below 0 not
  // trained on, kContrastFrame filler that every epoch holds).
  TrainingFrames(const FeatureSet* features, std::vector<std::vector<int>> labels,
                 const Splice& splice);

  int NumLabels() const { return num_labels_; }
  int InputDim() const { return splice_.OutputDim(); }
  // Columns of one unspliced frame.
  int FeatureDim() const { return features_->Dim(); }
  const Splice& GetSplice() const { return splice_; }
  const std::vector<FrameRef>& UnitFrames() const { return unit_frames_; }
  // Filler frames other than the contrast frames.
  const std::vector<FrameRef>& FillerFrames() const { return filler_frames_; }
  const std::vector<FrameRef>& ContrastFrames() const { return contrast_frames_; }
  int Label(const FrameRef& f) const { return labels_[f.clip][f.frame]; }

  // One epoch: every unit frame plus filler frames so that they make up
  // `filler_fraction` of the epoch (all of them if there are too few),
  // shuffled. The filler is the contrast frames and `hard` (every frame of
  // them, as often as they are listed), topped up with frames drawn without
  // replacement from all filler. `hard_units` are unit frames trained on
  // once more, on top of that.
  std::vector<FrameRef> EpochFrames(double filler_fraction, std::mt19937* rng,
                                    const std::vector<FrameRef>& hard = {},
                                    const std::vector<FrameRef>& hard_units = {}) const;
  // The number of filler frames EpochFrames puts in an epoch.
  size_t EpochFillerCount(double filler_fraction) const;

  // Filler frames at least `guard` frames from every hotword or untrained
  // frame of their clip. Frames at a unit's edge are filler by a few
  // milliseconds of labelling only; mining them for hard negatives would
  // push the network against its own units.
  std::vector<FrameRef> ClearFillerFrames(int guard) const;
  // Unit frames whose label holds for `guard` frames either side: the
  // engines' phoneme timings are good to a frame or two, so a frame at a unit
  // edge that the network scores as the next unit is no hard example.
  std::vector<FrameRef> ClearUnitFrames(int guard) const;

  // Rows first..first+n of `frames`, spliced, into `inputs` (n x InputDim())
  // and their labels into `labels`.
  void MakeBatch(const std::vector<FrameRef>& frames, size_t first, size_t n, Matrix* inputs,
                 std::vector<int32>* labels) const;

  // Per-dimension mean and standard deviation of the raw features over all
  // frames (a floor keeps constant dimensions finite).
  void FeatureStats(std::vector<double>* mean, std::vector<double>* stddev) const;

 private:
  const FeatureSet* features_;
  std::vector<std::vector<int>> labels_;
  Splice splice_;
  int num_labels_ = 1;
  std::vector<FrameRef> unit_frames_;
  std::vector<FrameRef> filler_frames_;
  // Labelled kContrastFrame: rare, and what tells near phrases apart, so
  // random draws from all filler would all but never show them.
  std::vector<FrameRef> contrast_frames_;
};

}  // namespace kestrel

#endif  // KESTREL_TRAINING_TRAINER_TRAINING_FRAMES_H_
