// kestrel detect: hotwords in WAV files or raw audio on standard input.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "detection-output.h"
#include "progress-bar.h"
#include "facade/hotword-detector.h"
#include "frontend/audio-format.h"
#include "frontend/resampler.h"
#include "frontend/wave-reader.h"
#include "utils/kestrel-globals.h"
#include "utils/kestrel-log.h"
#include "utils/kestrel-utils.h"

namespace kestrel {
namespace {

// Audio shorter than this finishes before a progress bar would help.
constexpr int64 kProgressMinSamples = 60 * static_cast<int64>(kSampleRate);

class DetectCommand {
 public:
  // With `scores`, every search step's scores are printed as JSON lines
  // instead of the detections, which those lines mark.
  DetectCommand(const HotwordDetectorOptions& options, bool json, bool scores)
      : options_(options), json_(json || scores), scores_(scores) {}

  // The detector for audio at `rate`, made on first use (models are loaded
  // once per rate met). Throws KestrelError for models it cannot load.
  HotwordDetector* DetectorFor(int rate);

  // Each returns false after reporting a failure.
  bool RunWave(const std::string& file);
  // Raw little-endian mono samples at `rate`: 16-bit integers, or 32-bit
  // floats when `floats`.
  bool RunStandardInput(int rate, bool floats);

 private:
  void Print(const std::string& file, const std::vector<Detection>& detections,
             ProgressBar* progress);
  // Routes the detector's step scores to standard output, labelled `file`.
  void ListenForScores(HotwordDetector* detector, const std::string& file);

