#include "facade/hotword-detector.h"

#include <utility>

#include "frontend/audio-format.h"
#include "utils/kestrel-log.h"

namespace kestrel {

namespace {

const char kLogFile[] = "hotword-detector";

// The detector stage's share of the options; its strings stay empty, the
// typed lists being applied by the constructor.
UniversalDetectStreamOptions StageOptions(const HotwordDetectorOptions& options) {
  if (options.models.empty()) {
    KESTREL_ERR(kLogFile) << "HotwordDetector: no models given; add at least one to "
                          << "options.models.";
  }
  UniversalDetectStreamOptions stage;
  stage.slide_step = options.slide_step;
  stage.min_state_frames = options.min_state_frames;
  stage.num_piece_layouts = options.num_piece_layouts;
  stage.refractory_frames = options.refractory_frames;
  stage.no_order_check = options.no_order_check;
  return stage;
}

// Full scale of float input, [-1, 1], on the front end's 16-bit scale.
constexpr float kFloatScale = 32768.0f;

int CheckedRate(int rate) {
  if (rate < Resampler::kMinRate || rate > Resampler::kMaxRate) {
    KESTREL_ERR(kLogFile) << "HotwordDetector: sample rate " << rate
                          << " Hz is not supported; give 8000 to 48000 Hz.";
  }
  return rate;
}

// "models/hey-computer.kmodel" -> "hey computer". Only file names have an
// extension: the names models read from memory go by in messages ("model
// buffer 1") name no hotword.
std::string NameOfFile(const std::string& path) {
  const size_t slash = path.find_last_of("/\\");
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  const size_t dot = name.find_last_of('.');
  if (dot == std::string::npos || dot == 0) return "";
  name.erase(dot);
  for (char& c : name) {
    if (c == '-' || c == '_') c = ' ';
  }
  return name;
}

// The names of the models' hotwords when the caller gives none.
std::vector<std::string> ModelHotwordNames(const std::vector<HotwordModel>& models) {
  std::vector<std::string> names;
  for (const HotwordModel& model : models) {
    const size_t count = model.hotwords.size();
    for (size_t k = 0; k < count; ++k) {
      std::string name = model.hotwords[k].name;
      if (name.empty()) {
        name = NameOfFile(model.name);
        if (count > 1) name += (name.empty() ? "" : " ") + std::to_string(k + 1);
      }
      names.push_back(std::move(name));
    }
  }
  return names;
}

void CheckWindowCount(const char* what, size_t given, size_t num_models) {
  if (given != 0 && given != num_models) {
    KESTREL_ERR(kLogFile) << "HotwordDetector: " << given << " " << what
                          << " window lengths given for " << num_models
                          << " models; give one per model, or none.";
  }
}

}  // namespace

HotwordDetector::HotwordDetector(const HotwordDetectorOptions& options)
    : hotword_names_(options.hotword_names),
      block_samples_(options.block_samples),
      resampler_(CheckedRate(options.sample_rate), kSampleRate),
      source_(options.block_samples),
      detector_(StageOptions(options), options.models) {
  filterbank_.Connect(&source_);
  detector_.Connect(&filterbank_);
  for (int m = 0; m < detector_.NumModels(); ++m) {
    // Caught here, a model built for other features names itself; caught by
    // the network, it would surface later as a bare dimension mismatch.
    const int input_dim = detector_.GetNnet(m).InputDim();
    if (input_dim != FilterbankStream::kNumBins) {
      KESTREL_ERR(kLogFile) << "HotwordDetector: model " << m + 1 << " (\""
                            << options.models[m].name << "\") takes " << input_dim
                            << " features per frame; the front end gives "
                            << FilterbankStream::kNumBins << ".";
    }
    first_hotword_.push_back(static_cast<int>(hotwords_.size()));
    for (int k = 0; k < detector_.NumHotwords(m); ++k) hotwords_.push_back({m, k});
  }
  if (!hotword_names_.empty() && hotword_names_.size() != hotwords_.size()) {
    KESTREL_ERR(kLogFile) << "HotwordDetector: " << hotword_names_.size()
                          << " hotword names given for " << hotwords_.size() << " hotwords.";
  }
  if (hotword_names_.empty()) hotword_names_ = ModelHotwordNames(options.models);
  const size_t num_models = options.models.size();
  CheckWindowCount("smoothing", options.smooth_windows.size(), num_models);
  CheckWindowCount("slide", options.slide_windows.size(), num_models);
  if (!options.smooth_windows.empty()) detector_.SetSmoothWindowSize(options.smooth_windows);
  if (!options.slide_windows.empty()) detector_.SetSlideWindowSize(options.slide_windows);
  if (!options.sensitivities.empty()) detector_.SetSensitivity(options.sensitivities);
  // As the detector stage does with its option strings: without high
  // sensitivities of their own, they equal the normal ones.
  if (!options.high_sensitivities.empty()) {
    detector_.SetHighSensitivity(options.high_sensitivities);
  } else if (!options.sensitivities.empty()) {
    detector_.SetHighSensitivity(options.sensitivities);
  }
}

std::vector<Detection> HotwordDetector::Process(const int16_t* samples, size_t n) {
  if (resampler_.InputRate() == kSampleRate) {
    source_.Push(samples, n);
    return Analyse(nullptr, 0);
  }
  scaled_.assign(samples, samples + n);
  return Analyse(scaled_.data(), n);
}

std::vector<Detection> HotwordDetector::Process(const float* samples, size_t n) {
  scaled_.resize(n);
  for (size_t i = 0; i < n; ++i) scaled_[i] = samples[i] * kFloatScale;
  return Analyse(scaled_.data(), n);
}

std::vector<Detection> HotwordDetector::Analyse(const float* samples, size_t n) {
  if (n > 0) {
    resampled_.clear();
    resampler_.Process(samples, n, &resampled_);
    source_.Push(resampled_.data(), resampled_.size());
  }
  std::vector<Detection> detections;
  while (source_.NumPending() >= block_samples_) ReadBlock(&detections);
  return detections;
}

std::vector<Detection> HotwordDetector::Flush() {
  resampled_.clear();
  resampler_.Flush(&resampled_);
  source_.Push(resampled_.data(), resampled_.size());
  source_.MarkEnd();
  std::vector<Detection> detections;
  while (!(ReadBlock(&detections) & (kSignalFlush | kSignalStopMask))) {
  }
  Reset();
  return detections;
}

void HotwordDetector::Reset() {
  resampler_.Reset();
  source_.Reset();
  filterbank_.Reset();
  detector_.Reset();
  stream_start_frame_ = filterbank_.NextFrameId();
}

int HotwordDetector::ReadBlock(std::vector<Detection>* detections) {
  const int signal = detector_.Read(&result_, &result_info_);
  if (result_.NumRows() == 1 && !result_info_.empty()) {
    Detection detection;
    detection.hotword = static_cast<int>(result_(0, 0));
    detection.name = HotwordName(detection.hotword);
    detection.sample = FrameSample(result_info_[0].frame_id);
    detection.seconds = static_cast<double>(detection.sample) / resampler_.InputRate();
    detection.score = detector_.LastDetectionScore();
    detections->push_back(detection);
  }
  return signal;
}

int64 HotwordDetector::FrameSample(int32 frame_id) const {
  // Unsigned, as the detector measures frame distances, so that the position
  // stays right when the 32-bit frame clock wraps.
  const uint32 frames = static_cast<uint32>(frame_id) - static_cast<uint32>(stream_start_frame_);
  const int64 sample = static_cast<int64>(frames) * FilterbankStream::kFrameShift;
  // Output sample k of the resampler stands for input time k * rate / 16000.
  return (sample * resampler_.InputRate() + kSampleRate / 2) / kSampleRate;
}

void HotwordDetector::SetScoreListener(std::function<void(const HotwordScore&)> listener) {
  score_listener_ = std::move(listener);
  if (!score_listener_) {
    detector_.SetStepObserver(nullptr);
    return;
  }
  detector_.SetStepObserver(
      [this](int model_id, int32 frame_id, const std::vector<float>& scores, int detected) {
        HotwordScore step;
        step.sample = FrameSample(frame_id);
        step.seconds = static_cast<double>(step.sample) / resampler_.InputRate();
        for (size_t k = 0; k < scores.size(); ++k) {
          step.hotword = first_hotword_[model_id] + static_cast<int>(k) + 1;
          step.score = scores[k];
          step.detected = static_cast<int>(k) == detected;
          score_listener_(step);
        }
      });
}

const HotwordDetector::HotwordPlace& HotwordDetector::Place(int hotword) const {
  if (hotword < 1 || hotword > NumHotwords()) {
    KESTREL_ERR(kLogFile) << "HotwordDetector: no hotword " << hotword << "; hotwords are "
                          << "numbered 1 to " << NumHotwords() << ".";
  }
  return hotwords_[hotword - 1];
}

const std::string& HotwordDetector::HotwordName(int hotword) const {
  Place(hotword);
  return hotword_names_[hotword - 1];
}

void HotwordDetector::SetSensitivities(const std::vector<float>& values) {
  detector_.SetSensitivity(values);
}

void HotwordDetector::SetHighSensitivities(const std::vector<float>& values) {
  detector_.SetHighSensitivity(values);
}

void HotwordDetector::SetSensitivity(int hotword, float value) {
  const HotwordPlace& place = Place(hotword);
  detector_.SetSensitivity(place.model, place.index, value);
}

void HotwordDetector::SetHighSensitivity(int hotword, float value) {
  const HotwordPlace& place = Place(hotword);
  detector_.SetHighSensitivity(place.model, place.index, value);
}

std::vector<float> HotwordDetector::Sensitivities() const {
  std::vector<float> values;
  for (const HotwordPlace& place : hotwords_) {
    values.push_back(detector_.Sensitivity(place.model, place.index));
  }
  return values;
}

std::vector<float> HotwordDetector::HighSensitivities() const {
  std::vector<float> values;
  for (const HotwordPlace& place : hotwords_) {
    values.push_back(detector_.HighSensitivity(place.model, place.index));
  }
  return values;
}

float HotwordDetector::Sensitivity(int hotword) const {
  const HotwordPlace& place = Place(hotword);
  return detector_.Sensitivity(place.model, place.index);
}

float HotwordDetector::HighSensitivity(int hotword) const {
  const HotwordPlace& place = Place(hotword);
  return detector_.HighSensitivity(place.model, place.index);
}

}  // namespace kestrel
