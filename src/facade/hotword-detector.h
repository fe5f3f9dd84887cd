// HotwordDetector: hotword detection on live or recorded audio in one object.
//
//   kestrel::HotwordDetectorOptions options;
//   options.models.push_back(kestrel::HotwordModel::ReadFile("hey-kestrel.kmodel"));
//   options.hotword_names = {"hey kestrel"};
//   kestrel::HotwordDetector detector(options);
//   for (const auto& d : detector.Process(samples, n))
//     std::printf("%s at %.2f s\n", d.name.c_str(), d.seconds);
//
// It owns the whole chain, Resampler -> PcmSourceStream -> FilterbankStream
// -> UniversalDetectStream, and adds nothing to it but bookkeeping: audio
// goes to the source, detections come back with their hotword number, name,
// position and score. Options are typed values; parsing command-line strings is the
// caller's business (the `kestrel` tools do it in tools/args.cc).
//
// Audio is mono, 16-bit integers or floats in [-1, 1], at the options'
// sample_rate (8 to 48 kHz); other rates than the front end's 16 kHz are
// resampled (16 kHz integers go in untouched). Process takes chunks of any
// size; the chain always sees the same fixed blocks of `block_samples`, so
// the detections do not depend on how the audio was chunked, and a detection
// is reported at most one block (plus, when resampling, a few milliseconds
// of filter) after the audio that completed it. Flush ends the stream
// (analysing the last partial block) and starts a new one.
//
// Hotwords are numbered from 1 over all models in load order, as in
// Detection::hotword; the per-hotword accessors take that number.
//
// Ownership: the detector copies what it needs from the options (models
// included) and owns the chain; the caller keeps its options. Threads: none
// of its own. One thread at a time may use a detector; use one detector per
// thread. Separate detectors (even of the same models) may run in parallel,
// as long as the library globals and the log handler are left alone
// meanwhile. Errors are KestrelError exceptions: construction fails on
// unusable models or bad options, leaving nothing behind; an error inside
// Process or Flush (a model with an unknown search method) leaves the stream
// to be Reset.
#ifndef KESTREL_FACADE_HOTWORD_DETECTOR_H_
#define KESTREL_FACADE_HOTWORD_DETECTOR_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "detect/universal-detect-stream.h"
#include "frontend/filterbank-stream.h"
#include "frontend/audio-format.h"
#include "frontend/pcm-source-stream.h"
#include "frontend/resampler.h"
#include "model/hotword-model.h"
#include "utils/kestrel-types.h"
#include "utils/kestrel-export.h"

KESTREL_PUBLIC_BEGIN

namespace kestrel {

struct HotwordDetectorOptions {
  // The models, in load order (HotwordModel::ReadFile or ReadMemory); at
  // least one. Their networks must take the front end's 40 features.
  std::vector<HotwordModel> models;
  // Empty: each hotword keeps its model's sensitivity. Otherwise one value
  // for every hotword, one per model or one per hotword (one per model wins
  // when the counts agree). Higher detects more; scores are compared with
  // 1 - sensitivity.
  std::vector<float> sensitivities;
  // Used for a while after a near miss, as above. Empty: the same as
  // `sensitivities`, which keeps that mode off.
  std::vector<float> high_sensitivities;
  // Empty, or one name per hotword in hotword-number order. Empty: each
  // hotword is called by the name its model file stores, else after the
  // file: "hey-computer.kmodel" -> "hey computer" ('-' and '_' as spaces,
  // the extension dropped), "alarms.kmodel" with two -> "alarms 1",
  // "alarms 2". A model read from memory is named so only when the name it
  // was given has an extension, like a file's.
  std::vector<std::string> hotword_names;
  // Empty: the models' own lengths. Otherwise one per model, in frames:
  // posterior smoothing and search windows.
  std::vector<int32> smooth_windows;
  std::vector<int32> slide_windows;
  // Feature frames per search step; at least 1. Larger steps cost less and
  // add latency.
  int32 slide_step = 1;
  // Frames each unit must last in the Viterbi searches.
  int32 min_state_frames = 5;
  // Piece layouts per hotword in the piecewise search.
  int32 num_piece_layouts = 3;
  // Frames after a detection in which no other is reported.
  int32 refractory_frames = 100;
  // Naive search only: skip its floor and unit-order tests.
  bool no_order_check = false;
  // Audio is analysed in blocks of this many 16 kHz samples (0.1 s by
  // default). Smaller blocks report sooner and cost more per second of audio.
  int block_samples = PcmSourceStream::kDefaultBlockSamples;
  // Samples per second of the audio given to Process, from 8000 to 48000.
  int sample_rate = kSampleRate;
};

struct Detection {
  // 1-based over all models, in load order (as the detector stage numbers them).
  int hotword = 0;
  // The hotword's name (HotwordName).
  std::string name;
  // Where the detecting search step began, in input samples (at the
  // options' sample_rate) from the start of the stream: the first sample of
  // its feature frame. With slide_step 1 this is about where the hotword's
  // last part was scored complete, so near its end.
  int64 sample = 0;
  double seconds = 0.0;  // sample / sample_rate
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
  // Builds the chain on copies of the models; throws KestrelError for no
  // models, a model the detector cannot run, a network that does not take
  // the front end's 40 features, or a list whose length does not fit (names,
  // sensitivities, window lengths).
  explicit HotwordDetector(const HotwordDetectorOptions& options);

