#include "nnet/nnet-activation.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace kestrel {

std::string Activation::CheckData() const { return SameDimensionsProblem(); }

void Relu::Propagate(const MatrixBase& in, MatrixBase* out) const {
  const int cols = in.NumCols();
  for (int r = 0; r < in.NumRows(); ++r) {
    const float* x = in.RowData(r);
    float* y = out->RowData(r);
    for (int c = 0; c < cols; ++c) y[c] = x[c] > 0.0f ? x[c] : 0.0f;
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

void Tanh::Propagate(const MatrixBase& in, MatrixBase* out) const {
  const int cols = in.NumCols();
  for (int r = 0; r < in.NumRows(); ++r) {
    const float* x = in.RowData(r);
    float* y = out->RowData(r);
    for (int c = 0; c < cols; ++c) y[c] = std::tanh(x[c]);
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

}  // namespace kestrel
