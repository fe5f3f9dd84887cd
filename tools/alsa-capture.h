// AlsaCapture: audio from an ALSA capture device, as mono floats in [-1, 1].
//
// Asks the device for what the detector wants (16 kHz, one channel, 16-bit)
// and takes the nearest it offers: any rate from 8 to 48 kHz (the caller
// resamples), any number of channels (mixed down here), and 16-bit, 32-bit
// or float samples. Overruns (the reader fell behind) and suspends are
// recovered from with a warning; anything else, such as the device being
// unplugged, is a CaptureError naming the device.
//
// Owns the open device. One thread at a time; Read may be interrupted by a
// signal (see Read).
#ifndef KESTREL_TOOLS_ALSA_CAPTURE_H_
#define KESTREL_TOOLS_ALSA_CAPTURE_H_

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

typedef struct _snd_pcm snd_pcm_t;

namespace kestrel {

class CaptureError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class AlsaCapture {
 public:
  // Opens and configures `device` ("default", "hw:1,0", a name from
  // ~/.asoundrc, ...). Throws CaptureError.
  explicit AlsaCapture(const std::string& device);
  ~AlsaCapture();

  int SampleRate() const { return rate_; }
  int NumChannels() const { return channels_; }
  // The sample format agreed with the device ("S16_LE", ...).
  std::string FormatName() const;

  // Waits for up to `max_frames` frames and stores them, mixed down, in
  // `samples`. Returns false at the end of the input (a device that has no
  // more to give, such as a file) or when a signal interrupted the wait; the
  // samples read before then are in `samples` either way. Throws
  // CaptureError when the device fails.
  bool Read(size_t max_frames, std::vector<float>* samples);

  AlsaCapture(const AlsaCapture&) = delete;
  AlsaCapture& operator=(const AlsaCapture&) = delete;

 private:
  // Agrees the hardware parameters with the open device.
  void Configure();
  // Throws CaptureError "<device>: <what>: <ALSA's text for error>".
  [[noreturn]] void Fail(const std::string& what, int error) const;

  std::string device_;
  snd_pcm_t* pcm_ = nullptr;
  int rate_ = 0;
  int channels_ = 0;
  int format_ = 0;  // snd_pcm_format_t
  int sample_bytes_ = 0;
  std::vector<unsigned char> buffer_;
};

}  // namespace kestrel

#endif  // KESTREL_TOOLS_ALSA_CAPTURE_H_
