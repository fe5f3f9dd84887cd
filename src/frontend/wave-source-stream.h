// WaveSourceStream: the first stage of a chain, reading a WAV file.
//
// Each Read delivers the next block of the file's audio at 16 kHz (resampled
// from the file's rate when it differs; at most `max_block_samples`, as a
// 1 x n matrix at the 16-bit scale; see audio-format.h); the block that ends
// the file carries kSignalFlush and every later Read returns kSignalEnd with
// no data, exactly like a PcmSourceStream that was given the whole file and
// MarkEnd. Reset rewinds to the start of the file.
//
// Owns its WaveReader (and so the open file). Construction fails with the
// reader's KestrelError for a file it cannot read. One thread at a time.
#ifndef KESTREL_FRONTEND_WAVE_SOURCE_STREAM_H_
#define KESTREL_FRONTEND_WAVE_SOURCE_STREAM_H_

#include <string>
#include <vector>

#include "frontend/pcm-source-stream.h"
#include "frontend/resampler.h"
#include "frontend/wave-reader.h"
#include "stream/stream-itf.h"
#include "utils/kestrel-export.h"

KESTREL_PUBLIC_BEGIN

namespace kestrel {

class WaveSourceStream : public StreamItf {
 public:
  explicit WaveSourceStream(const std::string& filename,
                            int max_block_samples = PcmSourceStream::kDefaultBlockSamples);

  int Read(Matrix* data, std::vector<FrameInfo>* frame_info) override;
  bool Reset() override;
  std::string Name() const override { return "WaveSourceStream"; }

  // For progress reports: samples read so far out of NumSamples().
  const WaveReader& Reader() const { return reader_; }

 private:
  WaveReader reader_;
  Resampler resampler_;
  // Does the block and signal bookkeeping; refilled from the file one block
  // at a time.
  PcmSourceStream pcm_;
  std::vector<float> block_;
  std::vector<float> resampled_;
};

}  // namespace kestrel

KESTREL_PUBLIC_END

#endif  // KESTREL_FRONTEND_WAVE_SOURCE_STREAM_H_
