// The record that travels beside each row of a feature or posterior matrix
// between stream stages. A small value type, copied whole.
#ifndef KESTREL_NNET_FRAME_INFO_H_
#define KESTREL_NNET_FRAME_INFO_H_

#include "utils/kestrel-types.h"

namespace kestrel {

struct FrameInfo {
  // Counts frames from 0 since the stream began (10 ms apart in the front
  // end). Stages downstream compare these ids to measure distances in time.
  int32 frame_id = 0;
};

}  // namespace kestrel

#endif  // KESTREL_NNET_FRAME_INFO_H_
