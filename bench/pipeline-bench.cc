// One hour of audio through the whole chain (HotwordDetector: source,
// filterbank, network and detector), in two configurations:
//   typical: the bundled model, models/hey-kestrel.kmodel (one hotword,
//     searched as its file says);
//   two-hotwords: a representative network (40 features spliced -10..+5,
//     affine 640x128, 128x128, 128x128, 128x12 with ReLU, softmax; random
//     weights) with two five-unit Viterbi hotwords.
// Reports the real-time factor (processing time / audio time) of the chain
// and of each stage run on its own over the same data, and each stage's
// share. Times are the CPU time of the benchmark's thread, so that other load
// on the machine does not inflate them; the real-time factor is that of one
// core.
//
// The stages are timed apart as: the source alone; source + filterbank minus
// the source; the network and detector fed precomputed features; and the
// network alone on the same features (the rest of that stage is smoothing and
// search). The audio is noise with tones, no speech: the searches' cost there
// is that of listening to a room where nobody says the hotword.
#include <benchmark/benchmark.h>

#include <time.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "detect/universal-detect-stream.h"
#include "facade/hotword-detector.h"
#include "frontend/audio-format.h"
#include "frontend/filterbank-stream.h"
#include "frontend/pcm-source-stream.h"
#include "nnet/nnet-activation.h"
#include "nnet/nnet-affine-transform.h"
#include "nnet/nnet-splice.h"
#include "nnet/nnet.h"

namespace kestrel {
namespace {

constexpr double kAudioSeconds = 3600.0;
constexpr size_t kChunk = kSampleRate;  // the host hands over one second at a time

// Noise with a 0.5 s tone pair every 20 s.
const std::vector<int16_t>& Audio() {
  static const std::vector<int16_t> audio = [] {
    std::mt19937 rng(1);
    std::normal_distribution<float> noise(0.0f, 300.0f);
    std::vector<int16_t> samples(static_cast<size_t>(kAudioSeconds * kSampleRate));
    const double pi = std::acos(-1.0);
    for (size_t i = 0; i < samples.size(); ++i) {
      double v = noise(rng);
      const size_t in_period = i % (20 * kSampleRate);
      if (in_period < kSampleRate / 2) {
        const double hz = in_period < kSampleRate / 4 ? 600.0 : 1800.0;
        v += 5000.0 * std::sin(2.0 * pi * hz * i / kSampleRate);
      }
      samples[i] = static_cast<int16_t>(std::lround(v));
    }
    return samples;
  }();
  return audio;
}

Nnet RepresentativeNnet() {
  std::mt19937 rng(7);
  Nnet nnet;
  std::vector<int32> offsets;
  for (int o = -10; o <= 5; ++o) offsets.push_back(o);
  nnet.AppendComponent(std::make_unique<Splice>(FilterbankStream::kNumBins, offsets));
  int dim = nnet.OutputDim();
  for (int out : {128, 128, 128, 12}) {
    std::normal_distribution<float> normal(0.0f, 1.0f / std::sqrt(static_cast<float>(dim)));
    Matrix weights(out, dim);
    Vector bias(out);
    for (int r = 0; r < out; ++r) {
      for (int c = 0; c < dim; ++c) weights(r, c) = normal(rng);
      bias(r) = 0.1f * normal(rng);
    }
    nnet.AppendComponent(std::make_unique<AffineTransform>(weights, bias));
    if (out != 12) nnet.AppendComponent(std::make_unique<Relu>(out));
    dim = out;
  }
  nnet.AppendComponent(std::make_unique<Softmax>(dim));
  return nnet;
}

// The two-hotword model file, written once; returns its path.
const std::string& TwoHotwordModelPath() {
  static const std::string path = [] {
    const std::string file = "/tmp/kestrel-pipeline-bench.kmodel";
    std::ofstream os(file);
    os << "<UniversalModel> <KwInfo> <SmoothWindow> 5 <SlideWindow> 100 <NumKws> 2\n";
    for (int first : {1, 6}) {
      os << "<Kw> [";
      for (int u = first; u < first + 5; ++u) os << " " << u;
      os << " ] <Sensitivity> 0.5 <SearchMethod> 3 <SearchNeighbour> 0"
         << " <SearchMask> [ 0 20 40 60 80 100 ] <SearchFloor> [ 0.1 0.1 0.1 0.1 0.1 ]\n";
    }
    os << "</KwInfo>\n";
    RepresentativeNnet().Write(false, &os);
    return file;
  }();
  return path;
}

// Benchmark argument: 0 the typical configuration, 1 the two-hotword one.
const char* const kConfigNames[] = {"typical", "two-hotwords"};

HotwordDetectorOptions DetectorOptions(int config) {
  HotwordDetectorOptions options;
  options.models = {HotwordModel::ReadFile(
      config == 0 ? std::string(KESTREL_MODEL_DIR "/hey-kestrel.kmodel") : TwoHotwordModelPath())};
  return options;
}

// Feature blocks as the filterbank delivers them to the detector.
struct FeatureBlocks {
  std::vector<Matrix> blocks;
  std::vector<std::vector<FrameInfo>> infos;
};

const FeatureBlocks& Features() {
  static const FeatureBlocks features = [] {
    FeatureBlocks f;
    const std::vector<int16_t>& audio = Audio();
    PcmSourceStream source;
    FilterbankStream filterbank;
    filterbank.Connect(&source);
    source.Push(audio.data(), audio.size());
    source.MarkEnd();
    int signal;
    do {
      f.blocks.emplace_back();
      f.infos.emplace_back();
      signal = filterbank.Read(&f.blocks.back(), &f.infos.back());
    } while (!(signal & kSignalFlush));
    return f;
  }();
  return features;
}

// Plays back precomputed feature blocks, the last with kSignalFlush.
class ReplayStream : public StreamItf {
 public:
  explicit ReplayStream(const FeatureBlocks& features) : features_(features) {}
  int Read(Matrix* data, std::vector<FrameInfo>* frame_info) override {
    if (next_ == features_.blocks.size()) return kSignalEnd;
    *data = features_.blocks[next_];
    *frame_info = features_.infos[next_];
    return ++next_ == features_.blocks.size() ? kSignalFlush : 0;
  }
  bool Reset() override { return true; }
  std::string Name() const override { return "ReplayStream"; }

