#include "nnet/nnet-rescale.h"

#include <algorithm>
#include <string>

namespace kestrel {

void Rescale::ReadData(bool binary, std::istream* is) { scale_.Read(binary, is); }

void Rescale::WriteData(bool binary, std::ostream* os) const { scale_.Write(binary, os); }

std::string Rescale::CheckData() const {
  if (InputDim() != OutputDim()) {
    return "output dimension " + std::to_string(OutputDim()) + " differs from input dimension " +
           std::to_string(InputDim()) + " (they must be equal)";
  }
  if (scale_.Dim() != InputDim()) {
    return "scale vector has " + std::to_string(scale_.Dim()) + " elements, expected " +
           std::to_string(InputDim());
  }
  return "";
}

void Rescale::Propagate(const MatrixBase& in, MatrixBase* out) const {
  const int cols = in.NumCols();
  const float* scale = scale_.Data();
  for (int r = 0; r < in.NumRows(); ++r) {
    const float* x = in.RowData(r);
    float* y = out->RowData(r);
    for (int c = 0; c < cols; ++c) y[c] = x[c] * scale[c];
  }
}

void Rescale::GetParams(float* params) const {
  std::copy(scale_.Data(), scale_.Data() + scale_.Dim(), params);
}

void Rescale::SetParams(const float* params) {
  std::copy(params, params + scale_.Dim(), scale_.Data());
}

}  // namespace kestrel
