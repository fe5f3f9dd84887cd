// <Rescale>: multiplies every row elementwise by a fixed vector (typically
// the inverse feature deviation, after <AddShift>). Parameters: the scale, a
// float vector of the input dimension.
#ifndef KESTREL_NNET_NNET_RESCALE_H_
#define KESTREL_NNET_NNET_RESCALE_H_

#include <memory>

#include "nnet/nnet-vector-component.h"
#include "utils/kestrel-matrix.h"

namespace kestrel {

class Rescale : public VectorComponent {
 public:
  Rescale(int input_dim, int output_dim) : VectorComponent(input_dim, output_dim, "scale") {}
  explicit Rescale(const Vector& scale) : VectorComponent(scale, "scale") {}

  const char* Token() const override { return "<Rescale>"; }
  std::unique_ptr<Component> Copy() const override { return std::make_unique<Rescale>(*this); }
  const Vector& Scale() const { return Values(); }

  void Propagate(const MatrixBase& in, MatrixBase* out) const override;
};

}  // namespace kestrel

#endif  // KESTREL_NNET_NNET_RESCALE_H_
