// <Rescale>: multiplies every row elementwise by a fixed vector (typically
// the inverse feature deviation, after <AddShift>). Parameters: the scale, a
// float vector of the input dimension.
#ifndef KESTREL_NNET_NNET_RESCALE_H_
#define KESTREL_NNET_NNET_RESCALE_H_

#include <memory>
#include <string>

#include "nnet/nnet-component.h"
#include "utils/kestrel-matrix.h"

namespace kestrel {

class Rescale : public Component {
 public:
  Rescale(int input_dim, int output_dim) : Component(input_dim, output_dim) {}
  explicit Rescale(const Vector& scale) : Component(scale.Dim(), scale.Dim()), scale_(scale) {}

  const char* Token() const override { return "<Rescale>"; }
  std::unique_ptr<Component> Copy() const override { return std::make_unique<Rescale>(*this); }
  const Vector& Scale() const { return scale_; }

  void Propagate(const MatrixBase& in, MatrixBase* out) const override;

  // Parameters: the scale.
  int NumParams() const override { return scale_.Dim(); }
  void GetParams(float* params) const override;
  void SetParams(const float* params) override;

 protected:
  void ReadData(bool binary, std::istream* is) override;
  void WriteData(bool binary, std::ostream* os) const override;
  std::string CheckData() const override;

 private:
  Vector scale_;
};

}  // namespace kestrel

#endif  // KESTREL_NNET_NNET_RESCALE_H_
