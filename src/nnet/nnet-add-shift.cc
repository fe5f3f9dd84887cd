#include "nnet/nnet-add-shift.h"

#include <algorithm>
#include <string>

namespace kestrel {

void AddShift::ReadData(bool binary, std::istream* is) { shift_.Read(binary, is); }

void AddShift::WriteData(bool binary, std::ostream* os) const { shift_.Write(binary, os); }

std::string AddShift::CheckData() const {
  if (InputDim() != OutputDim()) {
    return "output dimension " + std::to_string(OutputDim()) + " differs from input dimension " +
           std::to_string(InputDim()) + " (they must be equal)";
  }
  if (shift_.Dim() != InputDim()) {
    return "shift vector has " + std::to_string(shift_.Dim()) + " elements, expected " +
           std::to_string(InputDim());
  }
  return "";
}

void AddShift::Propagate(const MatrixBase& in, MatrixBase* out) const {
  const int cols = in.NumCols();
  const float* shift = shift_.Data();
  for (int r = 0; r < in.NumRows(); ++r) {
    const float* x = in.RowData(r);
    float* y = out->RowData(r);
    for (int c = 0; c < cols; ++c) y[c] = x[c] + shift[c];
  }
}

void AddShift::GetParams(float* params) const {
  std::copy(shift_.Data(), shift_.Data() + shift_.Dim(), params);
}

void AddShift::SetParams(const float* params) {
  std::copy(params, params + shift_.Dim(), shift_.Data());
}

}  // namespace kestrel