 private:
  const FeatureBlocks& features_;
  size_t next_ = 0;
};

// Seconds per hour of audio, by measurement name, for the summary.
std::map<std::string, double>& Timings() {
  static std::map<std::string, double> timings;
  return timings;
}

double ThreadCpuSeconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// Times `body` once per benchmark iteration; records CPU seconds per hour of
// audio.
template <class Body>
void Measure(benchmark::State& state, const std::string& name, Body body) {
  for (auto _ : state) {
    const double start = ThreadCpuSeconds();
    body();
    const double seconds = ThreadCpuSeconds() - start;
    state.SetIterationTime(seconds);
    Timings()[name] = seconds;
    state.counters["RTF"] = seconds / kAudioSeconds;
  }
}

void BM_Pipeline(benchmark::State& state) {
  const int config = static_cast<int>(state.range(0));
  const std::vector<int16_t>& audio = Audio();
  HotwordDetector detector(DetectorOptions(config));
  size_t detections = 0;
  Measure(state, std::string("pipeline/") + kConfigNames[config], [&] {
    for (size_t at = 0; at < audio.size(); at += kChunk) {
      detections += detector.Process(audio.data() + at, std::min(kChunk, audio.size() - at)).size();
    }
    detections += detector.Flush().size();
  });
  state.counters["detections"] = static_cast<double>(detections);
}

void BM_Source(benchmark::State& state) {
  const std::vector<int16_t>& audio = Audio();
  PcmSourceStream source;
  Matrix block;
  Measure(state, "source", [&] {
    for (size_t at = 0; at < audio.size(); at += kChunk) {
      source.Push(audio.data() + at, std::min(kChunk, audio.size() - at));
      while (source.NumPending() > 0) source.Read(&block, nullptr);
    }
  });
}

void BM_SourceAndFilterbank(benchmark::State& state) {
  const std::vector<int16_t>& audio = Audio();
  PcmSourceStream source;
  FilterbankStream filterbank;
  filterbank.Connect(&source);
  Matrix features;
  std::vector<FrameInfo> info;
  Measure(state, "source+filterbank", [&] {
    for (size_t at = 0; at < audio.size(); at += kChunk) {
      source.Push(audio.data() + at, std::min(kChunk, audio.size() - at));
      while (source.NumPending() > 0) filterbank.Read(&features, &info);
    }
  });
}

void BM_NetworkAndDetector(benchmark::State& state) {
  const int config = static_cast<int>(state.range(0));
  const FeatureBlocks& features = Features();
  UniversalDetectStream detector(UniversalDetectStreamOptions(), DetectorOptions(config).models);
  Matrix result;
  std::vector<FrameInfo> info;
  Measure(state, std::string("network+detector/") + kConfigNames[config], [&] {
    ReplayStream replay(features);
    detector.Connect(&replay);
    while (!(detector.Read(&result, &info) & kSignalEnd)) {
    }
  });
}

void BM_Network(benchmark::State& state) {
  const int config = static_cast<int>(state.range(0));
  const FeatureBlocks& features = Features();
  Nnet nnet = DetectorOptions(config).models[0].nnet;
  Matrix posteriors;
  std::vector<FrameInfo> info;
  Measure(state, std::string("network/") + kConfigNames[config], [&] {
    for (size_t b = 0; b < features.blocks.size(); ++b) {
      nnet.Compute(features.blocks[b], features.infos[b], &posteriors, &info);
    }
  });
}

BENCHMARK(BM_Pipeline)->Arg(0)->Arg(1)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_Source)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_SourceAndFilterbank)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_NetworkAndDetector)->Arg(0)->Arg(1)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_Network)->Arg(0)->Arg(1)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

