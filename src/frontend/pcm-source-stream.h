// PcmSourceStream: the first stage of a chain, fed by the host with 16 kHz
// mono samples.
//
// The host pushes samples as they arrive, 16-bit integers or floats on the
// same scale (audio-format.h); each Read hands on the
// pending samples (at most `max_block_samples`, so one huge push does not
// become one huge block downstream) as a 1 x n matrix at the 16-bit scale
// (audio-format.h), or 0 x 0 with signal 0 when nothing is pending. After
// MarkEnd, the Read that returns the last pending samples (possibly none)
// carries kSignalFlush, and every later Read returns kSignalEnd with no data.
// `frame_info`, when given, receives one record per row: the block's number
// since the stream began.
//
// Pushing and reading happen on the same thread (the stage is not locked).
#ifndef KESTREL_FRONTEND_PCM_SOURCE_STREAM_H_
#define KESTREL_FRONTEND_PCM_SOURCE_STREAM_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "stream/stream-itf.h"
#include "utils/kestrel-types.h"
#include "utils/kestrel-export.h"

KESTREL_PUBLIC_BEGIN

namespace kestrel {

class PcmSourceStream : public StreamItf {
 public:
  // 0.1 s: ten feature frames per block, small enough to keep latency and
  // the network's working set low.
  static constexpr int kDefaultBlockSamples = 1600;

  explicit PcmSourceStream(int max_block_samples = kDefaultBlockSamples);

  // Appends samples to the stream. An error after MarkEnd (Reset first).
  void Push(const int16_t* samples, size_t n);
  // Floats at the 16-bit scale (not clipped).
  void Push(const float* samples, size_t n);
  // The stream ends after the samples pushed so far.
  void MarkEnd();
  // Samples pushed and not yet read.
  size_t NumPending() const { return samples_.size() - read_offset_; }

  int Read(Matrix* data, std::vector<FrameInfo>* frame_info) override;

  // Drops pending samples and the end mark; a new stream begins.
  bool Reset() override;

  std::string Name() const override { return "PcmSourceStream"; }

 private:
  // Makes room for n more samples; returns where they go.
  float* Append(size_t n);

  int max_block_samples_;
  std::vector<float> samples_;
  size_t read_offset_ = 0;  // samples_[0..read_offset_) were already read
  int32 next_block_id_ = 0;
  bool end_marked_ = false;
  bool flushed_ = false;  // the kSignalFlush block has gone out
};

}  // namespace kestrel

KESTREL_PUBLIC_END

#endif  // KESTREL_FRONTEND_PCM_SOURCE_STREAM_H_
