// <AffineTransform>: out = in * W^T + b, the only layer with many parameters
// and so where the network spends its time. Parameters: the weights W, a
// float matrix of output x input, then the bias b, a float vector of the
// output dimension.
//
// Owns W and b and a copy of them packed for the kernel (nnet-kernel.h),
// which every change of parameters repacks.
#ifndef KESTREL_NNET_NNET_AFFINE_TRANSFORM_H_
#define KESTREL_NNET_NNET_AFFINE_TRANSFORM_H_

#include <memory>
#include <string>

#include "nnet/nnet-component.h"
#include "nnet/nnet-kernel.h"
#include "utils/kestrel-matrix.h"
#include "utils/kestrel-export.h"

KESTREL_PUBLIC_BEGIN

namespace kestrel {

class AffineTransform : public Component {
 public:
  AffineTransform(int input_dim, int output_dim) : Component(input_dim, output_dim) {}
  // weights: output x input; bias: output elements.
  AffineTransform(const MatrixBase& weights, const VectorBase& bias);

  const char* Token() const override { return "<AffineTransform>"; }
  std::unique_ptr<Component> Copy() const override {
    return std::make_unique<AffineTransform>(*this);
  }
  const Matrix& Weights() const { return weights_; }
  const Vector& Bias() const { return bias_; }

  void Propagate(const MatrixBase& in, MatrixBase* out) const override;

  // Parameters: W row by row, then b.
  int NumParams() const override;
  void GetParams(float* params) const override;
  void SetParams(const float* params) override;

 protected:
  void ReadData(bool binary, std::istream* is) override;
  void WriteData(bool binary, std::ostream* os) const override;
  std::string CheckData() const override;

 private:
  Matrix weights_;
  Vector bias_;
  PackedAffineWeights packed_;
};

}  // namespace kestrel

KESTREL_PUBLIC_END

#endif  // KESTREL_NNET_NNET_AFFINE_TRANSFORM_H_
