// Test helpers: synthetic audio and WAV files built byte by byte, so that the
// reader is checked against files it did not write itself; file bytes.
#ifndef KESTREL_TESTS_TEST_AUDIO_H_
#define KESTREL_TESTS_TEST_AUDIO_H_

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace kestrel {

inline std::string Le16Bytes(uint32_t v) {
  return std::string{static_cast<char>(v & 0xFF), static_cast<char>((v >> 8) & 0xFF)};
}
inline std::string Le32Bytes(uint32_t v) { return Le16Bytes(v) + Le16Bytes(v >> 16); }

inline std::string Pcm16Bytes(const std::vector<int16_t>& samples) {
  std::string bytes;
  for (int16_t s : samples) bytes += Le16Bytes(static_cast<uint16_t>(s));
  return bytes;
}

struct WaveLayout {
  explicit WaveLayout(uint32_t rate = 16000, int channels = 1, int bits = 16, uint16_t format = 1,
                      uint16_t subformat = 1)
      : format(format), subformat(subformat), channels(channels), rate(rate), bits(bits) {}
  uint16_t format = 1;  // 1 PCM, 3 float, 0xFFFE extensible
  uint16_t subformat = 1;  // the extensible layout's format code
  int channels = 1;
  uint32_t rate = 16000;
  int bits = 16;
  // Chunks written between "fmt " and "data" as (id, body); odd bodies get a pad byte.
  std::vector<std::pair<std::string, std::string>> extra_chunks;
};

inline std::string Chunk(const std::string& id, const std::string& body) {
  return id + Le32Bytes(static_cast<uint32_t>(body.size())) + body +
         (body.size() % 2 ? std::string(1, '\0') : std::string());
}

inline std::string WaveBytes(const std::string& data, const WaveLayout& layout = WaveLayout()) {
  const uint32_t block_align = layout.channels * layout.bits / 8;
  std::string format = Le16Bytes(layout.format) + Le16Bytes(layout.channels) +
                       Le32Bytes(layout.rate) + Le32Bytes(layout.rate * block_align) +
                       Le16Bytes(block_align) + Le16Bytes(layout.bits);
  if (layout.format == 0xFFFE) {
    format += Le16Bytes(22) + Le16Bytes(layout.bits) + Le32Bytes(0) + Le16Bytes(layout.subformat) +
              std::string("\x00\x00\x00\x00\x10\x00\x80\x00\x00\xAA\x00\x38\x9B\x71", 14);
  }
  std::string body = "WAVE" + Chunk("fmt ", format);
  for (const auto& chunk : layout.extra_chunks) body += Chunk(chunk.first, chunk.second);
  body += Chunk("data", data);
  return "RIFF" + Le32Bytes(static_cast<uint32_t>(body.size())) + body;
}

inline void WriteBytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string ReadFileBytes(const std::string& path) {
  std::ifstream is(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(is), std::istreambuf_iterator<char>());
}

inline void WriteWave(const std::string& path, const std::vector<int16_t>& samples) {
  WriteBytes(path, WaveBytes(Pcm16Bytes(samples)));
}

// Uniform white noise of the given peak amplitude, reproducible by seed.
inline std::vector<int16_t> Noise(size_t n, int amplitude, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> dist(-amplitude, amplitude);
  std::vector<int16_t> samples(n);
  for (auto& s : samples) s = static_cast<int16_t>(dist(rng));
  return samples;
}

// Adds a sine of `hz` and peak `amplitude` over [start, start + length) samples.
inline void AddTone(std::vector<int16_t>* samples, double hz, int amplitude, size_t start,
                    size_t length, double rate = 16000.0) {
  const double pi = std::acos(-1.0);
  for (size_t i = start; i < start + length && i < samples->size(); ++i) {
    const double v = (*samples)[i] + amplitude * std::sin(2 * pi * hz * (i - start) / rate);
    (*samples)[i] = static_cast<int16_t>(std::lround(std::fmax(-32768.0, std::fmin(32767.0, v))));
  }
}

// A file name in a temporary directory of this process's own, so that test
// programs running in parallel do not collide. The directory and all in it
// are removed when the process exits, so that repeated runs leave nothing.
inline std::string TempPath(const std::string& name) {
  struct ProcessDirectory {
    const std::string path = ::testing::TempDir() + "kestrel-" + std::to_string(getpid());
    ProcessDirectory() { std::filesystem::create_directories(path); }
    ~ProcessDirectory() {
      std::error_code ignored;
      std::filesystem::remove_all(path, ignored);
    }
  };
  static const ProcessDirectory directory;
  return directory.path + "/" + name;
}

}  // namespace kestrel

#endif  // KESTREL_TESTS_TEST_AUDIO_H_
