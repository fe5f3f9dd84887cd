#include "training-frames.h"

#include <algorithm>
#include <cmath>

#include "hotword-units.h"
#include "utils/kestrel-log.h"

namespace kestrel {

std::vector<FrameRef> RandomFrames(std::vector<FrameRef> from, size_t n, std::mt19937* rng) {
  n = std::min(n, from.size());
  // Partial Fisher-Yates: only the n frames kept are drawn.
  for (size_t i = 0; i < n; ++i) {
    std::uniform_int_distribution<size_t> pick(i, from.size() - 1);
    std::swap(from[i], from[pick(*rng)]);
  }
  from.resize(n);
  return from;
}

TrainingFrames::TrainingFrames(const FeatureSet* features, std::vector<std::vector<int>> labels,
                               const Splice& splice)
    : features_(features), labels_(std::move(labels)), splice_(splice) {
  if (static_cast<int>(labels_.size()) != features_->NumClips()) {
    KESTREL_ERR("training-frames") << "labels for " << labels_.size() << " clips, features for "
                                   << features_->NumClips();
  }
  for (int c = 0; c < features_->NumClips(); ++c) {
    if (static_cast<int>(labels_[c].size()) != features_->NumFrames(c)) {
      KESTREL_ERR("training-frames") << "clip " << c << ": " << labels_[c].size()
                                     << " labels for " << features_->NumFrames(c) << " frames";
    }
    for (int t = 0; t < features_->NumFrames(c); ++t) {
      int label = labels_[c][t];
      if (label == kContrastFrame) {
        labels_[c][t] = 0;
        contrast_frames_.push_back({c, t});
        continue;
      }
      if (label < 0) continue;  // not trained on
      num_labels_ = std::max(num_labels_, label + 1);
      (label == 0 ? filler_frames_ : unit_frames_).push_back({c, t});
    }
  }
}

size_t TrainingFrames::EpochFillerCount(double filler_fraction) const {
  size_t want = filler_frames_.size() + contrast_frames_.size();
  if (filler_fraction < 1.0) {
    want = std::min(want, static_cast<size_t>(unit_frames_.size() * filler_fraction /
                                              std::max(1e-6, 1.0 - filler_fraction)));
  }
  return want;
}

std::vector<FrameRef> TrainingFrames::EpochFrames(double filler_fraction, std::mt19937* rng,
                                                  const std::vector<FrameRef>& hard,
                                                  const std::vector<FrameRef>& hard_units) const {
  std::vector<FrameRef> frames = unit_frames_;
  frames.insert(frames.end(), hard_units.begin(), hard_units.end());
  frames.insert(frames.end(), contrast_frames_.begin(), contrast_frames_.end());
  frames.insert(frames.end(), hard.begin(), hard.end());
  const size_t total = EpochFillerCount(filler_fraction);
  const size_t want = total - std::min(hard.size() + contrast_frames_.size(), total);
  // A fresh random subset of the filler each epoch.
  const std::vector<FrameRef> filler = RandomFrames(filler_frames_, want, rng);
  frames.insert(frames.end(), filler.begin(), filler.end());
  std::shuffle(frames.begin(), frames.end(), *rng);
  return frames;
}

namespace {

// The frames of `from` whose clip holds their own label for `guard` frames
// either side (clip edges end the check).
std::vector<FrameRef> FramesAwayFromOtherLabels(const std::vector<FrameRef>& from,
                                                const std::vector<std::vector<int>>& labels,
                                                int guard) {
  std::vector<FrameRef> clear;
  for (const FrameRef& f : from) {
    const std::vector<int>& clip = labels[f.clip];
    const int first = std::max(0, f.frame - guard);
    const int last = std::min(static_cast<int>(clip.size()) - 1, f.frame + guard);
    bool near_other = false;
    for (int t = first; t <= last && !near_other; ++t) near_other = clip[t] != clip[f.frame];
    if (!near_other) clear.push_back(f);
  }
  return clear;
}

}  // namespace

std::vector<FrameRef> TrainingFrames::ClearFillerFrames(int guard) const {
  return FramesAwayFromOtherLabels(filler_frames_, labels_, guard);
}

std::vector<FrameRef> TrainingFrames::ClearUnitFrames(int guard) const {
  return FramesAwayFromOtherLabels(unit_frames_, labels_, guard);
}

void TrainingFrames::MakeBatch(const std::vector<FrameRef>& frames, size_t first, size_t n,
                               Matrix* inputs, std::vector<int32>* labels) const {
  inputs->Resize(static_cast<int>(n), InputDim(), kUndefined);
  labels->resize(n);
  const int dim = features_->Dim();
  for (size_t i = 0; i < n; ++i) {
    const FrameRef& f = frames[first + i];
    const int num_frames = features_->NumFrames(f.clip);
    SubMatrix clip(const_cast<float*>(features_->Frame(f.clip, 0)), num_frames, dim, dim);
    splice_.SpliceFrame(clip, 0, num_frames - 1, f.frame, inputs, static_cast<int>(i));
    (*labels)[i] = labels_[f.clip][f.frame];
  }
}

void TrainingFrames::FeatureStats(std::vector<double>* mean, std::vector<double>* stddev) const {
  const int dim = features_->Dim();
  std::vector<double> sum(dim, 0.0), sum_sq(dim, 0.0);
  size_t count = 0;
  for (int c = 0; c < features_->NumClips(); ++c) {
    for (int t = 0; t < features_->NumFrames(c); ++t) {
      const float* row = features_->Frame(c, t);
      for (int d = 0; d < dim; ++d) {
        sum[d] += row[d];
        sum_sq[d] += static_cast<double>(row[d]) * row[d];
      }
      ++count;
    }
  }
  mean->assign(dim, 0.0);
  stddev->assign(dim, 1.0);
  if (count == 0) return;
  for (int d = 0; d < dim; ++d) {
    (*mean)[d] = sum[d] / count;
    double var = sum_sq[d] / count - (*mean)[d] * (*mean)[d];
    (*stddev)[d] = std::sqrt(std::max(var, 1e-6));
  }
}

}  // namespace kestrel
