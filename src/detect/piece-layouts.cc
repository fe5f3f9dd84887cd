#include "detect/piece-layouts.h"

#include <cmath>

namespace kestrel {

namespace {

// Frames per unit of a piece's search span.
const int32 kFramesPerPieceUnit = 10;

}  // namespace

bool IsPiecewiseModel(const HotwordModel& model) {
  return !model.hotwords.empty() && model.hotwords[0].search_method == kPiecewiseSearch;
}

std::vector<std::vector<PieceInfo>> MakePieceLayouts(int64 num_units, int32 num_pieces,
                                                     int32 num_layouts, int32* num_searched) {
  std::vector<std::vector<PieceInfo>> layouts(num_layouts);
  *num_searched = num_layouts;
  if (num_units <= num_pieces) {
    // No more units than pieces: one unit per piece, and one layout is
    // enough since all would be alike.
    for (std::vector<PieceInfo>& layout : layouts) {
      for (int32 i = 0; i < num_units; ++i) layout.push_back(PieceInfo{1, i, i + 1});
    }
    *num_searched = 1;
    return layouts;
  }
  if (num_pieces <= 0) return layouts;

  const int32 units = static_cast<int32>(num_units);
  // Equal pieces of `equal` units; growing and shrinking pieces in steps of
  // `step` units (P pieces of step, 2 step, ..., P step fill at most L).
  int32 equal = static_cast<int32>(
      std::ceil(static_cast<float>(units) / static_cast<float>(num_pieces)));
  const int64 triangle = static_cast<int64>(num_pieces) * (num_pieces + 1);
  int32 step = static_cast<int32>(
      std::floor(static_cast<float>(2 * num_units) / static_cast<float>(triangle)));
  if (equal == 0) equal = 1;
  if (step == 0) step = 1;

  for (int32 r = 0; r < num_layouts; ++r) {
    int32 begin = 0;
    for (int32 p = 1; p <= num_pieces; ++p) {
      int32 length = r == 0 ? p * step : r == 1 ? equal : (num_pieces - p + 1) * step;
      int32 first = begin;
      int32 end = begin + length;
      if (p == num_pieces) {
        // The last piece always ends the keyword, and is never empty when
        // it would start at the end. Earlier pieces that overshoot leave it
        // reversed (first > end); the piecewise search copes with that.
        end = units;
        if (first == units) first = units - 1;
      }
      const int32 span = r == 1 ? kFramesPerPieceUnit * equal
                                : kFramesPerPieceUnit * (end - first);
      layouts[r].push_back(PieceInfo{span, first, end});
      begin = end;
    }
  }
  return layouts;
}

}  // namespace kestrel