  HotwordDetectorOptions options_;
  bool json_;
  bool scores_;
  std::map<int, std::unique_ptr<HotwordDetector>> detectors_;
  std::vector<float> chunk_;
};

HotwordDetector* DetectCommand::DetectorFor(int rate) {
  std::unique_ptr<HotwordDetector>& detector = detectors_[rate];
  if (!detector) {
    HotwordDetectorOptions options = options_;
    options.sample_rate = rate;
    detector = std::make_unique<HotwordDetector>(options);
  }
  return detector.get();
}

void DetectCommand::ListenForScores(HotwordDetector* detector, const std::string& file) {
  if (!scores_) return;
  detector->SetScoreListener([detector, file](const HotwordScore& s) {
    std::cout << ScoreLine(file, s, detector->HotwordName(s.hotword)) << "\n";
  });
}

void DetectCommand::Print(const std::string& file, const std::vector<Detection>& detections,
                          ProgressBar* progress) {
  if (detections.empty() || scores_) return;
  progress->Clear();
  for (const Detection& d : detections) std::cout << DetectionLine(file, d, json_) << "\n";
  // Lines go out as they are found, for callers that follow a live stream.
  std::cout << std::flush;
}

bool DetectCommand::RunWave(const std::string& file) {
  std::unique_ptr<WaveReader> reader;
  HotwordDetector* detector = nullptr;
  try {
    reader = std::make_unique<WaveReader>(file);
    detector = DetectorFor(reader->SampleRate());
  } catch (const KestrelError& e) {
    Failure(e.what());  // the reader's messages start with the file name
    return false;
  }
  const int64 total = reader->NumSamples();
  ProgressBar progress(file, total >= kProgressMinSamples ? ProgressBar::Show::kOnTerminal
                                                          : ProgressBar::Show::kNever);
  ListenForScores(detector, file);
  chunk_.resize(static_cast<size_t>(reader->SampleRate()));  // a second at a time
  try {
    while (size_t n = reader->Read(chunk_.data(), chunk_.size())) {
      Print(file, detector->Process(chunk_.data(), n), &progress);
      progress.Update(static_cast<double>(reader->Position()), static_cast<double>(total));
    }
    Print(file, detector->Flush(), &progress);
  } catch (const KestrelError& e) {
    progress.Clear();
    detector->Reset();
    Failure(file + ": " + e.what());
    return false;
  }
  return true;
}

bool DetectCommand::RunStandardInput(int rate, bool floats) {
  const std::string label = "-";
  ProgressBar no_progress(label, ProgressBar::Show::kNever);
  const size_t sample_bytes = floats ? 4 : 2;
  std::vector<unsigned char> bytes(sample_bytes * static_cast<size_t>(rate));
  size_t held = 0;  // bytes of a sample split across reads
  HotwordDetector* detector = DetectorFor(rate);
  ListenForScores(detector, label);
  try {
    for (;;) {
      const size_t got = std::fread(bytes.data() + held, 1, bytes.size() - held, stdin);
      if (got == 0) break;
      const size_t available = held + got;
      const size_t n = available / sample_bytes;
      chunk_.resize(n);
      for (size_t i = 0; i < n; ++i) {
        const unsigned char* p = &bytes[sample_bytes * i];
        if (floats) {
          const uint32_t bits = p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
          float v;
          std::memcpy(&v, &bits, 4);
          // As the WAV reader takes floats: clipped, and silence if not a number.
          chunk_[i] = std::isfinite(v) ? std::clamp(v, -1.0f, 1.0f) : 0.0f;
        } else {
          chunk_[i] = static_cast<int16_t>(p[0] | (p[1] << 8)) / 32768.0f;
        }
      }
      held = available % sample_bytes;
      std::memmove(bytes.data(), bytes.data() + available - held, held);
      Print(label, detector->Process(chunk_.data(), n), &no_progress);
    }
    Print(label, detector->Flush(), &no_progress);
  } catch (const KestrelError& e) {
    detector->Reset();
    Failure("standard input: " + std::string(e.what()));
    return false;
  }
  if (std::ferror(stdin)) {
    Failure("standard input: read error.");
    return false;
  }
  if (held) {
    Failure("standard input: ends in the middle of a " + std::to_string(sample_bytes) +
            "-byte sample.");
    return false;
  }
  return true;
}

}  // namespace

int RunDetect(int argc, char** argv) {
  DetectorArgs args;
  bool json = false;
  bool scores = false;
  int rate = kSampleRate;
  std::string format = "s16le";
  ArgParser parser(
      "kestrel detect --model-str=MODELS [options] FILE.wav|- ...",
      "Finds hotwords in WAV files (8-, 16-, 24- or 32-bit PCM or 32- or 64-bit\n"
      "float at 8 to 48 kHz; several channels are mixed down) or, for \"-\", in\n"
      "raw little-endian mono samples on standard input (see --rate and\n"
      "--format). Prints one line per detection: the file, the time in\n"
      "seconds, the hotword number and its name (if given), separated by tabs;\n"
      "with --json, one JSON object per line. A long file shows its progress when\n"
      "standard error is a terminal.\n\n"
      "Exit status: 0 when every input was processed, 1 when an input or a model\n"
      "could not be (the rest are still processed), 2 for a bad command line.");
  AddDetectorOptions(&parser, &args);
  parser.AddFlag("json", &json,
                 "print JSON lines: file, time, sample, hotword,\nname, score");
  parser.AddFlag("scores", &scores,
                 "print every search step's score per hotword as\n"
                 "JSON lines (file, time, sample, hotword, name,\n"
                 "score, detected) instead of the detections; a\n"
                 "hotword is detected when its score reaches\n"
                 "1 - sensitivity (negative scores print as 0;\n"
                 "slower: no search is skipped)");
  parser.AddInt("rate", &rate, "sample rate of standard input, 8000 to 48000");
  parser.AddString("format", &format,
                   "sample format of standard input: s16le (16-bit\n"
                   "integers) or f32le (32-bit floats in [-1, 1])");

  std::vector<std::string> inputs;
  int status = kExitOk;
  if (!parser.ParseCommand(argc, argv, &inputs, &status)) return status;
  if (rate < Resampler::kMinRate || rate > Resampler::kMaxRate) {
    return UsageError("detect", "--rate must be from 8000 to 48000, got " + std::to_string(rate));
  }
  if (format != "s16le" && format != "f32le") {
    return UsageError("detect", "--format must be s16le or f32le, got \"" + format + "\"");
  }
  std::unique_ptr<DetectCommand> command;
  try {
    HotwordDetectorOptions options;
    std::string error;
    if (!MakeDetectorOptions(args, &options, &error)) return UsageError("detect", error);
    if (inputs.empty()) {
      return UsageError("detect", "no input: give WAV files, or - for standard input");
    }
    command = std::make_unique<DetectCommand>(options, json, scores);
    command->DetectorFor(rate);  // model errors surface here, before any input
  } catch (const KestrelError& e) {
    return Failure("cannot load " + args.model_str + ": " + e.what());
  }
  bool ok = true;
  for (const std::string& input : inputs) {
    ok &= input == "-" ? command->RunStandardInput(rate, format == "f32le") : command->RunWave(input);
  }
  return ok ? kExitOk : kExitFailure;
}

}  // namespace kestrel
