// ScaleOutputLogits: a trained network with sharper or flatter posteriors.
//
// Multiplying the inputs of the final softmax by s raises every posterior to
// the power s and renormalises: each frame keeps the order of its outputs,
// but the detector's smoothing and span means then weigh confident and
// doubtful frames differently, which moves the balance between missed
// hotwords, false alarms and near phrases. The scale is folded into the last
// affine layer, so the model file and the detector are unchanged; the
// trainer tries the scales it is given on held-out data and keeps the best
// (TuneSearch in tools/model-training.h).
#ifndef KESTREL_TRAINING_TRAINER_OUTPUT_SCALE_H_
#define KESTREL_TRAINING_TRAINER_OUTPUT_SCALE_H_

#include "nnet/nnet.h"

namespace kestrel {

// A copy of `nnet` with its last <AffineTransform>, the one feeding the final
// <Softmax>, multiplied by `scale` (weights and bias). Throws KestrelError if
// the network does not end in those two components or `scale` is not above
// 0; a scale of 1 gives the network back bit for bit.
Nnet ScaleOutputLogits(const Nnet& nnet, float scale);

}  // namespace kestrel

#endif  // KESTREL_TRAINING_TRAINER_OUTPUT_SCALE_H_
