#include "alsa-capture.h"

#include <alsa/asoundlib.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <iostream>

#include "frontend/audio-format.h"
#include "frontend/resampler.h"

namespace kestrel {

namespace {

// In order of preference: what the front end uses, then what devices that
// refuse it commonly give.
constexpr snd_pcm_format_t kFormats[] = {SND_PCM_FORMAT_S16_LE, SND_PCM_FORMAT_S32_LE,
                                         SND_PCM_FORMAT_FLOAT_LE};
// About 50 ms a period and half a second of buffer: detections stay prompt,
// and a busy machine has time to catch up before audio is lost.
constexpr unsigned kPeriodMicroseconds = 50000;
constexpr unsigned kBufferMicroseconds = 500000;

// ALSA's library prints its own diagnostics to standard error; the
// CaptureError says the same once, with the device's name.
void Quiet(const char*, int, const char*, int, const char*, ...) {}

}  // namespace

AlsaCapture::AlsaCapture(const std::string& device) : device_(device) {
  snd_lib_error_set_handler(Quiet);
  int error = snd_pcm_open(&pcm_, device.c_str(), SND_PCM_STREAM_CAPTURE, 0);
  if (error < 0) {
    pcm_ = nullptr;
    snd_config_update_free_global();
    Fail("cannot open the capture device", error);
  }
  try {
    Configure();
  } catch (const CaptureError&) {
    snd_pcm_close(pcm_);
    snd_config_update_free_global();
    throw;
  }
}

void AlsaCapture::Configure() {
  int error;
  snd_pcm_hw_params_t* params;
  snd_pcm_hw_params_alloca(&params);
  if ((error = snd_pcm_hw_params_any(pcm_, params)) < 0) Fail("cannot query the device", error);
  if ((error = snd_pcm_hw_params_set_access(pcm_, params, SND_PCM_ACCESS_RW_INTERLEAVED)) < 0) {
    Fail("cannot read interleaved samples", error);
  }
  format_ = SND_PCM_FORMAT_UNKNOWN;
  for (snd_pcm_format_t format : kFormats) {
    if (snd_pcm_hw_params_test_format(pcm_, params, format) == 0) {
      format_ = format;
      break;
    }
  }
  if (format_ == SND_PCM_FORMAT_UNKNOWN) {
    Fail("offers none of the sample formats S16_LE, S32_LE, FLOAT_LE", -EINVAL);
  }
  if ((error = snd_pcm_hw_params_set_format(pcm_, params, static_cast<snd_pcm_format_t>(format_))) < 0) {
    Fail("cannot set the sample format", error);
  }
  unsigned channels = 1;
  if ((error = snd_pcm_hw_params_set_channels_near(pcm_, params, &channels)) < 0) {
    Fail("cannot set a channel count", error);
  }
  unsigned rate = kSampleRate;
  if ((error = snd_pcm_hw_params_set_rate_near(pcm_, params, &rate, nullptr)) < 0) {
    Fail("cannot set a sample rate", error);
  }
  if (rate < static_cast<unsigned>(Resampler::kMinRate) ||
      rate > static_cast<unsigned>(Resampler::kMaxRate)) {
    Fail("offers " + std::to_string(rate) + " Hz, outside the 8000 to 48000 Hz kestrel takes",
         -EINVAL);
  }
  unsigned period = kPeriodMicroseconds, buffer = kBufferMicroseconds;
  // Devices that cannot meet these keep their own; that is no error.
  snd_pcm_hw_params_set_buffer_time_near(pcm_, params, &buffer, nullptr);
  snd_pcm_hw_params_set_period_time_near(pcm_, params, &period, nullptr);
  if ((error = snd_pcm_hw_params(pcm_, params)) < 0) Fail("cannot configure the device", error);
  rate_ = static_cast<int>(rate);
  channels_ = static_cast<int>(channels);
  sample_bytes_ = snd_pcm_format_physical_width(static_cast<snd_pcm_format_t>(format_)) / 8;
  if ((error = snd_pcm_prepare(pcm_)) < 0) Fail("cannot start capturing", error);
}

AlsaCapture::~AlsaCapture() {
  if (pcm_ != nullptr) snd_pcm_close(pcm_);
  // The configuration ALSA cached on opening; leak checkers count it.
  snd_config_update_free_global();
}

std::string AlsaCapture::FormatName() const {
  return snd_pcm_format_name(static_cast<snd_pcm_format_t>(format_));
}

void AlsaCapture::Fail(const std::string& what, int error) const {
  throw CaptureError(device_ + ": " + what + ": " + snd_strerror(error));
}

bool AlsaCapture::Read(size_t max_frames, std::vector<float>* samples) {
  samples->clear();
  const size_t frame_bytes = static_cast<size_t>(sample_bytes_) * channels_;
  buffer_.resize(max_frames * frame_bytes);
  snd_pcm_sframes_t got;
  for (;;) {
    got = snd_pcm_readi(pcm_, buffer_.data(), max_frames);
    if (got >= 0) break;
    if (got == -EINTR) return false;
    if (got == -EPIPE) {
      // Overrun: audio was lost while this process was busy; carry on.
      std::cerr << "kestrel: warning: " << device_ << ": overrun, some audio was lost\n";
      if (snd_pcm_prepare(pcm_) < 0) Fail("cannot recover from an overrun", static_cast<int>(got));
      continue;
    }
    if (got == -ESTRPIPE) {
      int error;
      while ((error = snd_pcm_resume(pcm_)) == -EAGAIN) snd_pcm_wait(pcm_, 100);
      if (error < 0 && snd_pcm_prepare(pcm_) < 0) Fail("cannot resume after a suspend", error);
      continue;
    }
    Fail("the device failed or went away", static_cast<int>(got));
  }
  if (got == 0) return false;
  samples->resize(static_cast<size_t>(got));
  const unsigned char* p = buffer_.data();
  for (snd_pcm_sframes_t i = 0; i < got; ++i) {
    double sum = 0.0;
    for (int c = 0; c < channels_; ++c, p += sample_bytes_) {
      if (format_ == SND_PCM_FORMAT_S16_LE) {
        sum += static_cast<int16_t>(p[0] | (p[1] << 8)) / 32768.0;
      } else {
        uint32_t bits = p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
        if (format_ == SND_PCM_FORMAT_S32_LE) {
          sum += static_cast<int32_t>(bits) / 2147483648.0;
        } else {
          float f;
          std::memcpy(&f, &bits, sizeof(f));
          sum += std::isfinite(f) ? f : 0.0f;
        }
      }
    }
    (*samples)[static_cast<size_t>(i)] = static_cast<float>(sum / channels_);
  }
  return true;
}

}  // namespace kestrel
