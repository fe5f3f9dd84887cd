// Component: one layer of an Nnet.
//
// A component maps rows of InputDim() columns to rows of OutputDim() columns.
// Its file section is its token, its output dimension and its input
// dimension (int32 each), then its parameters, if any:
//
//   <AffineTransform> 128 440 [ weights, output x input ] [ biases ]
//
// Before the parameters the nnet1 training tokens <LearnRateCoef>,
// <BiasLearnRateCoef> and <MaxNorm>, each with a float, are accepted and
// ignored, and a trailing <!EndOfComponent> is skipped, so that files of
// Kaldi's nnet1 tools load as they are. Writing never emits them.
//
// Every kind keeps its data methods (ReadData/WriteData) and its forward pass
// side by side in its own file; backward passes belong to training (the
// trainer library), which reads the parameters through each kind's
// accessors. Propagate treats the rows of a matrix as consecutive frames of
// one utterance; only Splice looks across rows (streaming Splice input is
// handled by the Nnet).
//
// Components are immutable during Propagate, so one component may serve
// several threads at once; changing parameters needs exclusive access.
#ifndef KESTREL_NNET_NNET_COMPONENT_H_
#define KESTREL_NNET_NNET_COMPONENT_H_

#include <istream>
#include <memory>
#include <ostream>
#include <string>

#include "utils/kestrel-matrix.h"

namespace kestrel {

class Component {
 public:
  virtual ~Component() = default;

  // The token that opens this component's section, e.g. "<AffineTransform>".
  virtual const char* Token() const = 0;
  virtual std::unique_ptr<Component> Copy() const = 0;

  int InputDim() const { return input_dim_; }
  int OutputDim() const { return output_dim_; }

  // Reads one component section. `position` (counting from 1) only labels
  // error messages, which name it, the token and what was wrong.
  static std::unique_ptr<Component> Read(bool binary, std::istream* is, int position);
  void Write(bool binary, std::ostream* os) const;

  // out (in.NumRows() x OutputDim(), sized by the caller) = f(in).
  virtual void Propagate(const MatrixBase& in, MatrixBase* out) const = 0;

  // Parameters as one flat array (empty for most kinds). The layout is the
  // kind's own but fixed, so optimisers can work on flat arrays.
  virtual int NumParams() const { return 0; }
  virtual void GetParams(float* /*params*/) const {}
  virtual void SetParams(const float* /*params*/) {}

 protected:
  Component(int input_dim, int output_dim) : input_dim_(input_dim), output_dim_(output_dim) {}
  Component(const Component&) = default;
  Component& operator=(const Component&) = default;

  // The CheckData phrase for kinds whose dimensions must be equal, or "".
  std::string SameDimensionsProblem() const;

  // Reads and writes the parameters that follow the dimensions.
  virtual void ReadData(bool /*binary*/, std::istream* /*is*/) {}
  virtual void WriteData(bool /*binary*/, std::ostream* /*os*/) const {}
  // After ReadData: what is wrong with the dimensions or parameters, as a
  // phrase for an error message, or "" when they agree. Kept apart from
  // ReadData so that Read can report it once, with the component's position.
  virtual std::string CheckData() const = 0;

 private:
  int input_dim_;
  int output_dim_;
};

}  // namespace kestrel

#endif  // KESTREL_NNET_NNET_COMPONENT_H_
