#include "nnet/nnet-kernel.h"

#include <algorithm>
#include <cstring>

#if defined(__x86_64__) && defined(__GNUC__)
#define KESTREL_KERNEL_X86 1
#include <immintrin.h>
#endif

namespace kestrel {

namespace {

constexpr int kPanel = PackedAffineWeights::kPanelWidth;
// Rows sharing one pass over a panel slice: 4 rows x 16 outputs fill 8 of the
// 16 AVX registers with accumulators and leave room for weights and inputs.
constexpr int kBlockRows = 4;
// Input dimensions per block: a 256 x 16 panel slice is 16 KB, half of L1.
constexpr int kKBlock = 256;

// Every micro-kernel computes, for its rows r and panel columns j,
//   out[r][j] = init[r][j] + x[r][0] * w[0][j] + ... + x[r][k-1] * w[k-1][j]
// adding one term at a time in that order (see the header on why).

struct PortableKernels {
  // Four rows x one panel. init rows are ld_init apart (0: shared bias).
  static void Rows4(const float* x, int ldx, const float* w, int k, const float* init,
                    int ld_init, float* out, int ldo) {
    float acc[kBlockRows][kPanel];
    for (int r = 0; r < kBlockRows; ++r) {
      for (int j = 0; j < kPanel; ++j) acc[r][j] = init[r * ld_init + j];
    }
    for (int i = 0; i < k; ++i) {
      const float* wi = w + i * kPanel;
      for (int r = 0; r < kBlockRows; ++r) {
        const float xv = x[r * ldx + i];
        for (int j = 0; j < kPanel; ++j) acc[r][j] += xv * wi[j];
      }
    }
    for (int r = 0; r < kBlockRows; ++r) {
      std::memcpy(out + r * ldo, acc[r], sizeof(acc[r]));
    }
  }

  // One row x `Panels` consecutive panels (w_stride floats apart); init and
  // out hold Panels * kPanel consecutive floats.
  template <int Panels>
  static void Row(const float* x, const float* w, int w_stride, int k, const float* init,
                  float* out) {
    float acc[Panels][kPanel];
    for (int q = 0; q < Panels; ++q) {
      for (int j = 0; j < kPanel; ++j) acc[q][j] = init[q * kPanel + j];
    }
    for (int i = 0; i < k; ++i) {
      const float xv = x[i];
      for (int q = 0; q < Panels; ++q) {
        const float* wi = w + q * w_stride + i * kPanel;
        for (int j = 0; j < kPanel; ++j) acc[q][j] += xv * wi[j];
      }
    }
    std::memcpy(out, acc, sizeof(acc));
  }
  static void Row4Panels(const float* x, const float* w, int w_stride, int k, const float* init,
                         float* out) {
    Row<4>(x, w, w_stride, k, init, out);
  }
  static void Row1Panel(const float* x, const float* w, int k, const float* init, float* out) {
    Row<1>(x, w, 0, k, init, out);
  }
};

#ifdef KESTREL_KERNEL_X86
#define KESTREL_AVX2 __attribute__((target("avx2,fma")))

struct Avx2Kernels {
  KESTREL_AVX2 static void Rows4(const float* x, int ldx, const float* w, int k,
                                 const float* init, int ld_init, float* out, int ldo) {
    __m256 a00 = _mm256_loadu_ps(init), a01 = _mm256_loadu_ps(init + 8);
    __m256 a10 = _mm256_loadu_ps(init + ld_init), a11 = _mm256_loadu_ps(init + ld_init + 8);
    __m256 a20 = _mm256_loadu_ps(init + 2 * ld_init);
    __m256 a21 = _mm256_loadu_ps(init + 2 * ld_init + 8);
    __m256 a30 = _mm256_loadu_ps(init + 3 * ld_init);
    __m256 a31 = _mm256_loadu_ps(init + 3 * ld_init + 8);
    const float* x0 = x;
    const float* x1 = x + ldx;
    const float* x2 = x + 2 * ldx;
    const float* x3 = x + 3 * ldx;
    for (int i = 0; i < k; ++i) {
      const __m256 w0 = _mm256_loadu_ps(w + i * kPanel);
      const __m256 w1 = _mm256_loadu_ps(w + i * kPanel + 8);
      __m256 b = _mm256_broadcast_ss(x0 + i);
      a00 = _mm256_fmadd_ps(b, w0, a00);
      a01 = _mm256_fmadd_ps(b, w1, a01);
      b = _mm256_broadcast_ss(x1 + i);
      a10 = _mm256_fmadd_ps(b, w0, a10);
      a11 = _mm256_fmadd_ps(b, w1, a11);
      b = _mm256_broadcast_ss(x2 + i);
      a20 = _mm256_fmadd_ps(b, w0, a20);
      a21 = _mm256_fmadd_ps(b, w1, a21);
      b = _mm256_broadcast_ss(x3 + i);
      a30 = _mm256_fmadd_ps(b, w0, a30);
      a31 = _mm256_fmadd_ps(b, w1, a31);
    }
    _mm256_storeu_ps(out, a00);
    _mm256_storeu_ps(out + 8, a01);
    _mm256_storeu_ps(out + ldo, a10);
    _mm256_storeu_ps(out + ldo + 8, a11);
    _mm256_storeu_ps(out + 2 * ldo, a20);
    _mm256_storeu_ps(out + 2 * ldo + 8, a21);
    _mm256_storeu_ps(out + 3 * ldo, a30);
    _mm256_storeu_ps(out + 3 * ldo + 8, a31);
  }

