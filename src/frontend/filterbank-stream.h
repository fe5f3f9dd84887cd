// FilterbankStream: the stage that turns audio into log-mel feature frames.
//
// Upstream: a source stage delivering 16 kHz audio at the 16-bit scale (see
// audio-format.h). Output: one row of kNumBins log-mel energies per frame,
// with a FrameInfo whose frame_id counts frames from 0 since the stage was
// built. Frame t of a stream covers its samples [160 t, 160 t + 400). Reset
// does not restart the count: frame ids are the chain's clock, and the
// detector measures its refractory and mode distances with them across
// resets, so a new stream's first frame id is NextFrameId() at its start.
//
// Per frame, in single precision:
//   1. subtract the frame's mean (DC removal);
//   2. pre-emphasis, x[i] -= 0.97 x[i-1] for i >= 1 (each from the value
//      before filtering), and x[0] -= 0.97 x[0] (as Kaldi does, so the first
//      sample is not left unfiltered);
//   3. Hamming window, 0.54 - 0.46 cos(2 pi i / 399);
//   4. zero-pad to 512 points, power spectrum;
//   5. 40 triangular mel filters between 20 and 7600 Hz (mel-banks.h);
//   6. natural log of each energy, floored at 1e-10 (only digital silence
//      reaches the floor: one quantisation step of noise is far above it).
// Single precision is enough: against the same steps in double precision,
// the log-mel values differ by at most 3e-5 on noise and speech, and by at
// most 1e-4 for full-scale tones over nothing but the 16-bit rounding noise,
// whose quietest mel bins lie 65 dB below the loudest (where a float FFT's
// rounding shows first). Both are far below any difference that matters to
// the network, and float runs several times faster.
//
// Streaming: samples that do not yet complete a frame are kept for the next
// Read, so the output does not depend on how the audio was chunked (it is
// bit-identical). When the upstream signals kSignalFlush or
// kSignalEndOfUtterance, the incomplete frame at the end is dropped, not
// padded: a frame is only ever computed from real audio. Stop signals are
// passed on with no data. The signal word is always returned unchanged.
//
// Borrows its upstream stage; one thread at a time.
#ifndef KESTREL_FRONTEND_FILTERBANK_STREAM_H_
#define KESTREL_FRONTEND_FILTERBANK_STREAM_H_

#include <string>
#include <vector>

#include "frontend/mel-banks.h"
#include "frontend/real-fft.h"
#include "stream/stream-itf.h"
#include "utils/kestrel-types.h"
#include "utils/kestrel-export.h"

KESTREL_PUBLIC_BEGIN

namespace kestrel {

class FilterbankStream : public StreamItf {
 public:
  static constexpr int kFrameLength = 400;  // 25 ms
  static constexpr int kFrameShift = 160;   // 10 ms
  static constexpr int kFftSize = 512;
  static constexpr int kNumBins = 40;
  static constexpr double kLowHz = 20.0;
  static constexpr double kHighHz = 7600.0;
  static constexpr float kPreemphasis = 0.97f;
  static constexpr float kEnergyFloor = 1e-10f;

  FilterbankStream();

  // Pulls one block of audio and returns every frame it completes (possibly
  // none: 0 x kNumBins). After a stop signal `data` is 0 x 0.
  int Read(Matrix* data, std::vector<FrameInfo>* frame_info) override;

  // Drops held samples, so the next audio starts a new frame.
  bool Reset() override;

  std::string Name() const override { return "FilterbankStream"; }

  // The id the next frame will carry (the number of frames produced so far).
  int32 NextFrameId() const { return next_frame_id_; }

 private:
  // Computes the features of the kFrameLength samples at `samples` into `out`.
  void ComputeFrame(const float* samples, float* out);

  RealFft fft_;
  MelBanks mel_banks_;
  std::vector<float> window_;
  // Samples from the start of the next frame on; fewer than kFrameLength
  // between calls.
  std::vector<float> pending_;
  int32 next_frame_id_ = 0;
  // Scratch, kept to avoid allocating per frame.
  Matrix audio_;
  std::vector<float> centred_;
  std::vector<float> frame_;
  std::vector<float> power_;
  std::vector<float> energies_;
};

}  // namespace kestrel

KESTREL_PUBLIC_END

#endif  // KESTREL_FRONTEND_FILTERBANK_STREAM_H_
