#include "frontend/pcm-source-stream.h"

#include <algorithm>

#include "utils/kestrel-log.h"

namespace kestrel {

PcmSourceStream::PcmSourceStream(int max_block_samples)
    : max_block_samples_(max_block_samples) {
  if (max_block_samples < 1) {
    KESTREL_ERR("pcm-source-stream")
        << Name() << ": block size must be positive, got " << max_block_samples << ".";
  }
}

void PcmSourceStream::Push(const int16_t* samples, size_t n) {
  std::copy(samples, samples + n, Append(n));
}

void PcmSourceStream::Push(const float* samples, size_t n) {
  std::copy(samples, samples + n, Append(n));
}

float* PcmSourceStream::Append(size_t n) {
  if (end_marked_) {
    KESTREL_ERR("pcm-source-stream")
        << Name() << ": samples pushed after the end of the stream; call Reset() first.";
  }
  // Reclaim the consumed prefix once it dominates, so memory stays bounded by
  // what is pending without moving samples on every push.
  if (read_offset_ > 0 && read_offset_ >= samples_.size() / 2) {
    samples_.erase(samples_.begin(), samples_.begin() + read_offset_);
    read_offset_ = 0;
  }
  samples_.resize(samples_.size() + n);
  return samples_.data() + samples_.size() - n;
}

void PcmSourceStream::MarkEnd() { end_marked_ = true; }

int PcmSourceStream::Read(Matrix* data, std::vector<FrameInfo>* frame_info) {
  if (frame_info != nullptr) frame_info->clear();
  if (flushed_) {
    data->Resize(0, 0);
    return kSignalEnd;
  }
  const size_t n = std::min(NumPending(), static_cast<size_t>(max_block_samples_));
  const bool last = end_marked_ && n == NumPending();
  if (n == 0) {
    data->Resize(0, 0);
  } else {
    data->Resize(1, static_cast<int>(n), kUndefined);
    std::copy(samples_.begin() + read_offset_, samples_.begin() + read_offset_ + n,
              data->RowData(0));
    read_offset_ += n;
    if (frame_info != nullptr) frame_info->push_back(FrameInfo{next_block_id_});
    ++next_block_id_;
  }
  if (!last) return 0;
  flushed_ = true;
  return kSignalFlush;
}

bool PcmSourceStream::Reset() {
  samples_.clear();
  read_offset_ = 0;
  next_block_id_ = 0;
  end_marked_ = false;
  flushed_ = false;
  return true;
}

}  // namespace kestrel
