// The affine kernel against a plain double-precision product, on shapes that
// cross its panel, row-block and input-block boundaries, for every kernel the
// CPU has.
#include "nnet/nnet-kernel.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "nnet-test-util.h"

namespace kestrel {
namespace {

std::vector<AffineKernel> AvailableKernels() {
  std::vector<AffineKernel> kernels = {AffineKernel::kPortable};
  if (BestAffineKernel() != AffineKernel::kPortable) kernels.push_back(BestAffineKernel());
  return kernels;
}

TEST(NnetKernelTest, MatchesPlainProductOnAwkwardShapes) {
  std::mt19937 rng(3);
  for (AffineKernel kernel : AvailableKernels()) {
    for (int in_dim : {1, 7, 256, 300, 640}) {
      for (int out_dim : {1, 12, 16, 17, 64, 80}) {
        for (int rows : {0, 1, 3, 4, 9}) {
          SCOPED_TRACE(::testing::Message() << "kernel " << static_cast<int>(kernel) << ", "
                                            << rows << " x " << in_dim << " -> " << out_dim);
          const Matrix w = RandomMatrix(out_dim, in_dim, &rng);
          const Vector b = RandomVector(out_dim, &rng);
          const Matrix x = RandomMatrix(rows, in_dim, &rng);
          PackedAffineWeights packed;
          packed.Pack(w, b);
          // Poison the output so unwritten elements show.
          Matrix y(rows, out_dim);
          y.Set(NAN);
          AffineForward(x, packed, &y, kernel);
          for (int r = 0; r < rows; ++r) {
            for (int o = 0; o < out_dim; ++o) {
              double expected = b(o);
              for (int i = 0; i < in_dim; ++i) expected += double(x(r, i)) * w(o, i);
              ASSERT_NEAR(y(r, o), expected, 1e-4 * std::sqrt(in_dim)) << r << ", " << o;
            }
          }
        }
      }
    }
  }
}

TEST(NnetKernelTest, RowResultDoesNotDependOnTheBatch) {
  std::mt19937 rng(4);
  for (AffineKernel kernel : AvailableKernels()) {
    const int in_dim = 600, out_dim = 75, rows = 11;
    PackedAffineWeights packed;
    packed.Pack(RandomMatrix(out_dim, in_dim, &rng), RandomVector(out_dim, &rng));
    const Matrix x = RandomMatrix(rows, in_dim, &rng);
    Matrix batch(rows, out_dim);
    AffineForward(x, packed, &batch, kernel);
    for (int r = 0; r < rows; ++r) {
      Matrix single(1, out_dim);
      AffineForward(x.RowRange(r, 1), packed, &single, kernel);
      EXPECT_EQ(std::memcmp(single.RowData(0), batch.RowData(r), sizeof(float) * out_dim), 0)
          << "kernel " << static_cast<int>(kernel) << ", row " << r;
    }
  }
}

TEST(NnetKernelTest, WritesOnlyTheOutputColumns) {
  // A view narrower than its storage: the kernel must leave the rest alone.
  std::mt19937 rng(5);
  for (AffineKernel kernel : AvailableKernels()) {
    PackedAffineWeights packed;
    packed.Pack(RandomMatrix(20, 8, &rng), RandomVector(20, &rng));
    const Matrix x = RandomMatrix(5, 8, &rng);
    Matrix storage(5, 40);
    storage.Set(7.0f);
    SubMatrix view(storage.Data(), 5, 20, storage.Stride());
    AffineForward(x, packed, &view, kernel);
    for (int r = 0; r < 5; ++r) {
      for (int c = 20; c < 40; ++c) ASSERT_EQ(storage(r, c), 7.0f) << r << ", " << c;
    }
  }
}

}  // namespace
}  // namespace kestrel
