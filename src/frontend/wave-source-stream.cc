#include "frontend/wave-source-stream.h"

namespace kestrel {

WaveSourceStream::WaveSourceStream(const std::string& filename, int max_block_samples)
    : reader_(filename), pcm_(max_block_samples), block_(max_block_samples) {}

int WaveSourceStream::Read(Matrix* data, std::vector<FrameInfo>* frame_info) {
  if (pcm_.NumPending() == 0 && reader_.Position() < reader_.NumSamples()) {
    pcm_.Push(block_.data(), reader_.Read(block_.data(), block_.size()));
  }
  if (reader_.Position() == reader_.NumSamples()) pcm_.MarkEnd();
  return pcm_.Read(data, frame_info);
}

bool WaveSourceStream::Reset() {
  reader_.Rewind();
  return pcm_.Reset();
}

}  // namespace kestrel
