// Writes the binary form of each text model named on the command line into a
// directory, so that the fuzzer starts from both encodings.
// Usage: write-binary-seeds OUT_DIR MODEL...
#include <cstdio>
#include <filesystem>
#include <string>

#include "detect/universal-detect-stream.h"
#include "utils/kestrel-log.h"

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s OUT_DIR MODEL...\n", argv[0]);
    return 2;
  }
  const std::filesystem::path out_dir = argv[1];
  for (int i = 2; i < argc; ++i) {
    try {
      kestrel::UniversalDetectStreamOptions options;
      options.model_str = argv[i];
      kestrel::UniversalDetectStream det(options);
      const std::string stem = std::filesystem::path(argv[i]).stem().string();
      det.WriteHotwordModel(true, (out_dir / (stem + "-binary.kmodel")).string());
    } catch (const kestrel::KestrelError& e) {
      // A seed that does not load is a broken seed, not a fuzzing result.
      std::fprintf(stderr, "%s: %s\n", argv[i], e.what());
      return 1;
    }
  }
  return 0;
}
