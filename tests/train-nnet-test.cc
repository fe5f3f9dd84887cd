// Training support: the components' backward passes and the parameter
// gradients against numerical derivatives, the trainer's windows against the
// streaming network, results that do not depend on the thread count, and
// sharpened outputs. That training learns is checked end to end in
// train-trainer-test.cc. Also the weight average of networks of one layout.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "nnet-backprop.h"
#include "nnet-test-util.h"
#include "nnet-train.h"
#include "network-average.h"
#include "nnet/nnet.h"
#include "output-scale.h"
#include "test-log-capture.h"

namespace kestrel {
namespace {

// sum(out .* weights) in double, for finite differences.
double WeightedOutput(const Component& c, const Matrix& in, const Matrix& weights) {
  Matrix out(in.NumRows(), c.OutputDim());
  c.Propagate(in, &out);
  double sum = 0.0;
  for (int r = 0; r < out.NumRows(); ++r) {
    for (int k = 0; k < out.NumCols(); ++k) sum += double(out(r, k)) * weights(r, k);
  }
  return sum;
}

constexpr float kEps = 1e-3f;

// The central difference of f() in *x, which is left as it was.
template <class F>
double Slope(float* x, F f) {
  const float v = *x;
  *x = v + kEps;
  const double up = f();
  *x = v - kEps;
  const double down = f();
  *x = v;
  return (up - down) / (2 * kEps);
}

TEST(NnetTrainTest, BackpropagateMatchesNumericalDerivatives) {
  std::mt19937 rng(21);
  const Nnet nnet = EveryKindNnet(&rng);
  for (int i = 0; i < nnet.NumComponents(); ++i) {
    const Component& c = nnet.GetComponent(i);
    if (std::string(c.Token()) == "<Splice>") continue;  // the trainer's own, tested below
    SCOPED_TRACE(::testing::Message() << "component " << i << " " << c.Token());
    Matrix in = RandomMatrix(5, c.InputDim(), &rng);
    const Matrix weights = RandomMatrix(5, c.OutputDim(), &rng);
    Matrix out(5, c.OutputDim()), in_diff(5, c.InputDim());
    c.Propagate(in, &out);
    Backpropagate(c, in, out, weights, &in_diff);
    for (int r = 0; r < 5; ++r) {
      for (int k = 0; k < c.InputDim(); ++k) {
        if (std::string(c.Token()) == "<Relu>" && std::fabs(in(r, k)) < kEps) continue;  // kink
        EXPECT_NEAR(in_diff(r, k), Slope(&in(r, k), [&] { return WeightedOutput(c, in, weights); }),
                    2e-3)
            << r << ", " << k;
      }
    }
  }
}

// A time-delay network of every trained kind, normalising frames before its
// first splice as the hotword trainer's do: splices between the layers, each
// lopsided, reaching -6..+3 together. 2 inputs, 3 outputs.
Nnet TimeDelayNnet(std::mt19937* rng) {
  Nnet nnet;
  nnet.AppendComponent(std::make_unique<AddShift>(RandomVector(2, rng)));
  nnet.AppendComponent(std::make_unique<Rescale>(RandomVector(2, rng)));
  nnet.AppendComponent(std::make_unique<Splice>(2, std::vector<int32>{-2, 0, 1}));
  nnet.AppendComponent(RandomAffine(6, 5, rng));
  nnet.AppendComponent(std::make_unique<Tanh>(5));
  nnet.AppendComponent(std::make_unique<Splice>(5, std::vector<int32>{-1, 0, 2}));
  nnet.AppendComponent(RandomAffine(15, 4, rng));
  nnet.AppendComponent(std::make_unique<Sigmoid>(4));
  nnet.AppendComponent(std::make_unique<Splice>(4, std::vector<int32>{-3, 0}));
  nnet.AppendComponent(RandomAffine(8, 4, rng));
  nnet.AppendComponent(std::make_unique<Relu>(4));
  nnet.AppendComponent(RandomAffine(4, 3, rng));
  nnet.AppendComponent(std::make_unique<Softmax>(3));
  return nnet;
}

// Rows of `features` as the trainer wants them: windows of -left..+right
// frames, repeating the first and last frames past the ends.
Matrix Windows(const Matrix& features, int left, int right) {
  std::vector<int32> offsets;
  for (int o = -left; o <= right; ++o) offsets.push_back(o);
  const Splice window(features.NumCols(), offsets);
  Matrix rows(features.NumRows(), window.OutputDim());
  window.Propagate(features, &rows);
  return rows;
}

TEST(NnetTrainTest, ParameterGradientsMatchNumericalDerivatives) {
  std::mt19937 rng(22);
  Nnet nnet = TimeDelayNnet(&rng);
  NnetTrainerOptions options;
  options.train_shift_and_scale = true;
  NnetTrainer trainer(&nnet, options);
  ASSERT_EQ(trainer.LeftContext(), 6);
  ASSERT_EQ(trainer.RightContext(), 3);
  ASSERT_EQ(trainer.RowDim(), 20);
  const Matrix rows = RandomMatrix(7, 20, &rng);
  const std::vector<int32> labels = {0, 2, 1, 1, 0, 2, 2};
  trainer.ComputeGradient(rows, labels);

  int checked = 0;
  for (int i = 0; i < nnet.NumComponents(); ++i) {
    Component& c = nnet.GetComponent(i);
    SCOPED_TRACE(::testing::Message() << "component " << i << " " << c.Token());
    const std::vector<float>& gradient = trainer.Gradient(i);
    ASSERT_EQ(gradient.size(), static_cast<size_t>(c.NumParams()));
    std::vector<float> params(c.NumParams());
    c.GetParams(params.data());
    auto loss = [&] {
      c.SetParams(params.data());
      return trainer.ComputeLoss(rows, labels);
    };
    for (size_t p = 0; p < params.size(); ++p, ++checked) {
      EXPECT_NEAR(gradient[p], Slope(&params[p], loss), 2e-3) << "parameter " << p;
    }
    c.SetParams(params.data());
  }
  EXPECT_EQ(checked, 2 + 2 + (30 + 5) + (60 + 4) + (32 + 4) + (12 + 3));
}

TEST(NnetTrainTest, DropoutGradientsMatchTheMaskedNetwork) {
  std::mt19937 rng(24);
  Nnet nnet;
  nnet.AppendComponent(RandomAffine(6, 12, &rng));
  nnet.AppendComponent(std::make_unique<Relu>(12));
  nnet.AppendComponent(RandomAffine(12, 3, &rng));
  nnet.AppendComponent(std::make_unique<Softmax>(3));
  NnetTrainerOptions options;
  options.dropout = 0.3f;
  options.dropout_seed = 5;
  const Matrix rows = RandomMatrix(9, 6, &rng);
  const std::vector<int32> labels = {0, 2, 1, 1, 0, 2, 2, 1, 0};
  // A new trainer with the same seed draws the same first mask, so its
  // loss is the function the gradient is of.
  auto masked_loss = [&] { return NnetTrainer(&nnet, options).ComputeGradient(rows, labels); };
  NnetTrainer trainer(&nnet, options);
  const float loss = trainer.ComputeGradient(rows, labels);
  EXPECT_NE(loss, NnetTrainer(&nnet, NnetTrainerOptions()).ComputeLoss(rows, labels))
      << "no output was dropped";
  for (int i : {0, 2}) {
    Component& c = nnet.GetComponent(i);
    const std::vector<float> gradient = trainer.Gradient(i);
    std::vector<float> params(c.NumParams());
    c.GetParams(params.data());
    for (size_t p = 0; p < params.size(); ++p) {
      const double slope = Slope(&params[p], [&] {
        c.SetParams(params.data());
        return masked_loss();
      });
      EXPECT_NEAR(gradient[p], slope, 2e-3) << "component " << i << ", parameter " << p;
    }
    c.SetParams(params.data());
  }
}

TEST(NnetTrainTest, WindowsComputeWhatTheStreamingNetworkComputes) {
  std::mt19937 rng(24);
  const int kFrames = 24;
  const Matrix features = RandomMatrix(kFrames, 2, &rng);
  // With one splice, in front, the two agree at every frame; with splices
  // between layers, wherever the window lies inside the utterance.
  struct Case {
    Nnet nnet;
    int first, last;
  } cases[] = {{EveryKindNnet(&rng), 0, kFrames - 1}, {TimeDelayNnet(&rng), 6, kFrames - 4}};
  for (Case& c : cases) {
    NnetTrainer trainer(&c.nnet, NnetTrainerOptions());
    SCOPED_TRACE(::testing::Message() << "context " << trainer.LeftContext());
    Matrix posteriors, streamed;
    trainer.Forward(Windows(features, trainer.LeftContext(), trainer.RightContext()), &posteriors);
    std::vector<FrameInfo> info;
    c.nnet.FlushOutput(features, FrameInfos(0, kFrames), &streamed, &info);
    ASSERT_EQ(posteriors.NumRows(), streamed.NumRows());
    for (int r = c.first; r <= c.last; ++r) {
      for (int k = 0; k < 3; ++k) EXPECT_FLOAT_EQ(posteriors(r, k), streamed(r, k)) << r;
    }
  }
}

TEST(NnetTrainTest, ThreadsGiveTheOneThreadResultBitForBit) {
  std::mt19937 rng(26);
  auto network = [](uint32 seed) {
    std::mt19937 init(seed);
    Nnet nnet;
    nnet.AppendComponent(std::make_unique<Splice>(8, std::vector<int32>{-1, 0, 1}));
    nnet.AppendComponent(RandomAffine(24, 48, &init));
    nnet.AppendComponent(std::make_unique<Relu>(48));
    nnet.AppendComponent(std::make_unique<Splice>(48, std::vector<int32>{-2, 0}));
    nnet.AppendComponent(RandomAffine(96, 40, &init));
    nnet.AppendComponent(std::make_unique<Relu>(40));
    nnet.AppendComponent(RandomAffine(40, 3, &init));
    nnet.AppendComponent(std::make_unique<Softmax>(3));
    return nnet;
  };
  const Matrix rows = RandomMatrix(300, 8 * 5, &rng);  // windows of -3..+1
  std::vector<int32> labels(300);
  for (int r = 0; r < 300; ++r) labels[r] = r % 3;
  std::vector<std::vector<float>> results;
  for (int threads : {1, 2, 3}) {
    Nnet nnet = network(27);
    NnetTrainerOptions options;
    options.threads = threads;
    options.dropout = 0.2f;
    NnetTrainer trainer(&nnet, options);
    for (int step = 0; step < 3; ++step) trainer.TrainOnBatch(rows, labels);
    trainer.ComputeGradient(rows, labels);
    std::vector<float> all;
    for (int i : {1, 4, 6}) {
      all.insert(all.end(), trainer.Gradient(i).begin(), trainer.Gradient(i).end());
      std::vector<float> params(nnet.GetComponent(i).NumParams());
      nnet.GetComponent(i).GetParams(params.data());
      all.insert(all.end(), params.begin(), params.end());
    }
    results.push_back(all);
  }
  EXPECT_EQ(results[1], results[0]);
  EXPECT_EQ(results[2], results[0]);
}

TEST(NnetTrainTest, OutputScaleRaisesEachPosteriorToItsPower) {
  std::mt19937 rng(26);
  const Matrix features = RandomMatrix(12, 2, &rng);
  Nnet nnet = EveryKindNnet(&rng);
  std::vector<FrameInfo> info;
  Matrix plain, sharp;
  nnet.FlushOutput(features, FrameInfos(0, 12), &plain, &info);
  Nnet sharpened = ScaleOutputLogits(nnet, 2.5f);
  sharpened.FlushOutput(features, FrameInfos(0, 12), &sharp, &info);
  for (int r = 0; r < plain.NumRows(); ++r) {
    double sum = 0.0;
    for (int k = 0; k < 3; ++k) sum += std::pow(double(plain(r, k)), 2.5);
    for (int k = 0; k < 3; ++k) {
      EXPECT_NEAR(sharp(r, k), std::pow(double(plain(r, k)), 2.5) / sum, 1e-5) << r;
    }
  }
  EXPECT_EQ(KESTREL_ERROR_TEXT(ScaleOutputLogits(nnet, 0.0f)),
            "ScaleOutputLogits: the scale must be above 0, not 0.");
  Nnet no_softmax;
  no_softmax.AppendComponent(RandomAffine(2, 2, &rng));
  EXPECT_EQ(KESTREL_ERROR_TEXT(ScaleOutputLogits(no_softmax, 2.0f)),
            "ScaleOutputLogits: the network does not end in an <AffineTransform> and a "
            "<Softmax>.");
}

TEST(NnetTrainTest, AverageTakesTheMeanOfEachWeightOfOneLayout) {
  std::mt19937 rng(27);
  const std::vector<Nnet> nets = {EveryKindNnet(&rng), EveryKindNnet(&rng), EveryKindNnet(&rng)};
  const Nnet average = AverageNetworks(nets);
  ASSERT_EQ(nets[0].NumComponents(), average.NumComponents());
  for (int c = 0; c < average.NumComponents(); ++c) {
    const int size = average.GetComponent(c).NumParams();
    std::vector<std::vector<float>> params(4, std::vector<float>(size));
    for (int n = 0; n < 3; ++n) nets[n].GetComponent(c).GetParams(params[n].data());
    average.GetComponent(c).GetParams(params[3].data());
    for (int i = 0; i < size; ++i) {
      EXPECT_EQ((params[0][i] + params[1][i] + params[2][i]) / 3.0f, params[3][i]) << c << " " << i;
    }
  }
  // A network averaged with itself is itself, splices and all.
  std::ostringstream once, twice;
  nets[1].Write(true, &once);
  AverageNetworks({nets[1], nets[1]}).Write(true, &twice);
  EXPECT_EQ(once.str(), twice.str());

  // Other splice offsets of the same width, or another depth, are refused.
  Nnet other_splice = EveryKindNnet(&rng);
  Nnet reordered;
  reordered.AppendComponent(std::make_unique<Splice>(2, std::vector<int32>{-1, 0, 2}));
  for (int c = 1; c < other_splice.NumComponents(); ++c) {
    reordered.AppendComponent(other_splice.GetComponent(c).Copy());
  }
  EXPECT_EQ(NetworkAverageProblem({nets[0], reordered}),
            "network 2 differs from network 1 at component 1 (<Splice> 6 x 2 at -1 0 2 against "
            "<Splice> 6 x 2 at -2 0 1)");
  Nnet shallow;
  shallow.AppendComponent(RandomAffine(2, 3, &rng));
  EXPECT_EQ(KESTREL_ERROR_TEXT(AverageNetworks({nets[0], nets[1], shallow})),
            "AverageNetworks: network 3 has 1 components, network 1 has 11.");
  EXPECT_EQ(NetworkAverageProblem({}), "no networks to average");
}

TEST(NnetTrainTest, RejectsBadLabelsAndNetworksWithoutSoftmax) {
  std::mt19937 rng(25);
  Nnet nnet = EveryKindNnet(&rng);
  NnetTrainer trainer(&nnet, NnetTrainerOptions());
  const Matrix rows = RandomMatrix(2, 8, &rng);
  EXPECT_EQ(KESTREL_ERROR_TEXT(trainer.TrainOnBatch(RandomMatrix(2, 6, &rng), {0, 1})),
            "NnetTrainer: rows have 6 columns, the network's windows have 8.");
  EXPECT_EQ(KESTREL_ERROR_TEXT(trainer.TrainOnBatch(rows, {0, 3})),
            "NnetTrainer: label 3 of row 1 is outside the network's units 0..2.");
  EXPECT_EQ(KESTREL_ERROR_TEXT(trainer.TrainOnBatch(rows, {0})),
            "NnetTrainer: 2 rows but 1 labels.");
  Nnet no_softmax;
  no_softmax.AppendComponent(RandomAffine(2, 2, &rng));
  EXPECT_EQ(KESTREL_ERROR_TEXT(NnetTrainer(&no_softmax, NnetTrainerOptions())),
            "NnetTrainer: the network must end in <Softmax>, its last component is "
            "<AffineTransform>.");
  NnetTrainerOptions all_dropped;
  all_dropped.dropout = 1.0f;
  EXPECT_EQ(KESTREL_ERROR_TEXT(NnetTrainer(&nnet, all_dropped)),
            "NnetTrainer: dropout must be in [0, 1), not 1.");
}

}  // namespace
}  // namespace kestrel
