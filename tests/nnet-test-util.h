// Test helpers for the network tests: matrices given by rows, random
// matrices and random networks.
#ifndef KESTREL_TESTS_NNET_TEST_UTIL_H_
#define KESTREL_TESTS_NNET_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#include "nnet/frame-info.h"
#include "nnet/nnet-activation.h"
#include "nnet/nnet-add-shift.h"
#include "nnet/nnet-affine-transform.h"
#include "nnet/nnet-rescale.h"
#include "nnet/nnet-splice.h"
#include "nnet/nnet.h"
#include "utils/kestrel-matrix.h"

namespace kestrel {

inline Matrix MatrixFromRows(const std::vector<std::vector<float>>& rows) {
  Matrix m(static_cast<int>(rows.size()), rows.empty() ? 0 : static_cast<int>(rows[0].size()));
  for (size_t r = 0; r < rows.size(); ++r) {
    for (size_t c = 0; c < rows[r].size(); ++c) m(static_cast<int>(r), static_cast<int>(c)) = rows[r][c];
  }
  return m;
}

inline Matrix RandomMatrix(int rows, int cols, std::mt19937* rng, float scale = 1.0f) {
  std::normal_distribution<float> normal(0.0f, scale);
  Matrix m(rows, cols);
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c) m(r, c) = normal(*rng);
  }
  return m;
}

inline Vector RandomVector(int dim, std::mt19937* rng, float scale = 1.0f) {
  std::normal_distribution<float> normal(0.0f, scale);
  Vector v(dim);
  for (int i = 0; i < dim; ++i) v(i) = normal(*rng);
  return v;
}

// What a stage put out over one or more Reads: rows and their frame ids.
struct Outputs {
  std::vector<std::vector<float>> rows;
  std::vector<int32> ids;
  void Append(const MatrixBase& out, const std::vector<FrameInfo>& info) {
    ASSERT_EQ(info.size(), static_cast<size_t>(out.NumRows()));
    for (int r = 0; r < out.NumRows(); ++r) {
      rows.emplace_back(out.RowData(r), out.RowData(r) + out.NumCols());
      ids.push_back(info[r].frame_id);
    }
  }
  void Append(const Outputs& more) {
    rows.insert(rows.end(), more.rows.begin(), more.rows.end());
    ids.insert(ids.end(), more.ids.begin(), more.ids.end());
  }
};

inline std::vector<FrameInfo> FrameInfos(int first, int n) {
  std::vector<FrameInfo> infos(n);
  for (int i = 0; i < n; ++i) infos[i].frame_id = first + i;
  return infos;
}

inline std::unique_ptr<Component> RandomSplice(int dim, std::mt19937* rng) {
  const int left = std::uniform_int_distribution<int>(0, 4)(*rng);
  const int right = std::uniform_int_distribution<int>(0, 3)(*rng);
  std::vector<int32> offsets;
  for (int o = -left; o <= right; ++o) {
    if (o == -left || o == right || (*rng)() % 2 == 0) offsets.push_back(o);
  }
  return std::make_unique<Splice>(dim, offsets);
}

inline std::unique_ptr<Component> RandomAffine(int in, int out, std::mt19937* rng) {
  return std::make_unique<AffineTransform>(RandomMatrix(out, in, rng, 0.5f),
                                           RandomVector(out, rng, 0.1f));
}

inline std::unique_ptr<Component> RandomActivation(int dim, std::mt19937* rng) {
  switch ((*rng)() % 4) {
    case 0: return std::make_unique<Relu>(dim);
    case 1: return std::make_unique<Sigmoid>(dim);
    case 2: return std::make_unique<Tanh>(dim);
    default: return std::make_unique<Softmax>(dim);
  }
}

// Every kind of component in one small network ending in a softmax: 2
// inputs, 3 outputs. The splice is lopsided, so that left and right context
// cannot be confused.
inline Nnet EveryKindNnet(std::mt19937* rng) {
  Nnet nnet;
  nnet.AppendComponent(std::make_unique<Splice>(2, std::vector<int32>{-2, 0, 1}));
  nnet.AppendComponent(std::make_unique<AddShift>(RandomVector(6, rng)));
  nnet.AppendComponent(std::make_unique<Rescale>(RandomVector(6, rng)));
  nnet.AppendComponent(RandomAffine(6, 5, rng));
  nnet.AppendComponent(std::make_unique<Tanh>(5));
  nnet.AppendComponent(RandomAffine(5, 4, rng));
  nnet.AppendComponent(std::make_unique<Sigmoid>(4));
  nnet.AppendComponent(RandomAffine(4, 4, rng));
  nnet.AppendComponent(std::make_unique<Relu>(4));
  nnet.AppendComponent(RandomAffine(4, 3, rng));
  nnet.AppendComponent(std::make_unique<Softmax>(3));
  return nnet;
}

// A network of every component kind in a plausible order: optional splice
// and normalisation, one to three affine layers with activations, sometimes
// a second splice between them.
inline Nnet RandomNnet(std::mt19937* rng) {
  Nnet nnet;
  int dim = std::uniform_int_distribution<int>(1, 6)(*rng);
  if ((*rng)() % 4 != 0) {
    nnet.AppendComponent(RandomSplice(dim, rng));
    dim = nnet.OutputDim();
  }
  if ((*rng)() % 2 == 0) {
    nnet.AppendComponent(std::make_unique<AddShift>(RandomVector(dim, rng)));
    nnet.AppendComponent(std::make_unique<Rescale>(RandomVector(dim, rng)));
  }
  const int layers = std::uniform_int_distribution<int>(1, 3)(*rng);
  for (int l = 0; l < layers; ++l) {
    const int out = std::uniform_int_distribution<int>(1, 40)(*rng);
    nnet.AppendComponent(RandomAffine(dim, out, rng));
    nnet.AppendComponent(RandomActivation(out, rng));
    dim = out;
    if ((*rng)() % 5 == 0) {
      nnet.AppendComponent(RandomSplice(dim, rng));
      dim = nnet.OutputDim();
    }
  }
  return nnet;
}

}  // namespace kestrel

#endif  // KESTREL_TESTS_NNET_TEST_UTIL_H_
