// Soak run: a day of audio through one HotwordDetector, as a host that runs
// for days would stream it.
//
// The audio is built from the bundled sample and noise: 20 s pieces of
// Gaussian noise at a level that changes from piece to piece, every second
// piece with the sample added at a random place and gain. Each piece comes
// from its own seed, so the audio is the same every time it is generated and
// never needs to be held whole while streaming.
//
// Pass 1 streams it in chunks of random sizes (1 sample to 2 s) and records
// the process's memory (resident and peak) after the first hour and at the
// end, and the CPU time spent in the detector. Pass 2 gives the same audio
// to a fresh detector in a single Process call (it holds the whole day in
// memory, about 8 GB for 24 hours) and the detections of both must be the
// same. Exits 1 when they differ or when memory grew after the first hour.
//
// Usage: soak [--hours=24] [--sample=samples/hey-kestrel.wav]
//             [--model=models/hey-kestrel.kmodel]
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "facade/hotword-detector.h"
#include "frontend/audio-format.h"
#include "frontend/wave-reader.h"
#include "model/hotword-model.h"
#include "utils/kestrel-log.h"

namespace kestrel {
namespace {

constexpr int64 kPieceSamples = 20 * static_cast<int64>(kSampleRate);
constexpr int64 kHourSamples = 3600 * static_cast<int64>(kSampleRate);
// Resident memory may move by a page or two between readings.
constexpr long kGrowthToleranceKb = 256;

double CpuSeconds() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return t.tv_sec + 1e-9 * t.tv_nsec;
}

// A field of /proc/self/status in kB ("VmRSS", "VmHWM").
long StatusKb(const char* field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, std::strlen(field), field) == 0 && line[std::strlen(field)] == ':') {
      return std::stol(line.substr(std::strlen(field) + 1));
    }
  }
  return -1;
}

// Piece `index` of the audio (see the file comment).
void MakePiece(int64 index, const std::vector<int16_t>& sample, std::vector<int16_t>* piece) {
  std::mt19937 rng(static_cast<unsigned>(index) * 2654435761u + 17u);
  std::normal_distribution<float> noise(0.0f, std::uniform_real_distribution<float>(50, 600)(rng));
  std::vector<float> mix(static_cast<size_t>(kPieceSamples));
  for (float& v : mix) v = noise(rng);
  if (index % 2 == 1) {
    const size_t at = std::uniform_int_distribution<size_t>(0, mix.size() - sample.size())(rng);
    const float gain = std::uniform_real_distribution<float>(0.5f, 1.0f)(rng);
    for (size_t i = 0; i < sample.size(); ++i) mix[at + i] += gain * sample[i];
  }
  piece->resize(mix.size());
  for (size_t i = 0; i < mix.size(); ++i) {
    (*piece)[i] = static_cast<int16_t>(std::lround(std::fmax(-32768.0f, std::fmin(32767.0f, mix[i]))));
  }
}

bool Same(const std::vector<Detection>& a, const std::vector<Detection>& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i].sample != b[i].sample || a[i].hotword != b[i].hotword || a[i].score != b[i].score) {
      return false;
    }
  }
  return true;
}

