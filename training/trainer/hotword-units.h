// HotwordUnits: how the hotword is cut into the network's output units, and
// the per-frame training labels that follow from the phoneme timings.
//
// The network has one filler output (column 0) for everything that is not the
// hotword and U unit outputs (columns 1..U), so the hotword's keyword is
// [1, 2, ..., U]. Units are runs of consecutive phonemes of one canonical
// pronunciation (the most frequent phoneme sequence among the training
// positives), grouped so that their average durations are as even as
// possible. Clips pronounced differently (another engine's phoneme set,
// a syllabic "l" for "ax l") are mapped onto the canonical sequence by a
// minimum-edit alignment, so every clip labels the same units.
//
// Plain values; any thread.
#ifndef KESTREL_TRAINING_TRAINER_HOTWORD_UNITS_H_
#define KESTREL_TRAINING_TRAINER_HOTWORD_UNITS_H_

#include <string>
#include <vector>

#include "corpus-manifest.h"

namespace kestrel {

// Frame t of the front end covers [t * kFrameShiftSeconds, t * kFrameShiftSeconds
// + 0.025 s); it is labelled by the phoneme under its centre.
constexpr double kFrameShiftSeconds = 0.01;
constexpr double kFrameCentreSeconds = 0.0125;

struct HotwordUnits {
  std::vector<std::string> phones;   // canonical pronunciation
  std::vector<int> unit_of_phone;    // 1..U for each canonical phoneme, non-decreasing
  std::vector<double> unit_seconds;  // mean duration of each unit over the positives

  int NumUnits() const { return static_cast<int>(unit_seconds.size()); }
  // "HH EY | K EH | ..." for progress output and reports.
  std::string Describe() const;
};

// Chooses the canonical pronunciation among `clips` (only positives count)
// and groups it into min(num_units, phonemes) units. An error when there are
// no positives.
HotwordUnits ChooseUnits(const std::vector<CorpusClip>& clips, int num_units);

// For each phoneme of `phones`, the index of the canonical phoneme it stands
// for (minimum-edit alignment; an inserted phoneme takes its predecessor's).
std::vector<int> AlignToCanonical(const std::vector<std::string>& phones,
                                  const std::vector<std::string>& canonical);

// Label of a frame that frame training skips.
constexpr int kUntrainedFrame = -1;
// Label of a filler frame that every epoch trains on (TrainingFrames): a near
// phrase's frames where its shared sounds meet the ones that differ.
constexpr int kContrastFrame = -2;

// One label per frame of the clip: 0 (filler) everywhere except under the
// phonemes of a positive, which get their unit, and inside a near phrase
// (a confusable's span), which is kUntrainedFrame except where it sounds
// unlike the hotword ("a" in "a kestrel"). A confusable without a span is
// kUntrainedFrame throughout. In a positive, the `edge_frames` frames on
// either side of each change of label at a unit (unit to unit, filler to
// unit and back) are kUntrainedFrame: the engines' phoneme timings are only
// good to a frame or two, and a transition is both sounds at once.
//
// With `contrast_frames`, the frames of a near phrase within that many of a
// meeting of shared and differing sounds are kContrastFrame, shared ones
// included: "kestrel" after "shower" is then filler where the network's
// context still reaches "shower". Left untrained, the shared sounds score as
// the hotword's units whatever came before them, and the whole-phrase score
// of "shower kestrel" falls short of the hotword's by one unit only.
std::vector<int> FrameLabels(const CorpusClip& clip, const HotwordUnits& units, int num_frames,
                             int edge_frames = 0, int contrast_frames = 0);

}  // namespace kestrel

#endif  // KESTREL_TRAINING_TRAINER_HOTWORD_UNITS_H_
