// The layout of a network component as one line of text.
//
// Networks that are trained on from one another, or averaged, must match
// component by component; comparing these lines is that check, and the line
// of the first mismatch is what the error names. Plain function; any thread.
#ifndef KESTREL_TRAINING_TRAINER_COMPONENT_LAYOUT_H_
#define KESTREL_TRAINING_TRAINER_COMPONENT_LAYOUT_H_

#include <string>

#include "nnet/nnet-component.h"

namespace kestrel {

// Its token, dimensions and, for a splice, its offsets:
// "<Splice> 6 x 2 at -2 0 1". Weights do not enter it.
std::string ComponentLayout(const Component& c);

}  // namespace kestrel

#endif  // KESTREL_TRAINING_TRAINER_COMPONENT_LAYOUT_H_
