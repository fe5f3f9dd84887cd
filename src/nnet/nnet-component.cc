#include "nnet/nnet-component.h"

#include <functional>
#include <string>

#include "nnet/nnet-activation.h"
#include "nnet/nnet-add-shift.h"
#include "nnet/nnet-affine-transform.h"
#include "nnet/nnet-rescale.h"
#include "nnet/nnet-splice.h"
#include "utils/kestrel-io.h"
#include "utils/kestrel-log.h"

namespace kestrel {

namespace {

const char kLogFile[] = "nnet-component";

struct Kind {
  const char* token;
  std::function<std::unique_ptr<Component>(int input_dim, int output_dim)> make;
};

template <class C>
Kind KindOf(const char* token) {
  return {token, [](int in, int out) { return std::make_unique<C>(in, out); }};
}

const Kind* FindKind(const std::string& token) {
  static const Kind kinds[] = {
      KindOf<Splice>("<Splice>"),     KindOf<AddShift>("<AddShift>"),
      KindOf<Rescale>("<Rescale>"),   KindOf<AffineTransform>("<AffineTransform>"),
      KindOf<Relu>("<Relu>"),         KindOf<Sigmoid>("<Sigmoid>"),
      KindOf<Tanh>("<Tanh>"),         KindOf<Softmax>("<Softmax>"),
  };
  for (const Kind& kind : kinds) {
    if (token == kind.token) return &kind;
  }
  return nullptr;
}

// Skips the nnet1 training tokens that may precede the parameters.
void SkipTrainingTokens(bool binary, std::istream* is, const std::string& where) {
  while (true) {
    const int c = PeekToken(binary, is);
    if (c != 'L' && c != 'B' && c != 'M') return;
    std::string token;
    ReadToken(binary, &token, is);
    if (token != "<LearnRateCoef>" && token != "<BiasLearnRateCoef>" && token != "<MaxNorm>") {
      KESTREL_ERR(kLogFile) << where << "unexpected token \"" << token
                            << "\" before the parameters (expected <LearnRateCoef>, "
                            << "<BiasLearnRateCoef>, <MaxNorm> or the parameters).";
    }
    float ignored = 0.0f;
    ReadBasicType(binary, &ignored, is);
  }
}

}  // namespace

std::unique_ptr<Component> Component::Read(bool binary, std::istream* is, int position) {
  std::string token;
  ReadToken(binary, &token, is);
  const std::string where = "Nnet: component " + std::to_string(position) + " " + token + ": ";
  const Kind* kind = FindKind(token);
  if (kind == nullptr) {
    KESTREL_ERR(kLogFile) << "Nnet: component " << position << ": unknown component token \""
                          << token << "\" (expected <Splice>, <AddShift>, <Rescale>, "
                          << "<AffineTransform>, <Relu>, <Sigmoid>, <Tanh> or <Softmax>).";
  }
  std::unique_ptr<Component> component;
  try {
    int32 output_dim = 0, input_dim = 0;
    ReadBasicType(binary, &output_dim, is);
    ReadBasicType(binary, &input_dim, is);
    if (output_dim <= 0 || input_dim <= 0) {
      KESTREL_ERR(kLogFile) << where << "dimensions must be positive, got output "
                            << output_dim << " and input " << input_dim << ".";
    }
    component = kind->make(input_dim, output_dim);
    SkipTrainingTokens(binary, is, where);
    component->ReadData(binary, is);
    if (PeekToken(binary, is) == '!') ExpectToken(binary, "<!EndOfComponent>", is);
  } catch (const KestrelError& e) {
    // Low-level readers do not know which component they were reading.
    const std::string text = e.what();
    if (text.compare(0, where.size(), where) == 0) throw;
    KESTREL_ERR(kLogFile) << where << text;
  }
  const std::string problem = component->CheckData();
  if (!problem.empty()) KESTREL_ERR(kLogFile) << where << problem << ".";
  return component;
}

void Component::Write(bool binary, std::ostream* os) const {
  WriteToken(binary, Token(), os);
  WriteBasicType<int32>(binary, output_dim_, os);
  WriteBasicType<int32>(binary, input_dim_, os);
  if (!binary) *os << "\n";  // parameters start a line; their writers end it
  WriteData(binary, os);
}

std::string Component::SameDimensionsProblem() const {
  if (InputDim() != OutputDim()) {
    return "output dimension " + std::to_string(OutputDim()) + " differs from input dimension " +
           std::to_string(InputDim()) + " (they must be equal)";
  }
  return "";
}

}  // namespace kestrel
