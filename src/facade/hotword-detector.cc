#include "facade/hotword-detector.h"

#include <utility>

#include "frontend/audio-format.h"
#include "utils/kestrel-log.h"

namespace kestrel {

HotwordDetector::HotwordDetector(const HotwordDetectorOptions& options)
    : hotword_names_(options.hotword_names),
      block_samples_(options.block_samples),
      source_(options.block_samples),
      detector_(options.detector) {
  filterbank_.Connect(&source_);
  detector_.Connect(&filterbank_);
  for (int m = 0; m < detector_.NumModels(); ++m) {
    // Caught here, a model built for other features names itself; caught by
    // the network, it would surface later as a bare dimension mismatch.
    const int input_dim = detector_.GetNnet(m).InputDim();
    if (input_dim != FilterbankStream::kNumBins) {
      KESTREL_ERR("hotword-detector")
          << "HotwordDetector: model " << m + 1 << " of " << options.detector.model_str
          << " takes " << input_dim << " features per frame; the front end gives "
          << FilterbankStream::kNumBins << ".";
    }
    first_hotword_.push_back(num_hotwords_);
    num_hotwords_ += detector_.NumHotwords(m);
  }
  if (!hotword_names_.empty() && hotword_names_.size() != static_cast<size_t>(num_hotwords_)) {
    KESTREL_ERR("hotword-detector") << "HotwordDetector: " << hotword_names_.size()
                                    << " hotword names given for " << num_hotwords_
                                    << " hotwords in " << options.detector.model_str << ".";
  }
}

std::vector<Detection> HotwordDetector::Process(const int16_t* samples, size_t n) {
  source_.Push(samples, n);
  std::vector<Detection> detections;
  while (source_.NumPending() >= block_samples_) ReadBlock(&detections);
  return detections;
}

std::vector<Detection> HotwordDetector::Flush() {
  source_.MarkEnd();
  std::vector<Detection> detections;
  while (!(ReadBlock(&detections) & (kSignalFlush | kSignalStopMask))) {
  }
  Reset();
  return detections;
}

void HotwordDetector::Reset() {
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
    if (!hotword_names_.empty()) detection.name = hotword_names_[detection.hotword - 1];
    detection.sample = FrameSample(result_info_[0].frame_id);
    detection.seconds = static_cast<double>(detection.sample) / kSampleRate;
    detection.score = detector_.LastDetectionScore();
    detections->push_back(detection);
  }
  return signal;
}

int64 HotwordDetector::FrameSample(int32 frame_id) const {
  // Unsigned, as the detector measures frame distances, so that the position
  // stays right when the 32-bit frame clock wraps.
  const uint32 frames = static_cast<uint32>(frame_id) - static_cast<uint32>(stream_start_frame_);
  return static_cast<int64>(frames) * FilterbankStream::kFrameShift;
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
        step.seconds = static_cast<double>(step.sample) / kSampleRate;
        for (size_t k = 0; k < scores.size(); ++k) {
          step.hotword = first_hotword_[model_id] + static_cast<int>(k) + 1;
          step.score = scores[k];
          step.detected = static_cast<int>(k) == detected;
          score_listener_(step);
        }
      });
}

void HotwordDetector::SetSensitivity(const std::string& sensitivities) {
  detector_.SetSensitivity(sensitivities);
}

void HotwordDetector::SetHighSensitivity(const std::string& sensitivities) {
  detector_.SetHighSensitivity(sensitivities);
}

std::string HotwordDetector::GetSensitivity() const { return detector_.GetSensitivity(); }

}  // namespace kestrel
