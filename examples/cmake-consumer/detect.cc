// Finds "hey kestrel" in a 16 kHz mono 16-bit WAV file with the C++ API.
// usage: detect-cxx MODEL.kmodel FILE.wav
#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

#include "facade/hotword-detector.h"
#include "model/hotword-model.h"
#include "utils/kestrel-log.h"

int main(int argc, char** argv) {
  if (argc != 3) return std::fprintf(stderr, "usage: %s MODEL.kmodel FILE.wav\n", argv[0]), 2;
  std::ifstream wav(argv[2], std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(wav)), {});
  if (bytes.size() < 44) return std::fprintf(stderr, "%s: not a WAV file\n", argv[2]), 1;
  std::vector<int16_t> samples((bytes.size() - 44) / 2);
  std::copy(bytes.begin() + 44, bytes.begin() + 44 + 2 * samples.size(),
            reinterpret_cast<char*>(samples.data()));
  try {
    kestrel::HotwordDetectorOptions options;
    options.models.push_back(kestrel::HotwordModel::ReadFile(argv[1]));
    options.hotword_names = {"hey kestrel"};
    kestrel::HotwordDetector detector(options);
    std::vector<kestrel::Detection> found = detector.Process(samples.data(), samples.size());
    for (const kestrel::Detection& d : detector.Flush()) found.push_back(d);
    for (const kestrel::Detection& d : found)
      std::printf("%s at %.2f s (score %.3f)\n", d.name.c_str(), d.seconds, d.score);
  } catch (const kestrel::KestrelError& e) {
    return std::fprintf(stderr, "%s\n", e.what()), 1;
  }
}
