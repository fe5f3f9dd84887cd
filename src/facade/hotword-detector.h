// HotwordDetector: hotword detection on 16-bit audio in one object.
//
//   kestrel::HotwordDetectorOptions options;
//   options.detector.model_str = "hey-kestrel.kmodel";
//   options.hotword_names = {"hey kestrel"};
//   kestrel::HotwordDetector detector(options);
//   for (const auto& d : detector.Process(samples, n))
//     std::printf("%s at %.2f s\n", d.name.c_str(), d.seconds);
//
// It owns the whole chain, PcmSourceStream -> FilterbankStream ->
// UniversalDetectStream, and adds nothing to it but bookkeeping: audio goes
// to the source, detections come back with their hotword number, name and
// position.
//
// Audio is 16 kHz mono 16-bit. Process takes chunks of any size; the chain
// always sees the same fixed blocks of `block_samples`, so the detections do
// not depend on how the audio was chunked, and a detection is reported at
// most one block after the audio that completed it. Flush ends the stream
// (analysing the last partial block) and starts a new one.
//
// Threads: none of its own. One thread at a time may use a detector; use one
// detector per thread. Separate detectors (even of the same model files) may
// run in parallel, as long as the library globals and the log handler are
// left alone meanwhile. Errors are KestrelError exceptions: construction fails
// on unreadable models or bad options; an error inside Process or Flush (a
// model with an unknown search method) leaves the stream to be Reset.
#ifndef KESTREL_FACADE_HOTWORD_DETECTOR_H_
#define KESTREL_FACADE_HOTWORD_DETECTOR_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "detect/universal-detect-stream.h"
#include "frontend/filterbank-stream.h"
#include "frontend/pcm-source-stream.h"
#include "utils/kestrel-types.h"

namespace kestrel {

struct HotwordDetectorOptions {
  // The detector stage's options; model_str (model files joined by
  // global_kestrel_string_delimiter) is required.
  UniversalDetectStreamOptions detector;
  // Optional: one name per hotword over all models, in hotword-number order.
  std::vector<std::string> hotword_names;
  // Audio is analysed in blocks of this many samples (0.1 s by default).
  // Smaller blocks report sooner and cost more per second of audio.
  int block_samples = PcmSourceStream::kDefaultBlockSamples;
};

struct Detection {
  // 1-based over all models, in load order (as the detector stage numbers them).
  int hotword = 0;
  // options.hotword_names[hotword - 1], or empty when no names were given.
  std::string name;
  // Where the detecting search step began, in samples from the start of the
  // stream: the first sample of its feature frame. With slide_step 1 this is
  // about where the hotword's last part was scored complete, so near its end.
  int64 sample = 0;
  double seconds = 0.0;  // sample / 16000
  // The hotword's search score that passed its threshold (1 - sensitivity).
  float score = 0.0f;
};

// One hotword's score on one search step (see SetScoreListener).
struct HotwordScore {
  int hotword = 0;  // numbered as in Detection
  int64 sample = 0;  // the step's position, as a detection on it would report
  double seconds = 0.0;
  float score = 0.0f;
  bool detected = false;  // this step reported this hotword
};

class HotwordDetector {
 public:
  // Loads the models; throws KestrelError for unreadable models, bad options,
  // a network that does not take the front end's 40 features, or a names
  // list whose length differs from the number of hotwords.
  explicit HotwordDetector(const HotwordDetectorOptions& options);

  // Analyses `n` more samples; returns the detections they completed.
  std::vector<Detection> Process(const int16_t* samples, size_t n);
  // Ends the stream: analyses what is left and returns its detections, then
  // Resets, so the next sample starts a new stream at position 0.
  std::vector<Detection> Flush();
  // Drops pending audio and the detector's held context and windows; the
  // next sample starts a new stream at position 0. The detector's refractory
  // and sensitivity-mode state carries over.
  void Reset();

  int NumHotwords() const { return num_hotwords_; }

  // Pass through to the detector stage: a list joined by
  // global_kestrel_string_delimiter of one value for all hotwords, one per
  // model, or one per hotword.
  void SetSensitivity(const std::string& sensitivities);
  void SetHighSensitivity(const std::string& sensitivities);
  std::string GetSensitivity() const;

  // Called with every hotword's score on every search step, during Process
  // and Flush, on their thread: for plotting scores and tuning thresholds.
  // Searches that are normally skipped when they cannot reach a threshold
  // then all run, which costs time but changes no detection. An empty
  // function stops the calls.
  void SetScoreListener(std::function<void(const HotwordScore&)> listener);

  HotwordDetector(const HotwordDetector&) = delete;
  HotwordDetector& operator=(const HotwordDetector&) = delete;

 private:
  // Runs one block through the chain, appending any detection; returns the
  // signal word.
  int ReadBlock(std::vector<Detection>* detections);
  // The position in the stream of a frame of the detector stage.
  int64 FrameSample(int32 frame_id) const;

  std::vector<std::string> hotword_names_;
  size_t block_samples_;
  PcmSourceStream source_;
  FilterbankStream filterbank_;
  UniversalDetectStream detector_;
  int num_hotwords_ = 0;
  // Frame id of the current stream's first frame (frame ids run on across
  // streams; see FilterbankStream).
  int32 stream_start_frame_ = 0;
  Matrix result_;
  std::vector<FrameInfo> result_info_;
  std::function<void(const HotwordScore&)> score_listener_;
  // Hotword number of each model's first hotword, minus one.
  std::vector<int> first_hotword_;
};

}  // namespace kestrel

#endif  // KESTREL_FACADE_HOTWORD_DETECTOR_H_
