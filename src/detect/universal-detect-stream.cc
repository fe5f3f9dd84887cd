// Construction, frame processing, smoothing, sliding windows, reset and the
// search dispatch of the detector stage. Model files: -model.cc; settings:
// -settings.cc; searches: -basic-search.cc and -search.cc.
#include "detect/universal-detect-stream.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "utils/kestrel-log.h"

namespace kestrel {

namespace {

const char kLogFile[] = "universal-detect-stream";

// Fixed line numbers of three messages, kept stable for log tooling that
// keys on them.
constexpr int kNoModelLine = 25;
constexpr int kBadSlideStepLine = 28;
constexpr int kUnknownSearchLine = 529;

// Frames a near miss waits before it switches on the high-sensitivity mode,
// and frames the mode lasts after its last candidate.
constexpr uint32 kNearMissDelayFrames = 50;
constexpr uint32 kHighModeFrames = 3000;

// Frame ids move forward; an unsigned difference measures that distance
// even across wrap-around.
uint32 FramesSince(int32 frame, int32 earlier) {
  return static_cast<uint32>(frame) - static_cast<uint32>(earlier);
}

}  // namespace

UniversalDetectStream::UniversalDetectStream(const UniversalDetectStreamOptions& options)
    : options_(options) {
  if (options_.model_str.empty()) {
    KestrelLogMsg(kNoModelLine, kLogFile, __PRETTY_FUNCTION__, kKestrelError, 0).stream()
        << Name() << ": please specify models through --model-str.";
  }
  CheckSlideStep(__PRETTY_FUNCTION__);
  ReadHotwordModel(options_.model_str);
  ApplyOptionStrings();
}

UniversalDetectStream::UniversalDetectStream(const UniversalDetectStreamOptions& options,
                                             std::vector<HotwordModel> models)
    : options_(options) {
  CheckSlideStep(__PRETTY_FUNCTION__);
  LoadModels(std::move(models));
  ApplyOptionStrings();
}

void UniversalDetectStream::CheckSlideStep(const char* function) const {
  if (options_.slide_step < 1) {
    KestrelLogMsg(kBadSlideStepLine, kLogFile, function, kKestrelError, 0).stream()
        << Name() << ": slide step size should be positive.";
  }
}

void UniversalDetectStream::ApplyOptionStrings() {
  // Negated through unsigned so that every option value is defined.
  last_detection_frame_ =
      static_cast<int32>(0u - static_cast<uint32>(options_.refractory_frames));
  last_detection_frame_copy_ = last_detection_frame_;
  if (!options_.smooth_window_str.empty()) SetSmoothWindowSize(options_.smooth_window_str);
  if (!options_.slide_window_str.empty()) SetSlideWindowSize(options_.slide_window_str);
  if (!options_.sensitivity_str.empty()) SetSensitivity(options_.sensitivity_str);
  // Without a list of their own the high sensitivities equal the normal ones,
  // which keeps the near-miss mode off.
  if (!options_.high_sensitivity_str.empty()) {
    SetHighSensitivity(options_.high_sensitivity_str);
  } else if (!options_.sensitivity_str.empty()) {
    SetHighSensitivity(options_.sensitivity_str);
  }
  high_sensitivity_mode_ = false;
  high_sensitivity_frame_ = 0;
  near_miss_pending_ = false;
  near_miss_frame_ = 0;
}

UniversalDetectStream::~UniversalDetectStream() { connected_stream_ = nullptr; }

std::string UniversalDetectStream::Name() const { return "UniversalDetectStream"; }

void UniversalDetectStream::CheckWindowLengths() const {
  if (smooth_window_.size() < nnets_.size() || slide_window_.size() < nnets_.size()) {
    KESTREL_ERR(kLogFile) << Name() << ": " << nnets_.size() << " models need one window "
                          << "length each, got " << smooth_window_.size()
                          << " smoothing and " << slide_window_.size()
                          << " slide window lengths.";
  }
}

int UniversalDetectStream::Read(Matrix* data, std::vector<FrameInfo>* frame_info) {
  data->Resize(0, 0, kSetZero);
  if (frame_info != nullptr) frame_info->clear();
  if (connected_stream_ == nullptr) {
    KESTREL_ERR(kLogFile) << Name() << ": Read needs an upstream stage; call Connect first.";
  }

  Matrix features;
  std::vector<FrameInfo> feature_info;
  const int signal = connected_stream_->Read(&features, &feature_info);
  if (signal & kSignalStopMask) return signal;
  const bool flush = (signal & kSignalFlushMask) != 0;
  CheckWindowLengths();

  for (int m = 0; m < NumModels(); ++m) {
    Matrix posteriors;
    std::vector<FrameInfo> posterior_info;
    if (flush) {
      nnets_[m].FlushOutput(features, feature_info, &posteriors, &posterior_info);
    } else {
      nnets_[m].Compute(features, feature_info, &posteriors, &posterior_info);
    }
    SmoothPosterior(m, &posteriors);

    const int rows = posteriors.NumRows();
    for (int start = 0; start < rows;) {
      // The last step of a block may be shorter than slide_step.
      const int length = std::min(options_.slide_step, rows - start);
      const int end = start + length - 1;
      PushSlideWindow(m, posteriors.RowRange(start, length));
      const int32 frame = posterior_info[end].frame_id;
      const int hotword = ChooseDetectedHotword(m, frame);
      if (step_observer_) step_observer_(m, posterior_info[start].frame_id, step_scores_, hotword);
      if (hotword >= 0) {
        last_detection_frame_ = frame;
        last_detection_frame_copy_ = frame;
        ResetDetection();
        data->Resize(1, 1, kSetZero);
        (*data)(0, 0) = static_cast<float>(hotword_ids_[m][hotword]);
        // The record of the step's first row, though the decision used the
        // last row's id: callers take it as where the detection begins.
        if (frame_info != nullptr) frame_info->assign(1, posterior_info[start]);
        // The rest of the block is dropped, for this and every later model.
        return signal;
      }
      start += length;
    }
  }
  if (flush) Reset();
  return signal;
}

int UniversalDetectStream::ChooseDetectedHotword(int model_id, int32 frame_id) {
  const int m = model_id;
  // Both converted as unsigned frame counts, the last detection as signed.
  const bool refractory_passed =
      static_cast<float>(static_cast<uint32>(options_.refractory_frames)) <
      std::fabs(static_cast<float>(static_cast<uint32>(frame_id)) -
                static_cast<float>(last_detection_frame_));
  float best = 0.0f;
  int best_k = -1;
  const bool observed = static_cast<bool>(step_observer_);
  if (observed) step_scores_.assign(keywords_[m].size(), 0.0f);
  for (int k = 0; k < static_cast<int>(keywords_[m].size()); ++k) {
    const float normal_threshold = 1.0f - sensitivities_[m][k];
    const float high_threshold = 1.0f - high_sensitivities_[m][k];
    // Every hotword is scored on every step (some searches keep state),
    // unless its score provably lies below both thresholds: any such score
    // leads to the same decisions below.
    const float score =
        !observed && SearchRuledOut(m, k, std::min(normal_threshold, high_threshold))
            ? -std::numeric_limits<float>::infinity()
            : GetHotwordPosterior(m, k, frame_id);
    if (observed) step_scores_[k] = score;
    bool high_rule = high_sensitivity_mode_;
    if (near_miss_pending_ && FramesSince(frame_id, near_miss_frame_) > kNearMissDelayFrames) {
      near_miss_pending_ = false;
      high_sensitivity_mode_ = true;
      high_sensitivity_frame_ = frame_id;
      high_rule = true;
    }
    bool candidate = false;
    if (high_rule) {
      // Expiry takes effect from the next hotword on; this one is still
      // judged by the high threshold.
      if (FramesSince(frame_id, high_sensitivity_frame_) > kHighModeFrames) {
        high_sensitivity_mode_ = false;
      }
      if (score >= high_threshold && refractory_passed) {
        candidate = true;
        high_sensitivity_frame_ = frame_id;
      }
    } else if (score >= normal_threshold && refractory_passed) {
      candidate = true;
      if (!near_miss_pending_ && sensitivities_[m][k] < high_sensitivities_[m][k]) {
        near_miss_pending_ = true;
        near_miss_frame_ = frame_id;
      }
    } else if (!near_miss_pending_ && score >= high_threshold && score < normal_threshold &&
               refractory_passed) {
      near_miss_pending_ = true;
      near_miss_frame_ = frame_id;
    }
    // Strictly greater: ties go to the lower index, and a score of 0 never wins.
    if (candidate && score > best) {
      best = score;
      best_k = k;
    }
  }
  if (best_k >= 0) last_detection_score_ = best;
  return best_k;
}

void UniversalDetectStream::SmoothPosterior(int model_id, Matrix* posteriors) {
  if (posteriors->NumRows() == 0) return;
  const int32 window = smooth_window_[model_id];
  // A negative length never removes (the comparison is unsigned).
  const size_t max_size = static_cast<size_t>(window);
  // Always the full length, so the first frames after a reset ramp up.
  const float divisor = static_cast<float>(window);
  std::vector<std::deque<float>>& buffers = smooth_buffers_[model_id];
  std::vector<float>& sums = smooth_sums_[model_id];
  for (int r = 0; r < posteriors->NumRows(); ++r) {
    float* row = posteriors->RowData(r);
    for (int c = 0; c < posteriors->NumCols(); ++c) {
      const float x = row[c];
      // A running sum in single precision, never recomputed: cheap per frame,
      // and the drift it allows is part of the model's tuning.
      sums[c] += x;
      buffers[c].push_back(x);
      if (buffers[c].size() > max_size) {
        sums[c] -= buffers[c].front();
        buffers[c].pop_front();
      }
      row[c] = sums[c] / divisor;
    }
  }
}

void UniversalDetectStream::PushSlideWindow(int model_id, const MatrixBase& rows) {
  const size_t max_size = static_cast<size_t>(slide_window_[model_id]);
  std::vector<std::deque<float>>& windows = posterior_windows_[model_id];
  for (int r = 0; r < rows.NumRows(); ++r) {
    const float* row = rows.RowData(r);
    for (int c = 0; c < rows.NumCols(); ++c) {
      windows[c].push_back(row[c]);
      // One removal per value added: a shortened window shrinks only at a reset.
      if (windows[c].size() > max_size) windows[c].pop_front();
    }
  }
  PushSearchBounds(model_id, rows);
}

bool UniversalDetectStream::ResetDetection() {
  for (size_t m = 0; m < smooth_buffers_.size(); ++m) {
    for (size_t c = 0; c < smooth_buffers_[m].size(); ++c) {
      smooth_buffers_[m][c].clear();
      posterior_windows_[m][c].clear();
      smooth_sums_[m][c] = 0.0f;
    }
    for (size_t k = 0; k < keywords_[m].size(); ++k) {
      search_frame_best_[m][k].clear();
      search_frame_magnitude_[m][k].clear();
      redup_pending_[m][k] = false;
      redup_frame_[m][k] = -1000;
      redup_score_[m][k] = 0.0f;
    }
  }
  return true;
}

bool UniversalDetectStream::Reset() {
  for (Nnet& nnet : nnets_) nnet.ResetComputation();
  return ResetDetection();
}

float UniversalDetectStream::GetHotwordPosterior(int32 model_id, int32 hotword_id,
                                                 int32 frame_id) {
  switch (search_method_[model_id][hotword_id]) {
    case 1:
      return HotwordNaiveSearch(model_id, hotword_id);
    case 2:
      return HotwordDtwSearch(model_id, hotword_id);
    case 3:
      return HotwordViterbiSearch(model_id, hotword_id);
    case 4:
      return HotwordPiecewiseSearch(model_id, hotword_id);
    case 5:
      return HotwordViterbiSearchReduplication(model_id, hotword_id, frame_id);
    case 6:
      return HotwordViterbiSearchSoftFloor(model_id, hotword_id);
    case 7:
      return HotwordViterbiSearchTraceback(model_id, hotword_id);
    case 8:
      return HotwordViterbiSearchTracebackLog(model_id, hotword_id);
    default:
      KestrelLogMsg(kUnknownSearchLine, kLogFile, __PRETTY_FUNCTION__, kKestrelError, 0).stream()
          << Name() << ": search method has not been implemented.";
      return 0.0f;
  }
}

}  // namespace kestrel
