// Throughput of Nnet::Compute on a representative hotword network (40
// features spliced -10..+5, affine 640x128, 128x128, 128x128, 128x12 with
// ReLU, softmax), fed 1 and 32 frames per call, against a reference that
// runs the same layers with OpenBLAS cblas_sgemm (single thread) in place of
// our affine kernel. Prints frames per second, the share of one core needed
// for 100 frames per second (real time at a 10 ms frame shift), and the
// ratio to the reference.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "nnet/nnet-activation.h"
#include "nnet/nnet-affine-transform.h"
#include "nnet/nnet-kernel.h"
#include "nnet/nnet-splice.h"
#include "nnet/nnet.h"

#ifdef KESTREL_HAVE_CBLAS
#include <cblas.h>
#endif

namespace kestrel {
namespace {

constexpr int kFeatureDim = 40;
constexpr int kStreamFrames = 1024;  // features fed round and round

Matrix RandomMatrix(int rows, int cols, std::mt19937* rng, float scale) {
  std::normal_distribution<float> normal(0.0f, scale);
  Matrix m(rows, cols);
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c) m(r, c) = normal(*rng);
  }
  return m;
}

Nnet HotwordNnet() {
  std::mt19937 rng(7);
  Nnet nnet;
  std::vector<int32> offsets;
  for (int o = -10; o <= 5; ++o) offsets.push_back(o);
  nnet.AppendComponent(std::make_unique<Splice>(kFeatureDim, offsets));
  int dim = nnet.OutputDim();
  const int outs[] = {128, 128, 128, 12};
  for (int out : outs) {
    Matrix bias_row = RandomMatrix(1, out, &rng, 0.1f);
    Vector bias(out);
    for (int i = 0; i < out; ++i) bias(i) = bias_row(0, i);
    nnet.AppendComponent(std::make_unique<AffineTransform>(
        RandomMatrix(out, dim, &rng, 1.0f / std::sqrt(static_cast<float>(dim))), bias));
    if (out != 12) nnet.AppendComponent(std::make_unique<Relu>(out));
    dim = out;
  }
  nnet.AppendComponent(std::make_unique<Softmax>(dim));
  return nnet;
}

const Matrix& StreamFeatures() {
  static const Matrix features = [] {
    std::mt19937 rng(11);
    return RandomMatrix(kStreamFrames, kFeatureDim, &rng, 1.0f);
  }();
  return features;
}

void ReportFrames(benchmark::State& state, int batch) {
  state.SetItemsProcessed(state.iterations() * batch);
  state.SetLabel("frames");
}

void BM_NnetCompute(benchmark::State& state) {
  const int batch = static_cast<int>(state.range(0));
  Nnet nnet = HotwordNnet();
  const Matrix& features = StreamFeatures();
  std::vector<FrameInfo> info(batch);
  Matrix out;
  std::vector<FrameInfo> out_info;
  int first = 0;
  for (auto _ : state) {
    if (first + batch > kStreamFrames) first = 0;
    nnet.Compute(features.RowRange(first, batch), info, &out, &out_info);
    benchmark::DoNotOptimize(out.Data());
    first += batch;
  }
  ReportFrames(state, batch);
}
BENCHMARK(BM_NnetCompute)->Arg(1)->Arg(32);

#ifdef KESTREL_HAVE_CBLAS
// The same network with every affine layer on cblas_sgemm; the splice and
// the activations are ours, so the two differ only in the matrix products.
class BlasReference {
 public:
  explicit BlasReference(const Nnet& nnet) {
    for (int i = 0; i < nnet.NumComponents(); ++i) {
      const Component& c = nnet.GetComponent(i);
      if (auto* splice = dynamic_cast<const Splice*>(&c)) {
        splice_ = splice;
      } else if (auto* affine = dynamic_cast<const AffineTransform*>(&c)) {
        layers_.push_back({affine, nullptr});
      } else {
        layers_.back().activation = &c;
      }
    }
    buffers_.resize(2 * layers_.size());
  }

