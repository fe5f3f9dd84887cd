// VectorComponent: what <AddShift> and <Rescale> share, a component whose one
// parameter is a float vector as long as its input (and equal output)
// dimension. Each kind adds its token and its forward pass.
#ifndef KESTREL_NNET_NNET_VECTOR_COMPONENT_H_
#define KESTREL_NNET_NNET_VECTOR_COMPONENT_H_

#include <string>

#include "nnet/nnet-component.h"
#include "utils/kestrel-matrix.h"

namespace kestrel {

class VectorComponent : public Component {
 public:
  // Parameters: the vector.
  int NumParams() const override { return values_.Dim(); }
  void GetParams(float* params) const override;
  void SetParams(const float* params) override;

 protected:
  // `what` names the vector in error messages ("shift", "scale").
  VectorComponent(int input_dim, int output_dim, const char* what)
      : Component(input_dim, output_dim), what_(what) {}
  VectorComponent(const Vector& values, const char* what)
      : Component(values.Dim(), values.Dim()), what_(what), values_(values) {}

  const Vector& Values() const { return values_; }

  void ReadData(bool binary, std::istream* is) override;
  void WriteData(bool binary, std::ostream* os) const override;
  std::string CheckData() const override;

 private:
  const char* what_;
  Vector values_;
};

}  // namespace kestrel

#endif  // KESTREL_NNET_NNET_VECTOR_COMPONENT_H_