void PrintShares(const std::string& config) {
  std::map<std::string, double>& t = Timings();
  const std::string pipeline = "pipeline/" + config, network = "network/" + config,
                    network_detector = "network+detector/" + config;
  if (!t.count(pipeline) || !t.count("source") || !t.count("source+filterbank") ||
      !t.count(network_detector) || !t.count(network)) {
    return;  // a filter left some out
  }
  const struct {
    const char* name;
    double seconds;
  } stages[] = {
      {"source", t["source"]},
      {"filterbank", t["source+filterbank"] - t["source"]},
      {"network", t[network]},
      {"smoothing+search", t[network_detector] - t[network]},
  };
  double sum = 0.0;
  for (const auto& s : stages) sum += s.seconds;
  std::printf("\n%s: one hour of audio, pipeline %.2f s of CPU, real-time factor %.5f (%.0fx "
              "faster than real time on one core)\n",
              config.c_str(), t[pipeline], t[pipeline] / kAudioSeconds, kAudioSeconds / t[pipeline]);
  std::printf("%-18s %10s %12s %8s\n", "stage", "seconds", "RTF", "share");
  for (const auto& s : stages) {
    std::printf("%-18s %10.2f %12.5f %7.1f%%\n", s.name, s.seconds, s.seconds / kAudioSeconds,
                100.0 * s.seconds / sum);
  }
  std::printf("(stages measured apart; their sum %.2f s against the chain's %.2f s)\n", sum,
              t[pipeline]);
}

}  // namespace
}  // namespace kestrel

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  for (const char* config : kestrel::kConfigNames) kestrel::PrintShares(config);
  benchmark::Shutdown();
  return 0;
}