  // out = the network's output for the frames that the splice releases.
  const Matrix& Compute(const MatrixBase& in) {
    history_.Feed(*splice_, in, false, &spliced_);
    const MatrixBase* x = &spliced_;
    for (size_t l = 0; l < layers_.size(); ++l) {
      const AffineTransform& a = *layers_[l].affine;
      const int rows = x->NumRows();
      Matrix& y = buffers_[2 * l];
      y.Resize(rows, a.OutputDim(), kUndefined);
      for (int r = 0; r < rows; ++r) {
        std::copy(a.Bias().Data(), a.Bias().Data() + a.OutputDim(), y.RowData(r));
      }
      if (rows > 0) {
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasTrans, rows, a.OutputDim(), a.InputDim(),
                    1.0f, x->Data(), x->Stride(), a.Weights().Data(), a.Weights().Stride(), 1.0f,
                    y.Data(), y.Stride());
      }
      Matrix& z = buffers_[2 * l + 1];
      z.Resize(rows, a.OutputDim(), kUndefined);
      layers_[l].activation->Propagate(y, &z);
      x = &z;
    }
    return buffers_.back();
  }

 private:
  struct Layer {
    const AffineTransform* affine;
    const Component* activation;
  };
  const Splice* splice_ = nullptr;
  std::vector<Layer> layers_;
  SpliceHistory history_;
  Matrix spliced_;
  std::vector<Matrix> buffers_;
};

void BM_BlasReference(benchmark::State& state) {
  const int batch = static_cast<int>(state.range(0));
  const Nnet nnet = HotwordNnet();
  BlasReference reference(nnet);
  const Matrix& features = StreamFeatures();
  int first = 0;
  for (auto _ : state) {
    if (first + batch > kStreamFrames) first = 0;
    const Matrix& out = reference.Compute(features.RowRange(first, batch));
    benchmark::DoNotOptimize(out.Data());
    first += batch;
  }
  ReportFrames(state, batch);
}
BENCHMARK(BM_BlasReference)->Arg(1)->Arg(32);

// The largest difference between our outputs and the reference's over a
// stream, so that the figures compare equal work.
float MaxDifferenceFromReference() {
  Nnet nnet = HotwordNnet();
  BlasReference reference(nnet);
  const Matrix& features = StreamFeatures();
  std::vector<FrameInfo> info(32);
  Matrix out;
  std::vector<FrameInfo> out_info;
  float max_diff = 0.0f;
  for (int first = 0; first + 32 <= kStreamFrames; first += 32) {
    nnet.Compute(features.RowRange(first, 32), info, &out, &out_info);
    const Matrix& ref = reference.Compute(features.RowRange(first, 32));
    for (int r = 0; r < out.NumRows(); ++r) {
      for (int c = 0; c < out.NumCols(); ++c) {
        max_diff = std::max(max_diff, std::fabs(out(r, c) - ref(r, c)));
      }
    }
  }
  return max_diff;
}
#endif  // KESTREL_HAVE_CBLAS

// Keeps each run's frames per second for the summary.
class CollectingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      auto it = run.counters.find("items_per_second");
      if (it != run.counters.end()) fps_[run.benchmark_name()] = it->second.value;
    }
    ConsoleReporter::ReportRuns(runs);
  }
  double Fps(const std::string& name) const {
    auto it = fps_.find(name);
    return it == fps_.end() ? 0.0 : it->second;
  }

 private:
  std::map<std::string, double> fps_;
};

void PrintSummary(const CollectingReporter& reporter) {
  std::printf("\nNnet::Compute, hotword network 40x[-10..+5] -> 640-128-128-128-12 (%s kernel)\n",
              BestAffineKernel() == AffineKernel::kAvx2Fma ? "AVX2+FMA" : "portable");
  std::printf("%-8s %14s %10s %14s %8s %8s\n", "batch", "ours fps", "core@100", "BLAS fps",
              "ratio", "target");
  for (int batch : {1, 32}) {
    const double ours = reporter.Fps("BM_NnetCompute/" + std::to_string(batch));
    const double blas = reporter.Fps("BM_BlasReference/" + std::to_string(batch));
    if (ours <= 0.0) continue;
    const double target = batch == 1 ? 1.0 : 0.7;
    if (blas > 0.0) {
      std::printf("%-8d %14.0f %9.3f%% %14.0f %7.2fx %7.1fx%s\n", batch, ours, 100.0 * 100.0 / ours,
                  blas, ours / blas, target, ours / blas >= target ? "" : "  BELOW TARGET");
    } else {
      std::printf("%-8d %14.0f %9.3f%% %14s\n", batch, ours, 100.0 * 100.0 / ours, "n/a");
    }
  }
#ifdef KESTREL_HAVE_CBLAS
  std::printf("max |ours - reference| over the stream: %g\n", MaxDifferenceFromReference());
#else
  std::printf("OpenBLAS not found: no reference (bench/run-benchmarks.sh installs it).\n");
#endif
}

}  // namespace
}  // namespace kestrel

int main(int argc, char** argv) {
#ifdef KESTREL_HAVE_CBLAS
  openblas_set_num_threads(1);
#endif
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  kestrel::CollectingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  kestrel::PrintSummary(reporter);
  benchmark::Shutdown();
  return 0;
}
