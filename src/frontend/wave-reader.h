// WaveReader: reads the audio of a RIFF WAVE file as mono float samples in
// [-1, 1] at the file's own rate, a block at a time.
//
// Accepts 8-bit (unsigned), 16-, 24- and 32-bit integer PCM and 32- and
// 64-bit float, plain or WAVE_FORMAT_EXTENSIBLE, at 8000 to 48000 Hz, with
// any number of channels (mixed down to one by averaging). Float samples are
// clipped to [-1, 1], and read as 0 when they are not finite. Chunks other than "fmt " and "data" (LIST, fact,
// ...) are skipped, with the pad byte of odd-sized chunks. A data chunk that
// the file cuts short is read as far as it goes, with a warning naming the
// file. Anything else is refused at construction with a KestrelError whose
// text begins with the file name and says what was found ("96000 Hz, 2
// channels, A-law") and how to convert it.
//
// Owns its input stream, which stays open until the reader is destroyed. One
// thread at a time.
#ifndef KESTREL_FRONTEND_WAVE_READER_H_
#define KESTREL_FRONTEND_WAVE_READER_H_

#include <cstddef>
#include <cstdint>
#include <istream>
#include <memory>
#include <string>
#include <vector>

#include "utils/kestrel-types.h"
#include "utils/kestrel-export.h"

KESTREL_PUBLIC_BEGIN

namespace kestrel {

class WaveReader {
 public:
  explicit WaveReader(const std::string& filename);
  // Reads from `input` (a file image in memory, say); `name` stands for the
  // file name in messages.
  WaveReader(std::unique_ptr<std::istream> input, const std::string& name);

  const std::string& Filename() const { return filename_; }
  int SampleRate() const { return sample_rate_; }
  int NumChannels() const { return num_channels_; }
  // "24-bit PCM", "32-bit float", ...
  std::string EncodingName() const;
  // Length of the audio in (mono) samples, and how many were read so far.
  int64 NumSamples() const { return num_samples_; }
  int64 Position() const { return position_; }

  // Reads up to `max_samples` mono samples into `samples`; returns how many
  // were read (0 at the end of the audio). Throws if the file cannot be read.
  size_t Read(float* samples, size_t max_samples);

  // Goes back to the first sample.
  void Rewind();

  WaveReader(const WaveReader&) = delete;
  WaveReader& operator=(const WaveReader&) = delete;

 private:
  // Parses the chunks up to the start of the audio; leaves the input there.
  void ReadHeader();
  // Checks the "fmt " chunk body and takes the layout from it.
  void ParseFormat(const std::vector<unsigned char>& format);
  // One sample of the file's encoding, scaled to [-1, 1].
  double Decode(const unsigned char* p) const;

  std::string filename_;
  std::unique_ptr<std::istream> input_;
  int sample_rate_ = 0;
  int num_channels_ = 0;
  uint16_t format_code_ = 0;  // 1 integer PCM, 3 float
  int bytes_per_sample_ = 0;
  int64 num_samples_ = 0;
  int64 position_ = 0;
  std::streamoff data_offset_ = 0;  // input offset of the first sample
  std::vector<unsigned char> buffer_;
};

// Reads all the audio of a WAV file (see WaveReader) as 16 kHz samples at
// the 16-bit scale, resampled from other rates and rounded.
std::vector<int16_t> ReadWaveFile(const std::string& filename);

}  // namespace kestrel

KESTREL_PUBLIC_END

#endif  // KESTREL_FRONTEND_WAVE_READER_H_
