#include "nnet/nnet-affine-transform.h"

#include <algorithm>
#include <string>

#include "utils/kestrel-log.h"

namespace kestrel {

AffineTransform::AffineTransform(const MatrixBase& weights, const VectorBase& bias)
    : Component(weights.NumCols(), weights.NumRows()), weights_(weights) {
  if (bias.Dim() != weights.NumRows()) {
    KESTREL_ERR("nnet-affine-transform")
        << "AffineTransform: bias has " << bias.Dim() << " elements, expected "
        << weights.NumRows() << " (one per output).";
  }
  bias_.Resize(bias.Dim(), kUndefined);
  std::copy(bias.Data(), bias.Data() + bias.Dim(), bias_.Data());
  packed_.Pack(weights_, bias_);
}

void AffineTransform::ReadData(bool binary, std::istream* is) {
  weights_.Read(binary, is);
  bias_.Read(binary, is);
  if (CheckData().empty()) packed_.Pack(weights_, bias_);
}

void AffineTransform::WriteData(bool binary, std::ostream* os) const {
  weights_.Write(binary, os);
  bias_.Write(binary, os);
}

std::string AffineTransform::CheckData() const {
  if (weights_.NumRows() != OutputDim() || weights_.NumCols() != InputDim()) {
    return "weight matrix is " + std::to_string(weights_.NumRows()) + " x " +
           std::to_string(weights_.NumCols()) + ", expected " + std::to_string(OutputDim()) +
           " x " + std::to_string(InputDim()) + " (output x input)";
  }
  if (bias_.Dim() != OutputDim()) {
    return "bias vector has " + std::to_string(bias_.Dim()) + " elements, expected " +
           std::to_string(OutputDim());
  }
  return "";
}

void AffineTransform::Propagate(const MatrixBase& in, MatrixBase* out) const {
  AffineForward(in, packed_, out);
}

void AffineTransform::Backpropagate(const MatrixBase& /*in*/, const MatrixBase& /*out*/,
                                    const MatrixBase& out_diff, MatrixBase* in_diff) const {
  const int num_in = InputDim();
  for (int r = 0; r < out_diff.NumRows(); ++r) {
    const float* dy = out_diff.RowData(r);
    float* dx = in_diff->RowData(r);
    std::fill(dx, dx + num_in, 0.0f);
    for (int o = 0; o < OutputDim(); ++o) {
      const float* w = weights_.RowData(o);
      const float g = dy[o];
      for (int i = 0; i < num_in; ++i) dx[i] += g * w[i];
    }
  }
}

int AffineTransform::NumParams() const { return OutputDim() * InputDim() + OutputDim(); }

void AffineTransform::GetParams(float* params) const {
  for (int o = 0; o < OutputDim(); ++o) {
    params = std::copy(weights_.RowData(o), weights_.RowData(o) + InputDim(), params);
  }
  std::copy(bias_.Data(), bias_.Data() + OutputDim(), params);
}

void AffineTransform::SetParams(const float* params) {
  for (int o = 0; o < OutputDim(); ++o, params += InputDim()) {
    std::copy(params, params + InputDim(), weights_.RowData(o));
  }
  std::copy(params, params + OutputDim(), bias_.Data());
  packed_.Pack(weights_, bias_);
}

// dW += out_diff^T * in, db += column sums of out_diff.
void AffineTransform::AccumulateGradient(const MatrixBase& in, const MatrixBase& out_diff,
                                         float* gradient) const {
  const int num_in = InputDim();
  float* bias_grad = gradient + OutputDim() * num_in;
  for (int r = 0; r < out_diff.NumRows(); ++r) {
    const float* x = in.RowData(r);
    const float* dy = out_diff.RowData(r);
    for (int o = 0; o < OutputDim(); ++o) {
      float* gw = gradient + o * num_in;
      const float g = dy[o];
      for (int i = 0; i < num_in; ++i) gw[i] += g * x[i];
      bias_grad[o] += g;
    }
  }
}

}  // namespace kestrel
