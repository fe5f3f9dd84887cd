#include "nnet/nnet-add-shift.h"

namespace kestrel {

void AddShift::Propagate(const MatrixBase& in, MatrixBase* out) const {
  const int cols = in.NumCols();
  const float* shift = Values().Data();
  for (int r = 0; r < in.NumRows(); ++r) {
    const float* x = in.RowData(r);
    float* y = out->RowData(r);
    for (int c = 0; c < cols; ++c) y[c] = x[c] + shift[c];
  }
}

}  // namespace kestrel
