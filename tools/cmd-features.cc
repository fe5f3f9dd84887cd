// kestrel features: the filterbank features of a WAV file, for training.
#include <iostream>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "frontend/filterbank-stream.h"
#include "frontend/wave-source-stream.h"
#include "npy-writer.h"
#include "utils/kestrel-log.h"

namespace kestrel {

int RunFeatures(int argc, char** argv) {
  ArgParser parser(
      "kestrel features IN.wav OUT.npy",
      "Computes the log-mel filterbank features that the detector sees (40 bins,\n"
      "one row per 10 ms frame of 25 ms) and writes them as a float32 NumPy\n"
      "array of shape (frames, 40). IN may be any WAV file that detect reads:\n"
      "other rates are resampled to 16 kHz, several channels are mixed down. A\n"
      "last frame shorter than 25 ms is not computed.");
  std::vector<std::string> files;
  int status = kExitOk;
  if (!parser.ParseCommand(argc, argv, &files, &status)) return status;
  if (files.size() != 2) return UsageError("features", "give one WAV file and one .npy file");

  try {
    WaveSourceStream source(files[0]);
    FilterbankStream filterbank;
    filterbank.Connect(&source);
    std::vector<float> values;
    Matrix features;
    int frames = 0;
    int signal;
    do {
      signal = filterbank.Read(&features, nullptr);
      for (int r = 0; r < features.NumRows(); ++r) {
        values.insert(values.end(), features.RowData(r), features.RowData(r) + features.NumCols());
      }
      frames += features.NumRows();
    } while (!(signal & (kSignalFlush | kSignalStopMask)));
    WriteNpy(files[1], values, frames, FilterbankStream::kNumBins);
  } catch (const KestrelError& e) {
    return Failure(e.what());  // the messages name the file concerned
  }
  return kExitOk;
}

}  // namespace kestrel
