#include "nnet/nnet-activation.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace kestrel {

std::string Activation::CheckData() const {
  if (InputDim() != OutputDim()) {
    return "output dimension " + std::to_string(OutputDim()) + " differs from input dimension " +
           std::to_string(InputDim()) + " (they must be equal)";
  }
  return "";
}

void Relu::Propagate(const MatrixBase& in, MatrixBase* out) const {
  const int cols = in.NumCols();
  for (int r = 0; r < in.NumRows(); ++r) {
    const float* x = in.RowData(r);
    float* y = out->RowData(r);
    for (int c = 0; c < cols; ++c) y[c] = x[c] > 0.0f ? x[c] : 0.0f;
  }
}

void Relu::Backpropagate(const MatrixBase& /*in*/, const MatrixBase& out,
                         const MatrixBase& out_diff, MatrixBase* in_diff) const {
  const int cols = out.NumCols();
  for (int r = 0; r < out.NumRows(); ++r) {
    const float* y = out.RowData(r);
    const float* dy = out_diff.RowData(r);
    float* dx = in_diff->RowData(r);
    for (int c = 0; c < cols; ++c) dx[c] = y[c] > 0.0f ? dy[c] : 0.0f;
  }
}

void Sigmoid::Propagate(const MatrixBase& in, MatrixBase* out) const {
  const int cols = in.NumCols();
  for (int r = 0; r < in.NumRows(); ++r) {
    const float* x = in.RowData(r);
    float* y = out->RowData(r);
    for (int c = 0; c < cols; ++c) y[c] = 1.0f / (1.0f + std::exp(-x[c]));
  }
}

// dx = dy * y * (1 - y).
void Sigmoid::Backpropagate(const MatrixBase& /*in*/, const MatrixBase& out,
                            const MatrixBase& out_diff, MatrixBase* in_diff) const {
  const int cols = out.NumCols();
  for (int r = 0; r < out.NumRows(); ++r) {
    const float* y = out.RowData(r);
    const float* dy = out_diff.RowData(r);
    float* dx = in_diff->RowData(r);
    for (int c = 0; c < cols; ++c) dx[c] = dy[c] * y[c] * (1.0f - y[c]);
  }
}

void Tanh::Propagate(const MatrixBase& in, MatrixBase* out) const {
  const int cols = in.NumCols();
  for (int r = 0; r < in.NumRows(); ++r) {
    const float* x = in.RowData(r);
    float* y = out->RowData(r);
    for (int c = 0; c < cols; ++c) y[c] = std::tanh(x[c]);
  }
}

// dx = dy * (1 - y^2).
void Tanh::Backpropagate(const MatrixBase& /*in*/, const MatrixBase& out,
                         const MatrixBase& out_diff, MatrixBase* in_diff) const {
  const int cols = out.NumCols();
  for (int r = 0; r < out.NumRows(); ++r) {
    const float* y = out.RowData(r);
    const float* dy = out_diff.RowData(r);
    float* dx = in_diff->RowData(r);
    for (int c = 0; c < cols; ++c) dx[c] = dy[c] * (1.0f - y[c] * y[c]);
  }
}

void Softmax::Propagate(const MatrixBase& in, MatrixBase* out) const {
  const int cols = in.NumCols();
  for (int r = 0; r < in.NumRows(); ++r) {
    const float* x = in.RowData(r);
    float* y = out->RowData(r);
    float max = x[0];
    for (int c = 1; c < cols; ++c) max = std::max(max, x[c]);
    float sum = 0.0f;
    for (int c = 0; c < cols; ++c) {
      y[c] = std::exp(x[c] - max);
      sum += y[c];
    }
    const float inv = 1.0f / sum;
    for (int c = 0; c < cols; ++c) y[c] *= inv;
  }
}

// dx = y * (dy - <dy, y>), the softmax Jacobian applied row by row.
void Softmax::Backpropagate(const MatrixBase& /*in*/, const MatrixBase& out,
                            const MatrixBase& out_diff, MatrixBase* in_diff) const {
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

}  // namespace kestrel
