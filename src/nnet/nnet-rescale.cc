#include "nnet/nnet-rescale.h"

namespace kestrel {

void Rescale::Propagate(const MatrixBase& in, MatrixBase* out) const {
  const int cols = in.NumCols();
  const float* scale = Values().Data();
  for (int r = 0; r < in.NumRows(); ++r) {
    const float* x = in.RowData(r);
    float* y = out->RowData(r);
    for (int c = 0; c < cols; ++c) y[c] = x[c] * scale[c];
  }
}

}  // namespace kestrel
