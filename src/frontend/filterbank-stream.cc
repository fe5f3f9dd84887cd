#include "frontend/filterbank-stream.h"

#include <algorithm>
#include <cmath>

#include "frontend/audio-format.h"

namespace kestrel {

FilterbankStream::FilterbankStream()
    : fft_(kFftSize),
      mel_banks_(kNumBins, kLowHz, kHighHz, kFftSize, kSampleRate),
      window_(kFrameLength),
      centred_(kFrameLength),
      frame_(kFftSize, 0.0f),
      power_(kFftSize / 2 + 1),
      energies_(kNumBins) {
  const double pi = std::acos(-1.0);
  for (int i = 0; i < kFrameLength; ++i) {
    window_[i] = static_cast<float>(0.54 - 0.46 * std::cos(2.0 * pi * i / (kFrameLength - 1)));
  }
}

int FilterbankStream::Read(Matrix* data, std::vector<FrameInfo>* frame_info) {
  data->Resize(0, 0);
  if (frame_info != nullptr) frame_info->clear();
  const int signal = connected_stream_->Read(&audio_, nullptr);
  if (signal & kSignalStopMask) return signal;

  for (int r = 0; r < audio_.NumRows(); ++r) {
    const float* row = audio_.RowData(r);
    pending_.insert(pending_.end(), row, row + audio_.NumCols());
  }
  const int num_frames =
      pending_.size() < static_cast<size_t>(kFrameLength)
          ? 0
          : 1 + static_cast<int>((pending_.size() - kFrameLength) / kFrameShift);
  // 0 x kNumBins when no frame is complete: downstream stages check widths.
  data->Resize(num_frames, kNumBins, kUndefined);
  if (num_frames > 0) {
    for (int t = 0; t < num_frames; ++t) {
      ComputeFrame(pending_.data() + static_cast<size_t>(t) * kFrameShift, data->RowData(t));
    }
    if (frame_info != nullptr) {
      frame_info->resize(num_frames);
      for (int t = 0; t < num_frames; ++t) (*frame_info)[t].frame_id = next_frame_id_ + t;
    }
    next_frame_id_ += num_frames;
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<size_t>(num_frames) * kFrameShift);
  }
  if (signal & kSignalFlushMask) pending_.clear();
  return signal;
}

bool FilterbankStream::Reset() {
  pending_.clear();
  return true;
}

void FilterbankStream::ComputeFrame(const float* samples, float* out) {
  // Eight running sums in a fixed order, which the compiler vectorises; the
  // order does not depend on where the frame lies in the stream.
  constexpr int kLanes = 8;
  static_assert(kFrameLength % kLanes == 0, "the mean's lanes must tile a frame");
  float lanes[kLanes] = {};
  for (int i = 0; i < kFrameLength; i += kLanes) {
    for (int l = 0; l < kLanes; ++l) lanes[l] += samples[i + l];
  }
  float sum = 0.0f;
  for (float lane : lanes) sum += lane;
  const float mean = sum / kFrameLength;
  float* centred = centred_.data();
  for (int i = 0; i < kFrameLength; ++i) centred[i] = samples[i] - mean;
  float* frame = frame_.data();
  frame[0] = (centred[0] - kPreemphasis * centred[0]) * window_[0];
  for (int i = 1; i < kFrameLength; ++i) {
    frame[i] = (centred[i] - kPreemphasis * centred[i - 1]) * window_[i];
  }
  // frame_[kFrameLength..kFftSize) stays zero from construction.
  fft_.PowerSpectrum(frame, power_.data());
  mel_banks_.Compute(power_.data(), energies_.data());
  for (int j = 0; j < kNumBins; ++j) out[j] = std::log(std::max(energies_[j], kEnergyFloor));
}

}  // namespace kestrel