  // Eight independent accumulators hide the latency of the fused
  // multiply-adds, which a single row would otherwise wait on.
  KESTREL_AVX2 static void Row4Panels(const float* x, const float* w, int w_stride, int k,
                                      const float* init, float* out) {
    const float* p0 = w;
    const float* p1 = w + w_stride;
    const float* p2 = w + 2 * w_stride;
    const float* p3 = w + 3 * w_stride;
    __m256 a0 = _mm256_loadu_ps(init), a1 = _mm256_loadu_ps(init + 8);
    __m256 a2 = _mm256_loadu_ps(init + 16), a3 = _mm256_loadu_ps(init + 24);
    __m256 a4 = _mm256_loadu_ps(init + 32), a5 = _mm256_loadu_ps(init + 40);
    __m256 a6 = _mm256_loadu_ps(init + 48), a7 = _mm256_loadu_ps(init + 56);
    for (int i = 0; i < k; ++i) {
      const __m256 b = _mm256_broadcast_ss(x + i);
      const int o = i * kPanel;
      a0 = _mm256_fmadd_ps(b, _mm256_loadu_ps(p0 + o), a0);
      a1 = _mm256_fmadd_ps(b, _mm256_loadu_ps(p0 + o + 8), a1);
      a2 = _mm256_fmadd_ps(b, _mm256_loadu_ps(p1 + o), a2);
      a3 = _mm256_fmadd_ps(b, _mm256_loadu_ps(p1 + o + 8), a3);
      a4 = _mm256_fmadd_ps(b, _mm256_loadu_ps(p2 + o), a4);
      a5 = _mm256_fmadd_ps(b, _mm256_loadu_ps(p2 + o + 8), a5);
      a6 = _mm256_fmadd_ps(b, _mm256_loadu_ps(p3 + o), a6);
      a7 = _mm256_fmadd_ps(b, _mm256_loadu_ps(p3 + o + 8), a7);
    }
    _mm256_storeu_ps(out, a0);
    _mm256_storeu_ps(out + 8, a1);
    _mm256_storeu_ps(out + 16, a2);
    _mm256_storeu_ps(out + 24, a3);
    _mm256_storeu_ps(out + 32, a4);
    _mm256_storeu_ps(out + 40, a5);
    _mm256_storeu_ps(out + 48, a6);
    _mm256_storeu_ps(out + 56, a7);
  }

