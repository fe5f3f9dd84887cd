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
#include "parallel-ranges.h"
#include "utils/kestrel-log.h"

namespace kestrel {

namespace {

const char kLogFile[] = "nnet-train";

// Below this many rows, or parameter gradients of this many outputs, a
// thread's share is not worth starting it.
constexpr int kMinRowsPerThread = 64;
constexpr int kMinOutputsPerThread = 16;

int ThreadsFor(int n, int min_per_thread, int threads) {
  return std::max(1, std::min(threads, n / min_per_thread));
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

// A <Splice> within windows: output block (row, k) is the concatenation of
// the input blocks (row, sources[k * offsets + j]) over the offsets j.
void SpliceWithin(const std::vector<int>& sources, int in_positions, const MatrixBase& in,
                  MatrixBase* out) {
  const int dim = in.NumCols();
  const int offsets = out->NumCols() / dim;
  const int out_positions = static_cast<int>(sources.size()) / offsets;
  for (int r = 0; r < out->NumRows(); ++r) {
    const int window = r / out_positions, k = r % out_positions;
    float* y = out->RowData(r);
    for (int j = 0; j < offsets; ++j) {
      const float* x = in.RowData(window * in_positions + sources[k * offsets + j]);
      std::copy(x, x + dim, y + j * dim);
    }
  }
}

// Its backward pass: each input block receives the sum of the output-diff
// blocks that copied it.
void SpliceWithinBackward(const std::vector<int>& sources, int in_positions,
                          const MatrixBase& out_diff, MatrixBase* in_diff) {
  const int dim = in_diff->NumCols();
  const int offsets = out_diff.NumCols() / dim;
  const int out_positions = static_cast<int>(sources.size()) / offsets;
  in_diff->Set(0.0f);
  for (int r = 0; r < out_diff.NumRows(); ++r) {
    const int window = r / out_positions, k = r % out_positions;
    const float* dy = out_diff.RowData(r);
    for (int j = 0; j < offsets; ++j) {
      float* dx = in_diff->RowData(window * in_positions + sources[k * offsets + j]);
      for (int c = 0; c < dim; ++c) dx[c] += dy[j * dim + c];
    }
  }
}

}  // namespace

NnetTrainer::NnetTrainer(Nnet* nnet, const NnetTrainerOptions& options)
    : nnet_(nnet), options_(options), dropout_rng_(options.dropout_seed) {
  if (!(options.dropout >= 0.0f && options.dropout < 1.0f)) {
    KESTREL_ERR(kLogFile) << "NnetTrainer: dropout must be in [0, 1), not " << options.dropout
                          << ".";
  }
  if (options.threads < 1) {
    KESTREL_ERR(kLogFile) << "NnetTrainer: threads must be at least 1, not " << options.threads
                          << ".";
  }
  const int n = nnet->NumComponents();
  if (n == 0 || dynamic_cast<const Softmax*>(&nnet->GetComponent(n - 1)) == nullptr) {
    KESTREL_ERR(kLogFile) << "NnetTrainer: the network must end in <Softmax>, its last "
                          << "component is "
                          << (n == 0 ? "missing" : nnet->GetComponent(n - 1).Token()) << ".";
  }
  // The positions each component is needed at, from the output down.
  positions_.assign(n + 1, {});
  splice_sources_.assign(n, {});
  positions_[n] = {0};
  for (int i = n - 1; i >= 0; --i) {
    const auto* splice = dynamic_cast<const Splice*>(&nnet->GetComponent(i));
    if (splice == nullptr) {
      positions_[i] = positions_[i + 1];
      continue;
    }
    std::vector<int>& below = positions_[i];
    for (int p : positions_[i + 1]) {
      for (int32 o : splice->Offsets()) below.push_back(p + o);
    }
    std::sort(below.begin(), below.end());
    below.erase(std::unique(below.begin(), below.end()), below.end());
    for (int p : positions_[i + 1]) {
      for (int32 o : splice->Offsets()) {
        splice_sources_[i].push_back(static_cast<int>(
            std::lower_bound(below.begin(), below.end(), p + o) - below.begin()));
      }
    }
  }
  left_context_ = std::max(0, -positions_[0].front());
  right_context_ = std::max(0, positions_[0].back());
  updated_.assign(n, false);
  gradients_.resize(n);
  params_.resize(n);
  bool any_updated = false;
  for (int i = 0; i < n; ++i) {
    Component& c = nnet->GetComponent(i);
    const bool is_shift_or_scale = dynamic_cast<AddShift*>(&c) != nullptr ||
                                   dynamic_cast<Rescale*>(&c) != nullptr;
    updated_[i] = dynamic_cast<AffineTransform*>(&c) != nullptr ||
                  (is_shift_or_scale && options.train_shift_and_scale);
    any_updated = any_updated || updated_[i];
    const int num_params = updated_[i] ? c.NumParams() : 0;
    gradients_[i].assign(num_params, 0.0f);
    params_[i].resize(num_params);
    if (updated_[i]) c.GetParams(params_[i].data());
    optimizers_.emplace_back(num_params, options.adam);
  }
  if (!any_updated) {
    KESTREL_ERR(kLogFile) << "NnetTrainer: the network has no <AffineTransform> to train.";
  }
}

int NnetTrainer::RowDim() const {
  return (left_context_ + 1 + right_context_) * nnet_->InputDim();
}

void NnetTrainer::CheckRows(const MatrixBase& rows) const {
  if (rows.NumCols() != RowDim()) {
    KESTREL_ERR(kLogFile) << "NnetTrainer: rows have " << rows.NumCols()
                          << " columns, the network's windows have " << RowDim() << ".";
  }
}

void NnetTrainer::RunComponents(const MatrixBase& rows, int end, std::mt19937* dropout_rng,
                                std::vector<Matrix>* acts) const {
  const int num_rows = rows.NumRows();
  const int dim = nnet_->InputDim();
  acts->resize(end + 1);
  // The input frames the network uses, out of each row's window.
  const std::vector<int>& used = positions_[0];
  Matrix& input = (*acts)[0];
  input.Resize(num_rows * static_cast<int>(used.size()), dim, kUndefined);
  for (int r = 0; r < num_rows; ++r) {
    for (size_t k = 0; k < used.size(); ++k) {
      const float* x = rows.RowData(r) + (used[k] + left_context_) * dim;
      std::copy(x, x + dim, input.RowData(r * static_cast<int>(used.size()) + static_cast<int>(k)));
    }
  }
  for (int i = 0; i < end; ++i) {
    const Component& c = nnet_->GetComponent(i);
    const Matrix& in = (*acts)[i];
    Matrix& out = (*acts)[i + 1];
    const int out_rows = num_rows * static_cast<int>(positions_[i + 1].size());
    out.Resize(out_rows, c.OutputDim(), kUndefined);
    if (dynamic_cast<const Splice*>(&c) != nullptr) {
      SpliceWithin(splice_sources_[i], static_cast<int>(positions_[i].size()), in, &out);
      continue;
    }
    // Every other kind works row by row, so threads take blocks of rows.
    const int threads = ThreadsFor(out_rows, kMinRowsPerThread, options_.threads);
    ParallelRanges(out_rows, threads, [&](int first, int last) {
      SubMatrix block = out.RowRange(first, last - first);
      c.Propagate(in.RowRange(first, last - first), &block);
    });
    if (dropout_rng != nullptr && dynamic_cast<const Relu*>(&c) != nullptr) {
      std::bernoulli_distribution keep(1.0 - options_.dropout);
      const float scale = 1.0f / (1.0f - options_.dropout);
      for (int r = 0; r < out.NumRows(); ++r) {
        float* y = out.RowData(r);
        for (int k = 0; k < out.NumCols(); ++k) y[k] = keep(*dropout_rng) ? y[k] * scale : 0.0f;
      }
    }
  }
}

void NnetTrainer::Forward(const MatrixBase& rows, Matrix* posteriors) const {
  CheckRows(rows);
  std::vector<Matrix> acts;
  RunComponents(rows, nnet_->NumComponents(), nullptr, &acts);
  *posteriors = std::move(acts.back());
}

float NnetTrainer::ComputeGradient(const MatrixBase& rows, const std::vector<int32>& labels) {
  CheckRows(rows);
  CheckLabels(rows, labels, nnet_->OutputDim());
  // The softmax and the cross-entropy together have the simple gradient
  // (posterior - one-hot) at the softmax input, so back-propagation starts
  // there, below the softmax.
  const int softmax = nnet_->NumComponents() - 1;
  RunComponents(rows, softmax, options_.dropout > 0.0f ? &dropout_rng_ : nullptr, &activations_);
  const float loss = CrossEntropy(activations_[softmax], labels, &diff_, nullptr);
  for (std::vector<float>& g : gradients_) std::fill(g.begin(), g.end(), 0.0f);
  for (int i = softmax - 1; i >= 0; --i) {
    const Component& c = nnet_->GetComponent(i);
    const Matrix& in = activations_[i];
    if (updated_[i]) {
      // Threads take blocks of outputs: each parameter is summed over the
      // rows in the same order whatever the thread count.
      const int outputs = c.OutputDim();
      const int threads = ThreadsFor(outputs, kMinOutputsPerThread, options_.threads);
      ParallelRanges(outputs, threads, [&](int first, int last) {
        AccumulateGradient(c, in, diff_, gradients_[i].data(), first, last);
      });
    }
    if (i == 0) break;  // nothing below wants the input gradient
    next_diff_.Resize(in.NumRows(), c.InputDim(), kUndefined);
    if (dynamic_cast<const Splice*>(&c) != nullptr) {
      SpliceWithinBackward(splice_sources_[i], static_cast<int>(positions_[i].size()), diff_,
                           &next_diff_);
    } else {
      const Matrix& out = activations_[i + 1];
      ParallelRanges(in.NumRows(), ThreadsFor(in.NumRows(), kMinRowsPerThread, options_.threads),
                     [&](int first, int last) {
                       SubMatrix block = next_diff_.RowRange(first, last - first);
                       Backpropagate(c, in.RowRange(first, last - first),
                                     out.RowRange(first, last - first),
                                     diff_.RowRange(first, last - first), &block);
                     });
    }
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
  for (int i = 0; i < nnet_->NumComponents(); ++i) {
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
  std::vector<Matrix> acts;
  RunComponents(rows, nnet_->NumComponents() - 1, nullptr, &acts);
  return CrossEntropy(acts.back(), labels, nullptr, accuracy);
}

}  // namespace kestrel