  // Analyses `n` more samples; returns the detections they completed.
  std::vector<Detection> Process(const int16_t* samples, size_t n);
  // The same for floats, full scale being [-1, 1] (larger values are not
  // clipped).
  std::vector<Detection> Process(const float* samples, size_t n);
  // Ends the stream: analyses what is left and returns its detections, then
  // Resets, so the next sample starts a new stream at position 0.
  std::vector<Detection> Flush();
  // Drops pending audio and the detector's held context and windows; the
  // next sample starts a new stream at position 0. The detector's refractory
  // and sensitivity-mode state carries over.
  void Reset();

  int NumHotwords() const { return static_cast<int>(hotwords_.size()); }
  int SampleRate() const { return resampler_.InputRate(); }
  // Hotword `hotword` (1 to NumHotwords()): the name given in the options,
  // else the one its model stores, else its model's file name as words
  // (see HotwordDetectorOptions::hotword_names); "" for a model without a
  // stored name read from memory under a name without an extension.
  const std::string& HotwordName(int hotword) const;

  // Sensitivities apply from the next search step. The list forms follow
  // HotwordDetectorOptions::sensitivities; the single forms set one hotword
  // (1 to NumHotwords()). Bad counts or numbers are errors that change
  // nothing.
  void SetSensitivities(const std::vector<float>& values);
  void SetHighSensitivities(const std::vector<float>& values);
  void SetSensitivity(int hotword, float value);
  void SetHighSensitivity(int hotword, float value);
  // One value per hotword, in hotword-number order.
  std::vector<float> Sensitivities() const;
  std::vector<float> HighSensitivities() const;
  float Sensitivity(int hotword) const;
  float HighSensitivity(int hotword) const;

  // Called with every hotword's score on every search step, during Process
  // and Flush, on their thread: for plotting scores and tuning thresholds.
  // Searches that are normally skipped when they cannot reach a threshold
  // then all run, which costs time but changes no detection. An empty
  // function stops the calls.
  void SetScoreListener(std::function<void(const HotwordScore&)> listener);

  HotwordDetector(const HotwordDetector&) = delete;
  HotwordDetector& operator=(const HotwordDetector&) = delete;

 private:
  // Feeds samples at the front end's rate and scale to the chain; returns
  // the detections of the whole blocks now pending.
  std::vector<Detection> Analyse(const float* samples, size_t n);
  // Runs one block through the chain, appending any detection; returns the
  // signal word.
  int ReadBlock(std::vector<Detection>* detections);
  // The position in input samples of a frame of the detector stage.
  int64 FrameSample(int32 frame_id) const;

  // Where hotword number h lives: hotwords_[h - 1] = {model, index in model}.
  struct HotwordPlace {
    int model;
    int index;
  };
  // Errors unless `hotword` is 1 to NumHotwords(); returns its place.
  const HotwordPlace& Place(int hotword) const;

  std::vector<std::string> hotword_names_;
  std::vector<HotwordPlace> hotwords_;
  size_t block_samples_;
  Resampler resampler_;
  PcmSourceStream source_;
  FilterbankStream filterbank_;
  UniversalDetectStream detector_;
  // Frame id of the current stream's first frame (frame ids run on across
  // streams; see FilterbankStream).
  int32 stream_start_frame_ = 0;
  Matrix result_;
  std::vector<FrameInfo> result_info_;
  // Working buffers: input at the 16-bit scale, and resampled.
  std::vector<float> scaled_;
  std::vector<float> resampled_;
  std::function<void(const HotwordScore&)> score_listener_;
  // Hotword number of each model's first hotword, minus one.
  std::vector<int> first_hotword_;
};

}  // namespace kestrel

KESTREL_PUBLIC_END

#endif  // KESTREL_FACADE_HOTWORD_DETECTOR_H_
