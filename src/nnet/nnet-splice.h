// <Splice>: each output row is the concatenation of the input rows at the
// given frame offsets (e.g. -10..+5), giving later layers temporal context.
// Parameters: the offsets, an integer vector, text "[ -5 -4 ... 5 ]"; the
// output dimension is the input dimension times the number of offsets.
//
// Splice is the only component that looks across rows. Propagate treats its
// input as one whole utterance, repeating the first and last rows where the
// offsets reach past either end. Streaming input goes through a
// SpliceHistory instead, which produces the same rows batch by batch.
#ifndef KESTREL_NNET_NNET_SPLICE_H_
#define KESTREL_NNET_NNET_SPLICE_H_

#include <memory>
#include <string>
#include <vector>

#include "nnet/nnet-component.h"
#include "utils/kestrel-matrix.h"
#include "utils/kestrel-types.h"
#include "utils/kestrel-export.h"

KESTREL_PUBLIC_BEGIN

namespace kestrel {

class Splice : public Component {
 public:
  Splice(int input_dim, int output_dim) : Component(input_dim, output_dim) {}
  Splice(int input_dim, const std::vector<int32>& offsets);

  const char* Token() const override { return "<Splice>"; }
  std::unique_ptr<Component> Copy() const override { return std::make_unique<Splice>(*this); }
  const std::vector<int32>& Offsets() const { return offsets_; }
  // How many frames before and after a frame its output needs (>= 0 each).
  int LeftContext() const;
  int RightContext() const;

  // Copies the rows named by the offsets into output row `out_row`: the
  // frames t + offset of `frames`, where frame f lies in row f - first_frame
  // and frames outside [0, last_frame] are clamped to those ends.
  void SpliceFrame(const MatrixBase& frames, int64 first_frame, int64 last_frame, int64 t,
                   MatrixBase* out, int out_row) const;

  void Propagate(const MatrixBase& in, MatrixBase* out) const override;

 protected:
  void ReadData(bool binary, std::istream* is) override;
  void WriteData(bool binary, std::ostream* os) const override;
  std::string CheckData() const override;

 private:
  std::vector<int32> offsets_;
};

// The streaming state of one Splice: the input frames that outputs still to
// come will need. Feed appends a batch and emits every frame whose right
// context has arrived; with `flush` it emits all remaining frames, repeating
// the last frame for missing right context, and then starts a new stream.
//
// Once its buffer has grown to the largest batch, Feed does not allocate.
// Owned by the Nnet's streaming state; copyable; one thread at a time.
class SpliceHistory {
 public:
  // out becomes (emitted frames) x splice.OutputDim().
  void Feed(const Splice& splice, const MatrixBase& in, bool flush, Matrix* out);
  void Reset();

 private:
  Matrix frames_;         // rows [0, num_kept_) hold frames first_kept_ onwards
  int num_kept_ = 0;
  int64 first_kept_ = 0;  // stream index of row 0 of frames_
  int64 num_seen_ = 0;    // frames received in this stream
  int64 num_emitted_ = 0;
};

}  // namespace kestrel

KESTREL_PUBLIC_END

#endif  // KESTREL_NNET_NNET_SPLICE_H_
