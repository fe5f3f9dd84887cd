// <AddShift>: adds a fixed vector to every row (typically minus the feature
// mean, ahead of <Rescale>). Parameters: the shift, a float vector of the
// input dimension.
#ifndef KESTREL_NNET_NNET_ADD_SHIFT_H_
#define KESTREL_NNET_NNET_ADD_SHIFT_H_

#include <memory>
#include <string>

#include "nnet/nnet-component.h"
#include "utils/kestrel-matrix.h"

namespace kestrel {

class AddShift : public Component {
 public:
  AddShift(int input_dim, int output_dim) : Component(input_dim, output_dim) {}
  explicit AddShift(const Vector& shift)
      : Component(shift.Dim(), shift.Dim()), shift_(shift) {}

  const char* Token() const override { return "<AddShift>"; }
  std::unique_ptr<Component> Copy() const override { return std::make_unique<AddShift>(*this); }
  const Vector& Shift() const { return shift_; }

  void Propagate(const MatrixBase& in, MatrixBase* out) const override;

  // Parameters: the shift.
  int NumParams() const override { return shift_.Dim(); }
  void GetParams(float* params) const override;
  void SetParams(const float* params) override;

 protected:
  void ReadData(bool binary, std::istream* is) override;
  void WriteData(bool binary, std::ostream* os) const override;
  std::string CheckData() const override;

 private:
  Vector shift_;
};

}  // namespace kestrel

#endif  // KESTREL_NNET_NNET_ADD_SHIFT_H_
