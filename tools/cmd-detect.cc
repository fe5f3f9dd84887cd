// kestrel detect: hotwords in WAV files or raw audio on standard input.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "facade/hotword-detector.h"
#include "frontend/audio-format.h"
#include "frontend/wave-reader.h"
#include "utils/kestrel-globals.h"
#include "utils/kestrel-log.h"
#include "utils/kestrel-utils.h"

namespace kestrel {
namespace {

constexpr size_t kChunkSamples = kSampleRate;  // read one second at a time
// Audio shorter than this finishes before a progress bar would help.
constexpr int64 kProgressMinSamples = 60 * static_cast<int64>(kSampleRate);

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      static const char kHex[] = "0123456789abcdef";
      out += "\\u00";
      out += kHex[c >> 4];
      out += kHex[c & 0xF];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

// A one-line bar on standard error, redrawn in place, for long files when
// standard error is a terminal. Cleared before any other output.
class ProgressBar {
 public:
  ProgressBar(const std::string& label, int64 total)
      : label_(label), total_(total), shown_(total >= kProgressMinSamples && isatty(2)) {}
  ~ProgressBar() { Clear(); }

  void Update(int64 done) {
    if (!shown_) return;
    const int percent = static_cast<int>(100 * done / total_);
    if (percent == percent_) return;
    percent_ = percent;
    const int filled = percent / 5;
    std::cerr << "\r" << label_ << " [" << std::string(filled, '#')
              << std::string(20 - filled, '.') << "] " << percent << "%" << std::flush;
    drawn_ = true;
  }

  void Clear() {
    if (!drawn_) return;
    std::cerr << "\r\033[K" << std::flush;
    drawn_ = false;
    percent_ = -1;
  }

 private:
  std::string label_;
  int64 total_;
  bool shown_;
  bool drawn_ = false;
  int percent_ = -1;
};

// A score as a JSON number (null if it is not a number). Searches that find
// no path at all score hugely negative; those print as 0, which keeps plots
// readable and is below every threshold all the same.
std::string JsonScore(float score) {
  if (std::isnan(score)) return "null";
  score = std::fmax(score, 0.0f);
  char text[32];
  std::snprintf(text, sizeof(text), "%.5g", score);
  return text;
}

class DetectCommand {
 public:
  // With `scores`, every search step's scores are printed as JSON lines
  // instead of the detections, which those lines mark.
  DetectCommand(HotwordDetector* detector, bool json, bool scores)
      : detector_(detector), json_(json || scores), scores_(scores) {}

  // Each returns false after reporting a failure.
  bool RunWave(const std::string& file);
  bool RunStandardInput();

 private:
  void Print(const std::string& file, const std::vector<Detection>& detections,
             ProgressBar* progress);
  // Routes the detector's step scores to standard output, labelled `file`.
  void ListenForScores(const std::string& file);

