// NnetTrainer: trains a network by minimising the cross-entropy of its
// softmax output over labelled frames, with Adam. Training only: nothing here
// runs in the detector.
//
// Each training row is a window of the network's input around the labelled
// frame: the LeftContext() frames before it, the frame, and the
// RightContext() frames after it, one after another (RowDim() columns). The
// window is what the network's <Splice>s reach together, and each layer is
// computed only at the frames of the window that the layers above it use. So
// a network whose one splice comes first trains on rows spliced as that splice
// splices, and a network with splices between its layers (a time-delay
// network) trains on the same rows, at about the cost of the frames it uses.
// Rows are independent of each other, so a trainer can shuffle frames across
// utterances:
//
//   NnetTrainer trainer(&nnet, options);
//   for each epoch, for each shuffled batch of windows and labels:
//     float loss = trainer.TrainOnBatch(batch_rows, batch_labels);
//   nnet.Write(...);  // the trained network, ready for the detector
//
// Rows repeat an utterance's first and last frames where the window reaches
// past them, as the detector's first splice does; a later splice repeats its
// own first input instead, so the detector's output differs from the
// trainer's in an utterance's first and last few frames only.
//
// <AffineTransform> layers are updated; <AddShift> and <Rescale> (feature
// normalisation, usually computed from data) only if options ask for it.
// The results do not depend on the number of threads.
//
// Borrows the network, which must outlive the trainer and must not be used
// elsewhere while it trains (its layers change at every step). Training
// calls from one thread at a time; the const methods from any number.
#ifndef KESTREL_NNET_NNET_TRAIN_H_
#define KESTREL_NNET_NNET_TRAIN_H_

#include <random>
#include <vector>

#include "nnet-adam.h"
#include "nnet/nnet.h"
#include "utils/kestrel-matrix.h"
#include "utils/kestrel-types.h"

namespace kestrel {

struct NnetTrainerOptions {
  AdamOptions adam;
  bool train_shift_and_scale = false;  // also update <AddShift> and <Rescale>
  // Share of each <Relu>'s outputs zeroed at every training step, the rest
  // scaled by 1 / (1 - dropout) so that the detector runs the network
  // unchanged. A regulariser: no unit can lean on a few others that happen
  // to fire for the training voices.
  float dropout = 0.0f;
  uint32 dropout_seed = 1;  // the masks' generator; the same seed, the same masks
  // Threads that share each batch's matrix products.
  int32 threads = 1;
};

class NnetTrainer {
 public:
  NnetTrainer(Nnet* nnet, const NnetTrainerOptions& options);

  // Frames of input each row holds before and after its labelled frame.
  int LeftContext() const { return left_context_; }
  int RightContext() const { return right_context_; }
  // Columns of a training row: (LeftContext() + 1 + RightContext()) input frames.
  int RowDim() const;

  // Posteriors of the network for `rows`, one row each.
  void Forward(const MatrixBase& rows, Matrix* posteriors) const;

  // Mean cross-entropy of `labels` (one unit index per row, from 0) and,
  // into Gradient(), its gradient with respect to every trained parameter.
  float ComputeGradient(const MatrixBase& rows, const std::vector<int32>& labels);
  // The last gradient of component `index`, laid out like its parameters
  // (empty for components that are not updated).
  const std::vector<float>& Gradient(int index) const;

  // ComputeGradient, then one Adam step. Returns the loss before the step.
  float TrainOnBatch(const MatrixBase& rows, const std::vector<int32>& labels);

  // Mean cross-entropy and the fraction of rows whose most probable unit is
  // the label, without training.
  float ComputeLoss(const MatrixBase& rows, const std::vector<int32>& labels,
                    float* accuracy = nullptr) const;

 private:
  void CheckRows(const MatrixBase& rows) const;
  // Runs components [0, end) over `rows`: (*acts)[i] becomes the input of
  // component i at its positions_[i] of every row (row r, position k in row
  // r * positions + k), (*acts)[end] the output of component end - 1. With
  // `dropout_rng`, each <Relu>'s output has dropout applied.
  void RunComponents(const MatrixBase& rows, int end, std::mt19937* dropout_rng,
                     std::vector<Matrix>* acts) const;

  Nnet* nnet_;
  NnetTrainerOptions options_;
  // positions_[i]: the frames, relative to a row's labelled frame, at which
  // component i's input is needed (ascending); positions_[n] is {0}.
  std::vector<std::vector<int>> positions_;
  // For each <Splice> i: for output position k and offset j, the index in
  // positions_[i] of the input it copies, at k * offsets + j.
  std::vector<std::vector<int>> splice_sources_;
  int left_context_ = 0;
  int right_context_ = 0;
  std::vector<bool> updated_;                  // per component
  std::vector<std::vector<float>> gradients_;  // per component
  std::vector<std::vector<float>> params_;     // per updated component
  std::vector<AdamOptimizer> optimizers_;      // per component (empty if not updated)
  std::vector<Matrix> activations_;
  Matrix diff_, next_diff_;
  std::mt19937 dropout_rng_;
};

}  // namespace kestrel

#endif  // KESTREL_NNET_NNET_TRAIN_H_