  KESTREL_AVX2 static void Row1Panel(const float* x, const float* w, int k, const float* init,
                                     float* out) {
    __m256 a0 = _mm256_loadu_ps(init), a1 = _mm256_loadu_ps(init + 8);
    for (int i = 0; i < k; ++i) {
      const __m256 b = _mm256_broadcast_ss(x + i);
      a0 = _mm256_fmadd_ps(b, _mm256_loadu_ps(w + i * kPanel), a0);
      a1 = _mm256_fmadd_ps(b, _mm256_loadu_ps(w + i * kPanel + 8), a1);
    }
    _mm256_storeu_ps(out, a0);
    _mm256_storeu_ps(out + 8, a1);
  }
};
#endif  // KESTREL_KERNEL_X86

template <class Kernels>
void Forward(const MatrixBase& in, const PackedAffineWeights& w, MatrixBase* out) {
  const int rows = in.NumRows();
  const int k = w.InputDim();
  const int n = w.OutputDim();
  const int full_panels = n / kPanel;
  const int partial_cols = n % kPanel;
  const int block_rows = rows / kBlockRows * kBlockRows;
  const float* bias = w.PaddedBias();
  const int ldx = in.Stride();
  const int ldo = out->Stride();

  // Blocks of rows against whole panels: the outputs hold the partial sums
  // between slices of input dimensions.
  for (int p = 0; p < full_panels; ++p) {
    int k0 = 0;
    do {
      const int kn = std::min(kKBlock, k - k0);
      for (int r = 0; r < block_rows; r += kBlockRows) {
        float* o = out->RowData(r) + p * kPanel;
        const bool first = k0 == 0;
        Kernels::Rows4(in.RowData(r) + k0, ldx, w.Panel(p) + k0 * kPanel, kn,
                       first ? bias + p * kPanel : o, first ? 0 : ldo, o, ldo);
      }
      k0 += kKBlock;
    } while (k0 < k);
  }
  // The last, partial panel goes through a tile, since the output rows may
  // not have room for a whole panel.
  float tile[kBlockRows * kPanel];
  if (partial_cols > 0) {
    const int p = full_panels;
    for (int r = 0; r < block_rows; r += kBlockRows) {
      Kernels::Rows4(in.RowData(r), ldx, w.Panel(p), k, bias + p * kPanel, 0, tile, kPanel);
      for (int i = 0; i < kBlockRows; ++i) {
        std::memcpy(out->RowData(r + i) + p * kPanel, tile + i * kPanel,
                    sizeof(float) * partial_cols);
      }
    }
  }
  // Remaining rows one at a time (all rows when fed frame by frame).
  for (int r = block_rows; r < rows; ++r) {
    const float* x = in.RowData(r);
    float* o = out->RowData(r);
    int p = 0;
    for (; p + 4 <= full_panels; p += 4) {
      Kernels::Row4Panels(x, w.Panel(p), w.PanelStride(), k, bias + p * kPanel, o + p * kPanel);
    }
    for (; p < full_panels; ++p) {
      Kernels::Row1Panel(x, w.Panel(p), k, bias + p * kPanel, o + p * kPanel);
    }
    if (partial_cols > 0) {
      Kernels::Row1Panel(x, w.Panel(p), k, bias + p * kPanel, tile);
      std::memcpy(o + p * kPanel, tile, sizeof(float) * partial_cols);
    }
  }
}

}  // namespace

AffineKernel BestAffineKernel() {
#ifdef KESTREL_KERNEL_X86
  static const AffineKernel best =
      __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") ? AffineKernel::kAvx2Fma
                                                                      : AffineKernel::kPortable;
  return best;
#else
  return AffineKernel::kPortable;
#endif
}

void PackedAffineWeights::Pack(const MatrixBase& weights, const VectorBase& bias) {
  input_dim_ = weights.NumCols();
  output_dim_ = weights.NumRows();
  const int num_panels = (output_dim_ + kPanelWidth - 1) / kPanelWidth;
  panels_.Resize(num_panels, input_dim_ * kPanelWidth, kSetZero);
  padded_bias_.Resize(num_panels * kPanelWidth, kSetZero);
  for (int o = 0; o < output_dim_; ++o) {
    float* panel = panels_.RowData(o / kPanelWidth) + o % kPanelWidth;
    const float* row = weights.RowData(o);
    for (int i = 0; i < input_dim_; ++i) panel[i * kPanelWidth] = row[i];
    padded_bias_(o) = bias(o);
  }
}

void AffineForward(const MatrixBase& in, const PackedAffineWeights& w, MatrixBase* out,
                   AffineKernel kernel) {
#ifdef KESTREL_KERNEL_X86
  if (kernel == AffineKernel::kAvx2Fma && BestAffineKernel() == AffineKernel::kAvx2Fma) {
    Forward<Avx2Kernels>(in, w, out);
    return;
  }
#else
  (void)kernel;
#endif
  Forward<PortableKernels>(in, w, out);
}

}  // namespace kestrel
