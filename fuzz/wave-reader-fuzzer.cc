// libFuzzer target for WAV files.
//
// Every input is read as a WAV file image. It must end in a KestrelError or
// in audio: every sample the reader reports (each within [-1, 1]), resampled
// to 16 kHz, then the first sample again after
// a rewind. Anything else (a crash, a sanitizer report, another exception, a
// sample out of range, a hang, a huge allocation) is a finding.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "frontend/audio-format.h"
#include "frontend/resampler.h"
#include "frontend/wave-reader.h"
#include "utils/kestrel-log.h"

namespace {

// Reading stops here: long audio only repeats what its first blocks do.
constexpr int64_t kMaxSamples = 1 << 16;
constexpr size_t kBlockSamples = 1000;

void Fail(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  // Most inputs are refused or warned about: keep that off the console.
  kestrel::SetLogHandler([](kestrel::KestrelLogType, const std::string&, int,
                            const std::string&, const std::string&) {});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  try {
    kestrel::WaveReader reader(
        std::make_unique<std::istringstream>(
            std::string(reinterpret_cast<const char*>(data), size)),
        "input.wav");
    if (reader.NumSamples() < 0 || reader.NumChannels() < 1) Fail("impossible layout");
    kestrel::Resampler resampler(reader.SampleRate(), kestrel::kSampleRate);
    std::vector<float> block(kBlockSamples), resampled;
    int64_t total = 0;
    while (total < kMaxSamples) {
      const size_t n = reader.Read(block.data(), block.size());
      if (n == 0) break;
      for (size_t i = 0; i < n; ++i) {
        if (!(std::fabs(block[i]) <= 1.0f)) Fail("a sample beyond full scale");
      }
      resampler.Process(block.data(), n, &resampled);
      total += static_cast<int64_t>(n);
    }
    if (total == reader.NumSamples() && reader.Position() != total) Fail("lost position");
    resampler.Flush(&resampled);
    reader.Rewind();
    if (reader.NumSamples() > 0 && reader.Read(block.data(), 1) != 1) Fail("rewind failed");
  } catch (const kestrel::KestrelError&) {
    // A refused file is an answer.
  }
  return 0;
}