int Run(int hours, const std::string& sample_path, const std::string& model) {
  const std::vector<int16_t> sample = ReadWaveFile(sample_path);
  HotwordDetectorOptions options;
  options.models.push_back(HotwordModel::ReadFile(model));
  const int64 pieces = hours * kHourSamples / kPieceSamples;
  std::printf("soak: %d h of audio (%lld pieces of 20 s, %lld with the sample), model %s\n", hours,
              static_cast<long long>(pieces), static_cast<long long>(pieces / 2), model.c_str());

  // Pass 1: streamed in random chunks.
  std::vector<Detection> streamed;
  // Room for a detection per piece, so the list's growth is not counted.
  streamed.reserve(static_cast<size_t>(pieces));
  double detector_cpu = 0.0;
  long rss_start = 0, peak_start = 0, rss_end = 0, peak_end = 0;
  {
    HotwordDetector detector(options);
    std::mt19937 chunk_rng(7);
    std::uniform_int_distribution<int64> chunk_size(1, 2 * kSampleRate);
    std::vector<int16_t> piece;
    for (int64 p = 0; p < pieces; ++p) {
      MakePiece(p, sample, &piece);
      for (int64 at = 0; at < kPieceSamples;) {
        const int64 n = std::min(chunk_size(chunk_rng), kPieceSamples - at);
        const double before = CpuSeconds();
        for (const Detection& d : detector.Process(piece.data() + at, static_cast<size_t>(n))) {
          streamed.push_back(d);
        }
        detector_cpu += CpuSeconds() - before;
        at += n;
      }
      if ((p + 1) * kPieceSamples == kHourSamples) {
        rss_start = StatusKb("VmRSS");
        peak_start = StatusKb("VmHWM");
      }
    }
    const double before = CpuSeconds();
    for (const Detection& d : detector.Flush()) streamed.push_back(d);
    detector_cpu += CpuSeconds() - before;
    rss_end = StatusKb("VmRSS");
    peak_end = StatusKb("VmHWM");
  }
  std::printf("memory after hour 1: resident %ld kB, peak %ld kB\n", rss_start, peak_start);
  std::printf("memory at the end:   resident %ld kB, peak %ld kB\n", rss_end, peak_end);
  std::printf("detector CPU: %.1f s for %d h of audio (%.2f s per hour, real-time factor %.5f)\n",
              detector_cpu, hours, detector_cpu / hours, detector_cpu / (hours * 3600.0));
  std::printf("detections: %zu (the sample was added %lld times)\n", streamed.size(),
              static_cast<long long>(pieces / 2));
  for (size_t i = 0; i < streamed.size() && i < 3; ++i) {
    std::printf("  at %.2f s, hotword %d, score %.4f\n", streamed[i].seconds, streamed[i].hotword,
                streamed[i].score);
  }

  // Pass 2: the same audio at once.
  std::vector<Detection> whole;
  {
    std::vector<int16_t> audio(static_cast<size_t>(pieces * kPieceSamples));
    std::vector<int16_t> piece;
    for (int64 p = 0; p < pieces; ++p) {
      MakePiece(p, sample, &piece);
      std::copy(piece.begin(), piece.end(), audio.begin() + p * kPieceSamples);
    }
    HotwordDetector detector(options);
    whole = detector.Process(audio.data(), audio.size());
    for (const Detection& d : detector.Flush()) whole.push_back(d);
  }
  const bool same = Same(streamed, whole);
  const bool grew = peak_end > peak_start + kGrowthToleranceKb;
  std::printf("detections processed at once: %zu, %s\n", whole.size(),
              same ? "identical" : "DIFFERENT");
  std::printf("memory %s after hour 1\n", grew ? "GREW" : "did not grow");
  return same && !grew ? 0 : 1;
}

}  // namespace
}  // namespace kestrel

int main(int argc, char** argv) {
  int hours = 24;
  std::string sample = KESTREL_SOURCE_DIR "/samples/hey-kestrel.wav";
  std::string model = KESTREL_SOURCE_DIR "/models/hey-kestrel.kmodel";
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.compare(0, 8, "--hours=") == 0) {
      hours = std::atoi(arg.c_str() + 8);
    } else if (arg.compare(0, 9, "--sample=") == 0) {
      sample = arg.substr(9);
    } else if (arg.compare(0, 8, "--model=") == 0) {
      model = arg.substr(8);
    } else {
      std::fprintf(stderr, "usage: soak [--hours=24] [--sample=WAV] [--model=KMODEL]\n");
      return 2;
    }
  }
  if (hours < 1) {
    std::fprintf(stderr, "soak: --hours must be at least 1\n");
    return 2;
  }
  try {
    return kestrel::Run(hours, sample, model);
  } catch (const kestrel::KestrelError& e) {
    std::fprintf(stderr, "soak: %s\n", e.what());
    return 1;
  }
}
