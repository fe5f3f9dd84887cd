// Elementwise and per-row nonlinearities: <Relu>, <Sigmoid>, <Tanh> and
// <Softmax>. They have no parameters; input and output dimensions are equal.
#ifndef KESTREL_NNET_NNET_ACTIVATION_H_
#define KESTREL_NNET_NNET_ACTIVATION_H_

#include <memory>
#include <string>

#include "nnet/nnet-component.h"
#include "utils/kestrel-export.h"

KESTREL_PUBLIC_BEGIN

namespace kestrel {

// Checks shared by the activations: equal, positive dimensions.
class Activation : public Component {
 protected:
  explicit Activation(int dim) : Component(dim, dim) {}
  Activation(int input_dim, int output_dim) : Component(input_dim, output_dim) {}
  std::string CheckData() const override;
};

// max(x, 0).
class Relu : public Activation {
 public:
  explicit Relu(int dim) : Activation(dim) {}
  Relu(int input_dim, int output_dim) : Activation(input_dim, output_dim) {}
  const char* Token() const override { return "<Relu>"; }
  std::unique_ptr<Component> Copy() const override { return std::make_unique<Relu>(*this); }
  void Propagate(const MatrixBase& in, MatrixBase* out) const override;
};

// 1 / (1 + exp(-x)).
class Sigmoid : public Activation {
 public:
  explicit Sigmoid(int dim) : Activation(dim) {}
  Sigmoid(int input_dim, int output_dim) : Activation(input_dim, output_dim) {}
  const char* Token() const override { return "<Sigmoid>"; }
  std::unique_ptr<Component> Copy() const override { return std::make_unique<Sigmoid>(*this); }
  void Propagate(const MatrixBase& in, MatrixBase* out) const override;
};

class Tanh : public Activation {
 public:
  explicit Tanh(int dim) : Activation(dim) {}
  Tanh(int input_dim, int output_dim) : Activation(input_dim, output_dim) {}
  const char* Token() const override { return "<Tanh>"; }
  std::unique_ptr<Component> Copy() const override { return std::make_unique<Tanh>(*this); }
  void Propagate(const MatrixBase& in, MatrixBase* out) const override;
};

// Each row becomes exp(x - max) / sum(exp(x - max)): posteriors summing to 1.
class Softmax : public Activation {
 public:
  explicit Softmax(int dim) : Activation(dim) {}
  Softmax(int input_dim, int output_dim) : Activation(input_dim, output_dim) {}
  const char* Token() const override { return "<Softmax>"; }
  std::unique_ptr<Component> Copy() const override { return std::make_unique<Softmax>(*this); }
  void Propagate(const MatrixBase& in, MatrixBase* out) const override;
};

}  // namespace kestrel

KESTREL_PUBLIC_END

#endif  // KESTREL_NNET_NNET_ACTIVATION_H_
