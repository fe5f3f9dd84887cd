// Piece layouts of the piecewise search: the ways a hotword's keyword is cut
// into consecutive pieces, each searched on its own over a span of frames.
// Derived from a model's hotword records (not stored in the file), by the
// detector stage when it loads a piecewise model and by tools that show them.
//
// Stateless functions; any thread.
#ifndef KESTREL_DETECT_PIECE_LAYOUTS_H_
#define KESTREL_DETECT_PIECE_LAYOUTS_H_

#include <vector>

#include "model/hotword-model.h"
#include "utils/kestrel-types.h"

namespace kestrel {

// One piece of a hotword: the units [first_unit, end_unit) of its keyword,
// searched over the span_frames frames before the current one.
struct PieceInfo {
  int32 span_frames = 0;
  int32 first_unit = 0;
  int32 end_unit = 0;
};

// True when the detector searches `model` piecewise: a model is piecewise as
// a whole or not at all, as its first hotword says.
bool IsPiecewiseModel(const HotwordModel& model);

// `num_layouts` (>= 0) layouts of a keyword of `num_units` units in
// `num_pieces` pieces: growing pieces, then equal pieces, then shrinking
// ones. With no more units than pieces every layout is one unit per piece,
// and *num_searched (the layouts the search walks) becomes 1; otherwise it
// is num_layouts. Layouts may hold pieces that are never found (see
// UniversalDetectStream::HotwordViterbiSearch); the search copes with them.
std::vector<std::vector<PieceInfo>> MakePieceLayouts(int64 num_units, int32 num_pieces,
                                                     int32 num_layouts, int32* num_searched);

}  // namespace kestrel

#endif  // KESTREL_DETECT_PIECE_LAYOUTS_H_
