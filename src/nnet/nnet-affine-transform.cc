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

}  // namespace kestrel
