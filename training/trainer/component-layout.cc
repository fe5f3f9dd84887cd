#include "component-layout.h"

#include <sstream>

#include "nnet/nnet-splice.h"

namespace kestrel {

std::string ComponentLayout(const Component& c) {
  std::ostringstream text;
  text << c.Token() << " " << c.OutputDim() << " x " << c.InputDim();
  if (const auto* splice = dynamic_cast<const Splice*>(&c)) {
    text << " at";
    for (int32 offset : splice->Offsets()) text << " " << offset;
  }
  return text.str();
}

}  // namespace kestrel
