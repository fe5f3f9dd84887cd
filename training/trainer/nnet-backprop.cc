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

// in_diff = out_diff * W.
void AffineBackward(const AffineTransform& affine, const MatrixBase& out_diff,
                    MatrixBase* in_diff) {
  const int num_in = affine.InputDim();
  const Matrix& weights = affine.Weights();
  for (int r = 0; r < out_diff.NumRows(); ++r) {
    const float* dy = out_diff.RowData(r);
    float* dx = in_diff->RowData(r);
    std::fill(dx, dx + num_in, 0.0f);
    for (int o = 0; o < affine.OutputDim(); ++o) {
      const float* w = weights.RowData(o);
      const float g = dy[o];
      for (int i = 0; i < num_in; ++i) dx[i] += g * w[i];
    }
  }
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

// dW += out_diff^T * in, db += column sums of out_diff, for outputs
// [first, end).
void AffineGradient(const AffineTransform& affine, const MatrixBase& in,
                    const MatrixBase& out_diff, int first, int end, float* gradient) {
  const int num_in = affine.InputDim();
  float* bias_grad = gradient + affine.OutputDim() * num_in;
  for (int r = 0; r < out_diff.NumRows(); ++r) {
    const float* x = in.RowData(r);
    const float* dy = out_diff.RowData(r);
    for (int o = first; o < end; ++o) {
      float* gw = gradient + o * num_in;
      const float g = dy[o];
      for (int i = 0; i < num_in; ++i) gw[i] += g * x[i];
      bias_grad[o] += g;
    }
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
