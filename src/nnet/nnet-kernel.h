// The affine-layer kernel, the network's hot path: out = in * W^T + b for a
// batch of rows (1 to hundreds) against a fixed weight matrix W (output x
// input).
//
// PackedAffineWeights rearranges W once into panels of kPanelWidth output
// units: for every input dimension in turn, the panel holds the weights of its
// units side by side. The kernel streams a panel through registers while a few
// input rows are reused from cache, in blocks of input dimensions that keep a
// panel slice in L1.
//
// Every output element is computed in one fixed order, bias first and then
// the input dimensions in increasing order, whatever the batch size, the
// row's place in the batch or the blocking. So a frame's output does not
// depend on how the stream was cut into batches: streaming and whole-utterance
// results agree bit for bit.
//
// On x86-64 CPUs with AVX2 and FMA, detected at run time, the kernel uses
// them; otherwise it runs portable C++ that the compiler vectorises. The two
// round differently (fused multiply-add), so results may differ between
// machines in the last bits, never within one process.
//
// Stateless functions; PackedAffineWeights is a value type that any number of
// threads may read at once.
#ifndef KESTREL_NNET_NNET_KERNEL_H_
#define KESTREL_NNET_NNET_KERNEL_H_

#include "utils/kestrel-matrix.h"

namespace kestrel {

enum class AffineKernel { kPortable, kAvx2Fma };

// The fastest kernel this CPU supports.
AffineKernel BestAffineKernel();

class PackedAffineWeights {
 public:
  static constexpr int kPanelWidth = 16;

  // Packs `weights` (output x input) and `bias` (output elements).
  void Pack(const MatrixBase& weights, const VectorBase& bias);

  int InputDim() const { return input_dim_; }
  int OutputDim() const { return output_dim_; }
  int NumPanels() const { return panels_.NumRows(); }
  // Panel p: InputDim() x kPanelWidth floats, row k holding the weights of
  // input k for outputs p * kPanelWidth onwards (zero past OutputDim()).
  const float* Panel(int p) const { return panels_.RowData(p); }
  int PanelStride() const { return panels_.Stride(); }
  // The bias, zero-padded to NumPanels() * kPanelWidth.
  const float* PaddedBias() const { return padded_bias_.Data(); }

 private:
  int input_dim_ = 0;
  int output_dim_ = 0;
  Matrix panels_;
  Vector padded_bias_;
};

// out (in.NumRows() x w.OutputDim()) = in * W^T + b; in has w.InputDim()
// columns. Asking for a kernel the CPU lacks runs the portable one.
void AffineForward(const MatrixBase& in, const PackedAffineWeights& w, MatrixBase* out,
                   AffineKernel kernel = BestAffineKernel());

}  // namespace kestrel

#endif  // KESTREL_NNET_NNET_KERNEL_H_
