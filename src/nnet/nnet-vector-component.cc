#include "nnet/nnet-vector-component.h"

#include <algorithm>

namespace kestrel {

void VectorComponent::GetParams(float* params) const {
  std::copy(values_.Data(), values_.Data() + values_.Dim(), params);
}

void VectorComponent::SetParams(const float* params) {
  std::copy(params, params + values_.Dim(), values_.Data());
}

void VectorComponent::ReadData(bool binary, std::istream* is) { values_.Read(binary, is); }

void VectorComponent::WriteData(bool binary, std::ostream* os) const {
  values_.Write(binary, os);
}

std::string VectorComponent::CheckData() const {
  const std::string dims = SameDimensionsProblem();
  if (!dims.empty()) return dims;
  if (values_.Dim() != InputDim()) {
    return std::string(what_) + " vector has " + std::to_string(values_.Dim()) +
           " elements, expected " + std::to_string(InputDim());
  }
  return "";
}

}  // namespace kestrel
