// NnetTrainer: trains a network's layers on labelled frames by minimising the
// cross-entropy of its softmax output, with Adam. Training only: nothing here
// runs in the detector.
//
// The trained part of the network is every component after the last
// <Splice> (the whole network if it has none); it must end in <Softmax>.
// Training works on rows the splice has already produced, so a trainer can
// splice each utterance once and then shuffle frames across utterances:
//
//   NnetTrainer trainer(&nnet, options);
//   for each utterance: trainer.SpliceUtterance(features, &rows);  // keep rows + labels
//   for each epoch, for each shuffled batch of rows and labels:
//     float loss = trainer.TrainOnBatch(batch_rows, batch_labels);
//   nnet.Write(...);  // the trained network, ready for the detector
//
// <AffineTransform> layers are updated; <AddShift> and <Rescale> (feature
// normalisation, usually computed from data) only if options ask for it.
//
// Borrows the network, which must outlive the trainer and must not be used
// elsewhere while it trains (its layers change at every step). One thread.
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
};

class NnetTrainer {
 public:
  NnetTrainer(Nnet* nnet, const NnetTrainerOptions& options);

  // The index of the first trained component.
  int FirstTrainedComponent() const { return first_trained_; }
  // The input dimension of the trained part: the columns of training rows.
  int RowDim() const;

  // Runs the components before the trained part over one whole utterance
  // (`features`: frames x nnet InputDim()), giving one training row per
  // frame: exactly the rows the streaming network would feed on.
  void SpliceUtterance(const MatrixBase& features, Matrix* rows) const;
  // Posteriors of the trained part for `rows` (no streaming state).
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
  // Fills activations_[i] with the input of trained component i (the last
  // one holding the network's output), each <Relu>'s output with dropout.
  void ForwardKeepingActivations(const MatrixBase& rows);

  Nnet* nnet_;
  NnetTrainerOptions options_;
  int first_trained_ = 0;
  std::vector<bool> updated_;                 // per component
  std::vector<std::vector<float>> gradients_;  // per component
  std::vector<std::vector<float>> params_;     // per updated component
  std::vector<AdamOptimizer> optimizers_;      // per component (empty if not updated)
  std::vector<Matrix> activations_;
  Matrix diff_, next_diff_;
  std::mt19937 dropout_rng_;
};

}  // namespace kestrel

#endif  // KESTREL_NNET_NNET_TRAIN_H_
