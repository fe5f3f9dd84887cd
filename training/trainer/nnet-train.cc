#include "nnet-train.h"

#include "nnet-backprop.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

#include "nnet/nnet-activation.h"
#include "nnet/nnet-add-shift.h"
#include "nnet/nnet-affine-transform.h"
#include "nnet/nnet-component.h"
#include "nnet/nnet-rescale.h"
#include "nnet/nnet-splice.h"
#include "utils/kestrel-log.h"

namespace kestrel {

namespace {

const char kLogFile[] = "nnet-train";

// Runs components [begin, end) of `nnet` over whole matrices.
void PropagateRange(const Nnet& nnet, int begin, int end, const MatrixBase& in, Matrix* out) {
  Matrix cur(in);
  for (int i = begin; i < end; ++i) {
    const Component& c = nnet.GetComponent(i);
    Matrix next(cur.NumRows(), c.OutputDim(), kUndefined);
    c.Propagate(cur, &next);
    cur = std::move(next);
  }
  *out = std::move(cur);
}

void CheckLabels(const MatrixBase& rows, const std::vector<int32>& labels, int num_units) {
  if (labels.size() != static_cast<size_t>(rows.NumRows())) {
    KESTREL_ERR(kLogFile) << "NnetTrainer: " << rows.NumRows() << " rows but " << labels.size()
                          << " labels.";
  }
  for (size_t r = 0; r < labels.size(); ++r) {
    if (labels[r] < 0 || labels[r] >= num_units) {
      KESTREL_ERR(kLogFile) << "NnetTrainer: label " << labels[r] << " of row " << r
                            << " is outside the network's units 0.." << num_units - 1 << ".";
    }
  }
}

// Mean cross-entropy of softmax(logits) against the labels. With `diff`, also
// its gradient with respect to the logits: (softmax - one-hot) / rows.
float CrossEntropy(const MatrixBase& logits, const std::vector<int32>& labels, Matrix* diff,
                   float* accuracy) {
  const int rows = logits.NumRows();
  const int units = logits.NumCols();
  if (diff != nullptr) diff->Resize(rows, units, kUndefined);
  double total = 0.0;
  int correct = 0;
  for (int r = 0; r < rows; ++r) {
    const float* x = logits.RowData(r);
    const int best = static_cast<int>(std::max_element(x, x + units) - x);
    double sum = 0.0;
    for (int c = 0; c < units; ++c) sum += std::exp(static_cast<double>(x[c] - x[best]));
    const double log_sum = std::log(sum) + x[best];
    total += log_sum - x[labels[r]];
    if (best == labels[r]) ++correct;
    if (diff != nullptr) {
      float* d = diff->RowData(r);
      for (int c = 0; c < units; ++c) {
        const double p = std::exp(x[c] - log_sum);
        d[c] = static_cast<float>((p - (c == labels[r] ? 1.0 : 0.0)) / rows);
      }
    }
  }
  if (accuracy != nullptr) *accuracy = rows > 0 ? static_cast<float>(correct) / rows : 0.0f;
  return rows > 0 ? static_cast<float>(total / rows) : 0.0f;
}

}  // namespace

NnetTrainer::NnetTrainer(Nnet* nnet, const NnetTrainerOptions& options)
    : nnet_(nnet), options_(options), dropout_rng_(options.dropout_seed) {
  if (!(options.dropout >= 0.0f && options.dropout < 1.0f)) {
    KESTREL_ERR(kLogFile) << "NnetTrainer: dropout must be in [0, 1), not " << options.dropout
                          << ".";
  }
  const int n = nnet->NumComponents();
  if (n == 0 || dynamic_cast<const Softmax*>(&nnet->GetComponent(n - 1)) == nullptr) {
    KESTREL_ERR(kLogFile) << "NnetTrainer: the network must end in <Softmax>, its last "
                          << "component is "
                          << (n == 0 ? "missing" : nnet->GetComponent(n - 1).Token()) << ".";
  }
  for (int i = 0; i < n; ++i) {
    if (dynamic_cast<const Splice*>(&nnet->GetComponent(i)) != nullptr) first_trained_ = i + 1;
  }
  if (first_trained_ == n - 1) {
    KESTREL_ERR(kLogFile) << "NnetTrainer: nothing to train between the last <Splice> and the "
                          << "final <Softmax>.";
  }
  updated_.assign(n, false);
  gradients_.resize(n);
  params_.resize(n);
  for (int i = 0; i < n; ++i) {
    Component& c = nnet->GetComponent(i);
    const bool is_shift_or_scale = dynamic_cast<AddShift*>(&c) != nullptr ||
                                   dynamic_cast<Rescale*>(&c) != nullptr;
    updated_[i] = i >= first_trained_ &&
                  (dynamic_cast<AffineTransform*>(&c) != nullptr ||
                   (is_shift_or_scale && options.train_shift_and_scale));
    const int num_params = updated_[i] ? c.NumParams() : 0;
    gradients_[i].assign(num_params, 0.0f);
    params_[i].resize(num_params);
    if (updated_[i]) c.GetParams(params_[i].data());
    optimizers_.emplace_back(num_params, options.adam);
  }
}

int NnetTrainer::RowDim() const { return nnet_->GetComponent(first_trained_).InputDim(); }

void NnetTrainer::CheckRows(const MatrixBase& rows) const {
  if (rows.NumCols() != RowDim()) {
    KESTREL_ERR(kLogFile) << "NnetTrainer: rows have " << rows.NumCols()
                          << " columns, the trained layers expect " << RowDim() << ".";
  }
}

void NnetTrainer::SpliceUtterance(const MatrixBase& features, Matrix* rows) const {
  if (features.NumCols() != nnet_->InputDim()) {
    KESTREL_ERR(kLogFile) << "NnetTrainer: features have " << features.NumCols()
                          << " columns, the network expects " << nnet_->InputDim() << ".";
  }
  PropagateRange(*nnet_, 0, first_trained_, features, rows);
}

void NnetTrainer::Forward(const MatrixBase& rows, Matrix* posteriors) const {
  CheckRows(rows);
  PropagateRange(*nnet_, first_trained_, nnet_->NumComponents(), rows, posteriors);
}

void NnetTrainer::ForwardKeepingActivations(const MatrixBase& rows) {
  const int n = nnet_->NumComponents();
  activations_.resize(n - first_trained_ + 1);
  activations_[0] = Matrix(rows);
  for (int i = first_trained_; i < n; ++i) {
    const Component& c = nnet_->GetComponent(i);
    const int j = i - first_trained_;
    activations_[j + 1].Resize(rows.NumRows(), c.OutputDim(), kUndefined);
    c.Propagate(activations_[j], &activations_[j + 1]);
    if (options_.dropout > 0.0f && dynamic_cast<const Relu*>(&c) != nullptr) {
      std::bernoulli_distribution keep(1.0 - options_.dropout);
      const float scale = 1.0f / (1.0f - options_.dropout);
      Matrix& out = activations_[j + 1];
      for (int r = 0; r < out.NumRows(); ++r) {
        float* y = out.RowData(r);
        for (int k = 0; k < out.NumCols(); ++k) y[k] = keep(dropout_rng_) ? y[k] * scale : 0.0f;
      }
    }
  }
}

float NnetTrainer::ComputeGradient(const MatrixBase& rows, const std::vector<int32>& labels) {
  CheckRows(rows);
  CheckLabels(rows, labels, nnet_->OutputDim());
  ForwardKeepingActivations(rows);
  const int n = nnet_->NumComponents();
  // The softmax and the cross-entropy together have the simple gradient
  // (posterior - one-hot) at the softmax input, so back-propagation starts
  // there, below the softmax.
  const int softmax = n - 1 - first_trained_;
  const float loss = CrossEntropy(activations_[softmax], labels, &diff_, nullptr);
  for (std::vector<float>& g : gradients_) std::fill(g.begin(), g.end(), 0.0f);
  for (int j = softmax - 1; j >= 0; --j) {
    const int i = first_trained_ + j;
    const Component& c = nnet_->GetComponent(i);
    if (updated_[i]) AccumulateGradient(c, activations_[j], diff_, gradients_[i].data());
    if (j == 0) break;  // nothing below wants the input gradient
    next_diff_.Resize(rows.NumRows(), c.InputDim(), kUndefined);
    Backpropagate(c, activations_[j], activations_[j + 1], diff_, &next_diff_);
    // The <Relu>'s kept outputs (the only ones above zero) were scaled by
    // dropout; the dropped ones already pass no gradient.
    if (options_.dropout > 0.0f && dynamic_cast<const Relu*>(&c) != nullptr) {
      const float scale = 1.0f / (1.0f - options_.dropout);
      for (int r = 0; r < next_diff_.NumRows(); ++r) {
        float* d = next_diff_.RowData(r);
        for (int k = 0; k < next_diff_.NumCols(); ++k) d[k] *= scale;
      }
    }
    std::swap(diff_, next_diff_);
  }
  return loss;
}

const std::vector<float>& NnetTrainer::Gradient(int index) const { return gradients_[index]; }

float NnetTrainer::TrainOnBatch(const MatrixBase& rows, const std::vector<int32>& labels) {
  const float loss = ComputeGradient(rows, labels);
  for (int i = first_trained_; i < nnet_->NumComponents(); ++i) {
    if (!updated_[i]) continue;
    optimizers_[i].Step(gradients_[i].data(), params_[i].data());
    nnet_->GetComponent(i).SetParams(params_[i].data());
  }
  return loss;
}

float NnetTrainer::ComputeLoss(const MatrixBase& rows, const std::vector<int32>& labels,
                               float* accuracy) const {
  CheckRows(rows);
  CheckLabels(rows, labels, nnet_->OutputDim());
  Matrix logits;
  PropagateRange(*nnet_, first_trained_, nnet_->NumComponents() - 1, rows, &logits);
  return CrossEntropy(logits, labels, nullptr, accuracy);
}

}  // namespace kestrel
