// Cost of one search step of each Viterbi-family search, for a representative
// hotword: 8 units, a span of 150 frames, minimum stay 5, floors 0.1, three
// pieces in three layouts, over a full 200-frame window that holds either a
// spoken instance of the hotword or filler only (what most steps see). The
// searches run once per slide step per hotword, so the time per call is the
// cost per step.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "detect/universal-detect-stream.h"
#include "utils/kestrel-matrix.h"

namespace kestrel {
namespace {

constexpr int kUnits = 8;
constexpr int kOutputs = kUnits + 1;  // the last output is filler
constexpr int kSpan = 150;
constexpr int kWindow = 200;
// Search-method codes of the model's hotwords, in order; piecewise first so
// that the model gets piece layouts.
constexpr int kMethods[] = {4, 3, 5, 6, 7, 8};

// A model of six hotwords on units 0-7, one per method, and an identity
// network, so that pushed rows are the posteriors.
std::string ModelText() {
  std::ostringstream os;
  os << "<UniversalModel> <KwInfo> <SmoothWindow> 1 <SlideWindow> " << kWindow << " <NumKws> "
     << std::size(kMethods) << "\n";
  for (int method : kMethods) {
    os << "<Kw> [ 0 1 2 3 4 5 6 7 ] <Sensitivity> 0.5 <SearchMethod> " << method
       << " <SearchNeighbour> 0 <SearchMask> [ ";
    for (int i = 0; i <= kUnits; ++i) os << kSpan * i / kUnits << " ";
    os << "] <SearchFloor> [ 0.1 0.1 0.1 0.1 0.1 0.1 0.1 0.1 ] <SearchMax> F <NumPieces> 3"
       << " <DurationPass> 6 <FloorPass> 6\n";
  }
  os << "</KwInfo>\n<Nnet>\n<AffineTransform> " << kOutputs << " " << kOutputs << "\n [\n";
  for (int r = 0; r < kOutputs; ++r) {
    for (int c = 0; c < kOutputs; ++c) os << (r == c ? " 1" : " 0");
    os << (r + 1 == kOutputs ? " ]\n" : "\n");
  }
  os << " [";
  for (int c = 0; c < kOutputs; ++c) os << " 0";
  os << " ]\n</Nnet>\n";
  return os.str();
}

// Filler, then (if `spoken`) units 0-7 about 15 frames each, then filler
// again; the dominant output holds 0.6 to 0.9 and the rest share what is left.
Matrix Window(bool spoken) {
  std::mt19937 rng(5);
  std::uniform_real_distribution<float> uniform(0.0f, 1.0f);
  Matrix rows(kWindow, kOutputs);
  for (int f = 0; f < kWindow; ++f) {
    const int unit = f - 40;
    const int dominant = spoken && unit >= 0 && unit < kUnits * 15 ? unit / 15 : kUnits;
    const float peak = 0.6f + 0.3f * uniform(rng);
    for (int c = 0; c < kOutputs; ++c) {
      rows(f, c) = c == dominant ? peak : (1.0f - peak) * uniform(rng) / (kOutputs - 1);
    }
  }
  return rows;
}

// A detector holding the model, its window filled with Window(spoken).
std::unique_ptr<UniversalDetectStream> MakeDetector(bool spoken) {
  const std::string path =
      (std::filesystem::temp_directory_path() / "kestrel-search-bench.kmodel").string();
  std::ofstream(path) << ModelText();
  UniversalDetectStreamOptions options;
  options.model_str = path;
  auto made = std::make_unique<UniversalDetectStream>(options);
  std::filesystem::remove(path);
  made->PushSlideWindow(0, Window(spoken));
  return made;
}

// Two detectors with full windows, shared by every benchmark.
UniversalDetectStream& Detector(bool spoken) {
  static std::unique_ptr<UniversalDetectStream> detectors[] = {MakeDetector(false),
                                                               MakeDetector(true)};
  return *detectors[spoken];
}

void BM_Search(benchmark::State& state) {
  const bool spoken = state.range(1) != 0;
  UniversalDetectStream& detector = Detector(spoken);
  const int hotword = static_cast<int>(state.range(0));
  float score = 0.0f;
  int32 frame_id = 0;
  for (auto _ : state) {
    // Frame ids two spans apart keep the reduplication search re-arming.
    score = detector.GetHotwordPosterior(0, hotword, frame_id += 2 * kSpan);
    benchmark::DoNotOptimize(score);
  }
  state.SetLabel("method " + std::to_string(kMethods[hotword]) +
                 (spoken ? ", spoken" : ", filler") + ", score " + std::to_string(score));
}
BENCHMARK(BM_Search)->ArgsProduct({benchmark::CreateDenseRange(0, std::size(kMethods) - 1, 1),
                                   {0, 1}});

// A whole step at a slide step of one frame: push a frame, score all six.
void BM_StepAllSearches(benchmark::State& state) {
  UniversalDetectStream& detector = Detector(true);
  const Matrix window = Window(true);
  int f = 0;
  int32 frame_id = 0;
  for (auto _ : state) {
    detector.PushSlideWindow(0, window.RowRange(f, 1));
    f = (f + 1) % kWindow;
    ++frame_id;
    for (int k = 0; k < static_cast<int>(std::size(kMethods)); ++k) {
      benchmark::DoNotOptimize(detector.GetHotwordPosterior(0, k, frame_id));
    }
  }
}
BENCHMARK(BM_StepAllSearches);

}  // namespace
}  // namespace kestrel

BENCHMARK_MAIN();
