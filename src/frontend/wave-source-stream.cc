#include "frontend/wave-source-stream.h"

#include "frontend/audio-format.h"

namespace kestrel {

WaveSourceStream::WaveSourceStream(const std::string& filename, int max_block_samples)
    : reader_(filename),
      resampler_(reader_.SampleRate(), kSampleRate),
      pcm_(max_block_samples),
      block_(max_block_samples) {}

int WaveSourceStream::Read(Matrix* data, std::vector<FrameInfo>* frame_info) {
  // The resampler may hold a block's output back for its filter, so read on
  // until there is something to deliver or the file is done.
  while (pcm_.NumPending() == 0 && reader_.Position() < reader_.NumSamples()) {
    const size_t n = reader_.Read(block_.data(), block_.size());
    for (size_t i = 0; i < n; ++i) block_[i] *= 32768.0f;  // the 16-bit scale
    resampled_.clear();
    resampler_.Process(block_.data(), n, &resampled_);
    if (reader_.Position() == reader_.NumSamples()) resampler_.Flush(&resampled_);
    pcm_.Push(resampled_.data(), resampled_.size());
  }
  if (reader_.Position() == reader_.NumSamples()) pcm_.MarkEnd();
  return pcm_.Read(data, frame_info);
}

bool WaveSourceStream::Reset() {
  reader_.Rewind();
  resampler_.Reset();
  return pcm_.Reset();
}

}  // namespace kestrel
