#include "nnet-backprop.h"

#include <algorithm>

#include "nnet/nnet-activation.h"
#include "nnet/nnet-add-shift.h"
#include "nnet/nnet-affine-transform.h"
#include "nnet/nnet-rescale.h"
#include "utils/kestrel-log.h"
#include "utils/kestrel-types.h"

namespace kestrel {

namespace {

const char kLogFile[] = "nnet-backprop";

// dx = f'(y) * dy for an elementwise activation whose derivative is a
// function of its output.
template <class Derivative>
void ElementwiseBackward(const MatrixBase& out, const MatrixBase& out_diff, MatrixBase* in_diff,
                         Derivative derivative) {
  const int cols = out.NumCols();
  for (int r = 0; r < out.NumRows(); ++r) {
    const float* y = out.RowData(r);
    const float* dy = out_diff.RowData(r);
    float* dx = in_diff->RowData(r);
    for (int c = 0; c < cols; ++c) dx[c] = derivative(y[c], dy[c]);
  }
}

// dx = y * (dy - <dy, y>), the softmax Jacobian applied row by row.
void SoftmaxBackward(const MatrixBase& out, const MatrixBase& out_diff, MatrixBase* in_diff) {
  const int cols = out.NumCols();
  for (int r = 0; r < out.NumRows(); ++r) {
    const float* y = out.RowData(r);
    const float* dy = out_diff.RowData(r);
    float* dx = in_diff->RowData(r);
    float dot = 0.0f;
    for (int c = 0; c < cols; ++c) dot += dy[c] * y[c];
    for (int c = 0; c < cols; ++c) dx[c] = y[c] * (dy[c] - dot);
  }
}

// Rows the affine backward passes take at once: each weight (or gradient)
// row is then read once per block instead of once per row, which is what
// bounds their speed. Every sum still runs in the one-row order.
constexpr int kAffineRowBlock = 4;

// in_diff rows first..first+kRows = out_diff rows * W.
template <int kRows>
void AffineBackwardRows(const AffineTransform& affine, const MatrixBase& out_diff, int first,
                        MatrixBase* in_diff) {
  const int num_in = affine.InputDim();
  const Matrix& weights = affine.Weights();
  const float* dy[kRows];
  float* dx[kRows];
  for (int k = 0; k < kRows; ++k) {
    dy[k] = out_diff.RowData(first + k);
    dx[k] = in_diff->RowData(first + k);
    std::fill(dx[k], dx[k] + num_in, 0.0f);
  }
  for (int o = 0; o < affine.OutputDim(); ++o) {
    const float* w = weights.RowData(o);
    float g[kRows];
    for (int k = 0; k < kRows; ++k) g[k] = dy[k][o];
    for (int k = 0; k < kRows; ++k) {
      float* __restrict__ out = dx[k];
      for (int i = 0; i < num_in; ++i) out[i] += g[k] * w[i];
    }
  }
}

// in_diff = out_diff * W.
void AffineBackward(const AffineTransform& affine, const MatrixBase& out_diff,
                    MatrixBase* in_diff) {
  int r = 0;
  for (; r + kAffineRowBlock <= out_diff.NumRows(); r += kAffineRowBlock) {
    AffineBackwardRows<kAffineRowBlock>(affine, out_diff, r, in_diff);
  }
  for (; r < out_diff.NumRows(); ++r) AffineBackwardRows<1>(affine, out_diff, r, in_diff);
}

void RescaleBackward(const Rescale& rescale, const MatrixBase& out_diff, MatrixBase* in_diff) {
  const int cols = out_diff.NumCols();
  const float* scale = rescale.Scale().Data();
  for (int r = 0; r < out_diff.NumRows(); ++r) {
    const float* dy = out_diff.RowData(r);
    float* dx = in_diff->RowData(r);
    for (int c = 0; c < cols; ++c) dx[c] = dy[c] * scale[c];
  }
}

// The gradient of outputs [first, end) from rows row..row+kRows, added row
// after row.
template <int kRows>
void AffineGradientRows(const AffineTransform& affine, const MatrixBase& in,
                        const MatrixBase& out_diff, int row, int first, int end,
                        float* gradient) {
  const int num_in = affine.InputDim();
  float* bias_grad = gradient + affine.OutputDim() * num_in;
  const float* x[kRows];
  const float* dy[kRows];
  for (int k = 0; k < kRows; ++k) {
    x[k] = in.RowData(row + k);
    dy[k] = out_diff.RowData(row + k);
  }
  for (int o = first; o < end; ++o) {
    float* __restrict__ gw = gradient + o * num_in;
    float g[kRows];
    for (int k = 0; k < kRows; ++k) g[k] = dy[k][o];
    for (int i = 0; i < num_in; ++i) {
      float sum = gw[i];
      for (int k = 0; k < kRows; ++k) sum += g[k] * x[k][i];
      gw[i] = sum;
    }
    for (int k = 0; k < kRows; ++k) bias_grad[o] += g[k];
  }
}

// dW += out_diff^T * in, db += column sums of out_diff, for outputs
// [first, end).
void AffineGradient(const AffineTransform& affine, const MatrixBase& in,
                    const MatrixBase& out_diff, int first, int end, float* gradient) {
  int r = 0;
  for (; r + kAffineRowBlock <= out_diff.NumRows(); r += kAffineRowBlock) {
    AffineGradientRows<kAffineRowBlock>(affine, in, out_diff, r, first, end, gradient);
  }
  for (; r < out_diff.NumRows(); ++r) {
    AffineGradientRows<1>(affine, in, out_diff, r, first, end, gradient);
  }
}

}  // namespace

void Backpropagate(const Component& component, const MatrixBase& /*in*/, const MatrixBase& out,
                   const MatrixBase& out_diff, MatrixBase* in_diff) {
  if (dynamic_cast<const Relu*>(&component)) {
    ElementwiseBackward(out, out_diff, in_diff,
                        [](float y, float dy) { return y > 0.0f ? dy : 0.0f; });
  } else if (dynamic_cast<const Sigmoid*>(&component)) {
    ElementwiseBackward(out, out_diff, in_diff,
                        [](float y, float dy) { return dy * y * (1.0f - y); });
  } else if (dynamic_cast<const Tanh*>(&component)) {
    ElementwiseBackward(out, out_diff, in_diff,
                        [](float y, float dy) { return dy * (1.0f - y * y); });
  } else if (dynamic_cast<const Softmax*>(&component)) {
    SoftmaxBackward(out, out_diff, in_diff);
  } else if (const auto* affine = dynamic_cast<const AffineTransform*>(&component)) {
    AffineBackward(*affine, out_diff, in_diff);
  } else if (dynamic_cast<const AddShift*>(&component)) {
    in_diff->CopyFromMat(out_diff);
  } else if (const auto* rescale = dynamic_cast<const Rescale*>(&component)) {
    RescaleBackward(*rescale, out_diff, in_diff);
  } else {
    KESTREL_ERR(kLogFile) << "Backpropagate: no backward pass for " << component.Token() << ".";
  }
}

void AccumulateGradient(const Component& component, const MatrixBase& in,
                        const MatrixBase& out_diff, float* gradient, int first_output,
                        int end_output) {
  const int first = first_output;
  const int end = end_output < 0 ? component.OutputDim() : end_output;
  if (const auto* affine = dynamic_cast<const AffineTransform*>(&component)) {
    AffineGradient(*affine, in, out_diff, first, end, gradient);
  } else if (dynamic_cast<const AddShift*>(&component)) {
    for (int r = 0; r < out_diff.NumRows(); ++r) {
      const float* dy = out_diff.RowData(r);
      for (int c = first; c < end; ++c) gradient[c] += dy[c];
    }
  } else if (dynamic_cast<const Rescale*>(&component)) {
    // d objective / d scale[c] = sum over rows of dy[c] * x[c].
    for (int r = 0; r < out_diff.NumRows(); ++r) {
      const float* x = in.RowData(r);
      const float* dy = out_diff.RowData(r);
      for (int c = first; c < end; ++c) gradient[c] += dy[c] * x[c];
    }
  }
}

}  // namespace kestrel
