#include "nnet/nnet-splice.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "utils/kestrel-io.h"
#include "utils/kestrel-log.h"

namespace kestrel {

Splice::Splice(int input_dim, const std::vector<int32>& offsets)
    : Component(input_dim, input_dim * static_cast<int>(offsets.size())), offsets_(offsets) {
  if (offsets.empty()) {
    KESTREL_ERR("nnet-splice") << "Splice: the list of offsets is empty.";
  }
}

int Splice::LeftContext() const {
  int32 min = 0;
  for (int32 o : offsets_) min = std::min(min, o);
  return -min;
}

int Splice::RightContext() const {
  int32 max = 0;
  for (int32 o : offsets_) max = std::max(max, o);
  return max;
}

void Splice::ReadData(bool binary, std::istream* is) { ReadIntegerVector(binary, &offsets_, is); }

void Splice::WriteData(bool binary, std::ostream* os) const {
  WriteIntegerVector(binary, offsets_, os);
}

std::string Splice::CheckData() const {
  if (offsets_.empty()) return "the list of offsets is empty";
  // Offsets beyond a day of frames can only come from a corrupted file; they
  // would overflow the frame arithmetic.
  const int32 kMaxOffset = 1 << 24;
  for (int32 o : offsets_) {
    if (o > kMaxOffset || o < -kMaxOffset) {
      return "offset " + std::to_string(o) + " is out of range";
    }
  }
  const int64 expected = static_cast<int64>(InputDim()) * static_cast<int64>(offsets_.size());
  if (expected != OutputDim()) {
    return "output dimension " + std::to_string(OutputDim()) + " is not the input dimension " +
           std::to_string(InputDim()) + " times the " + std::to_string(offsets_.size()) +
           " offsets (" + std::to_string(expected) + ")";
  }
  return "";
}

void Splice::SpliceFrame(const MatrixBase& frames, int64 first_frame, int64 last_frame, int64 t,
                         MatrixBase* out, int out_row) const {
  const int dim = InputDim();
  float* dest = out->RowData(out_row);
  for (size_t j = 0; j < offsets_.size(); ++j) {
    const int64 f = std::clamp<int64>(t + offsets_[j], 0, last_frame);
    std::memcpy(dest + j * dim, frames.RowData(static_cast<int>(f - first_frame)),
                sizeof(float) * dim);
  }
}

void Splice::Propagate(const MatrixBase& in, MatrixBase* out) const {
  const int64 last = in.NumRows() - 1;
  for (int t = 0; t < in.NumRows(); ++t) SpliceFrame(in, 0, last, t, out, t);
}

void SpliceHistory::Feed(const Splice& splice, const MatrixBase& in, bool flush, Matrix* out) {
  const int dim = splice.InputDim();
  const int left = splice.LeftContext();
  const int right = splice.RightContext();

  // Append the batch, growing the buffer only when it is too small.
  const int needed = num_kept_ + in.NumRows();
  if (needed > frames_.NumRows()) {
    Matrix grown(std::max(needed, 2 * frames_.NumRows()), dim, kUndefined);
    for (int r = 0; r < num_kept_; ++r) {
      std::memcpy(grown.RowData(r), frames_.RowData(r), sizeof(float) * dim);
    }
    frames_ = std::move(grown);
  }
  for (int r = 0; r < in.NumRows(); ++r) {
    std::memcpy(frames_.RowData(num_kept_ + r), in.RowData(r), sizeof(float) * dim);
  }
  num_kept_ = needed;
  num_seen_ += in.NumRows();

  // A frame is ready once the frame `right` after it has arrived.
  const int64 end = flush ? num_seen_ : std::max(num_emitted_, num_seen_ - right);
  out->Resize(static_cast<int>(end - num_emitted_), splice.OutputDim(), kUndefined);
  for (int64 t = num_emitted_; t < end; ++t) {
    splice.SpliceFrame(frames_, first_kept_, num_seen_ - 1, t, out,
                       static_cast<int>(t - num_emitted_));
  }
  num_emitted_ = end;

  if (flush) {
    Reset();
    return;
  }
  // Keep only what later frames can reach: `left` frames before the next one
  // to emit (frame 0 stays while the start of the stream is within reach).
  const int64 keep_from = std::max<int64>(0, num_emitted_ - left);
  const int drop = static_cast<int>(keep_from - first_kept_);
  if (drop > 0) {
    for (int r = drop; r < num_kept_; ++r) {
      std::memcpy(frames_.RowData(r - drop), frames_.RowData(r), sizeof(float) * dim);
    }
    num_kept_ -= drop;
    first_kept_ = keep_from;
  }
}

void SpliceHistory::Reset() {
  num_kept_ = 0;
  first_kept_ = 0;
  num_seen_ = 0;
  num_emitted_ = 0;
}

}  // namespace kestrel
