// <AddShift>: adds a fixed vector to every row (typically minus the feature
// mean, ahead of <Rescale>). Parameters: the shift, a float vector of the
// input dimension.
#ifndef KESTREL_NNET_NNET_ADD_SHIFT_H_
#define KESTREL_NNET_NNET_ADD_SHIFT_H_

#include <memory>

#include "nnet/nnet-vector-component.h"
#include "utils/kestrel-matrix.h"

namespace kestrel {

class AddShift : public VectorComponent {
 public:
  AddShift(int input_dim, int output_dim) : VectorComponent(input_dim, output_dim, "shift") {}
  explicit AddShift(const Vector& shift) : VectorComponent(shift, "shift") {}

  const char* Token() const override { return "<AddShift>"; }
  std::unique_ptr<Component> Copy() const override { return std::make_unique<AddShift>(*this); }
  const Vector& Shift() const { return Values(); }

  void Propagate(const MatrixBase& in, MatrixBase* out) const override;
};

}  // namespace kestrel

#endif  // KESTREL_NNET_NNET_ADD_SHIFT_H_