  HotwordDetector* detector_;
  bool json_;
  bool scores_;
  std::vector<int16_t> chunk_ = std::vector<int16_t>(kChunkSamples);
};

void DetectCommand::ListenForScores(const std::string& file) {
  if (!scores_) return;
  detector_->SetScoreListener([this, file](const HotwordScore& s) {
    char time[32];
    std::snprintf(time, sizeof(time), "%.2f", s.seconds);
    std::cout << "{\"file\": " << JsonString(file) << ", \"time\": " << time
              << ", \"sample\": " << s.sample << ", \"hotword\": " << s.hotword;
    const std::string& name = detector_->HotwordName(s.hotword);
    if (!name.empty()) std::cout << ", \"name\": " << JsonString(name);
    std::cout << ", \"score\": " << JsonScore(s.score)
              << ", \"detected\": " << (s.detected ? "true" : "false") << "}\n";
  });
}

void DetectCommand::Print(const std::string& file, const std::vector<Detection>& detections,
                          ProgressBar* progress) {
  if (detections.empty() || scores_) return;
  progress->Clear();
  for (const Detection& d : detections) {
    char time[32];
    std::snprintf(time, sizeof(time), "%.2f", d.seconds);
    if (json_) {
      std::cout << "{\"file\": " << JsonString(file) << ", \"time\": " << time
                << ", \"sample\": " << d.sample << ", \"hotword\": " << d.hotword;
      if (!d.name.empty()) std::cout << ", \"name\": " << JsonString(d.name);
      std::cout << ", \"score\": " << JsonScore(d.score) << "}\n";
    } else {
      std::cout << file << "\t" << time << "\t" << d.hotword;
      if (!d.name.empty()) std::cout << "\t" << d.name;
      std::cout << "\n";
    }
  }
  // Lines go out as they are found, for callers that follow a live stream.
  std::cout << std::flush;
}

bool DetectCommand::RunWave(const std::string& file) {
  std::unique_ptr<WaveReader> reader;
  try {
    reader = std::make_unique<WaveReader>(file);
  } catch (const KestrelError& e) {
    Failure(e.what());  // the reader's messages start with the file name
    return false;
  }
  ProgressBar progress(file, reader->NumSamples());
  ListenForScores(file);
  try {
    while (size_t n = reader->Read(chunk_.data(), chunk_.size())) {
      Print(file, detector_->Process(chunk_.data(), n), &progress);
      progress.Update(reader->Position());
    }
    Print(file, detector_->Flush(), &progress);
  } catch (const KestrelError& e) {
    progress.Clear();
    detector_->Reset();
    Failure(file + ": " + e.what());
    return false;
  }
  return true;
}

bool DetectCommand::RunStandardInput() {
  const std::string label = "-";
  ProgressBar no_progress(label, 0);
  std::vector<unsigned char> bytes(2 * kChunkSamples);
  size_t held = 0;  // a byte of a sample split across reads
  ListenForScores(label);
  try {
    for (;;) {
      const size_t got = std::fread(bytes.data() + held, 1, bytes.size() - held, stdin);
      if (got == 0) break;
      const size_t available = held + got;
      const size_t n = available / 2;
      for (size_t i = 0; i < n; ++i) {
        chunk_[i] = static_cast<int16_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8));
      }
      held = available % 2;
      if (held) bytes[0] = bytes[available - 1];
      Print(label, detector_->Process(chunk_.data(), n), &no_progress);
    }
    Print(label, detector_->Flush(), &no_progress);
  } catch (const KestrelError& e) {
    detector_->Reset();
    Failure("standard input: " + std::string(e.what()));
    return false;
  }
  if (std::ferror(stdin)) {
    Failure("standard input: read error.");
    return false;
  }
  if (held) {
    Failure("standard input: ends in the middle of a sample (an odd number of bytes).");
    return false;
  }
  return true;
}

}  // namespace

int RunDetect(int argc, char** argv) {
  DetectorArgs args;
  bool json = false;
  bool scores = false;
  ArgParser parser(
      "kestrel detect --model-str=MODELS [options] FILE.wav|- ...",
      "Finds hotwords in WAV files (16 kHz 16-bit PCM; several channels are mixed\n"
      "down) or, for \"-\", in raw 16 kHz 16-bit little-endian mono samples on\n"
      "standard input. Prints one line per detection: the file, the time in\n"
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

  std::vector<std::string> inputs;
  int status = kExitOk;
  if (!parser.ParseCommand(argc, argv, &inputs, &status)) return status;
  std::unique_ptr<HotwordDetector> detector;
  try {
    HotwordDetectorOptions options;
    std::string error;
    if (!MakeDetectorOptions(args, &options, &error)) return UsageError("detect", error);
    if (inputs.empty()) {
      return UsageError("detect", "no input: give WAV files, or - for standard input");
    }
    detector = std::make_unique<HotwordDetector>(options);
  } catch (const KestrelError& e) {
    return Failure("cannot load " + args.model_str + ": " + e.what());
  }
  DetectCommand command(detector.get(), json, scores);
  bool ok = true;
  for (const std::string& input : inputs) {
    ok &= input == "-" ? command.RunStandardInput() : command.RunWave(input);
  }
  return ok ? kExitOk : kExitFailure;
}

}  // namespace kestrel
