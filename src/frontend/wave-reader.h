// WaveReader: reads the audio of a RIFF WAVE file as 16 kHz mono 16-bit
// samples, a block at a time.
//
// Accepts 16-bit integer PCM at 16 kHz, plain or WAVE_FORMAT_EXTENSIBLE, with
// any number of channels (mixed down to one by averaging, rounded to the
// nearest integer). Chunks other than "fmt " and "data" (LIST, fact, ...) are
// skipped, with the pad byte of odd-sized chunks. Anything else is refused at
// construction with a KestrelError whose text begins with the file name and
// says what was found ("44100 Hz, 2 channels, 32-bit float") and how to
// convert it; truncated and malformed files are refused the same way, before
// any audio is read.
//
// Owns its file, which stays open until the reader is destroyed. One thread
// at a time.
#ifndef KESTREL_FRONTEND_WAVE_READER_H_
#define KESTREL_FRONTEND_WAVE_READER_H_

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "utils/kestrel-types.h"
#include "utils/kestrel-export.h"

KESTREL_PUBLIC_BEGIN

namespace kestrel {

class WaveReader {
 public:
  explicit WaveReader(const std::string& filename);

  const std::string& Filename() const { return filename_; }
  int NumChannels() const { return num_channels_; }
  // Length of the audio in (mono) samples, and how many were read so far.
  int64 NumSamples() const { return num_samples_; }
  int64 Position() const { return position_; }

  // Reads up to `max_samples` mono samples into `samples`; returns how many
  // were read (0 at the end of the audio).
  size_t Read(int16_t* samples, size_t max_samples);

  // Goes back to the first sample.
  void Rewind();

  WaveReader(const WaveReader&) = delete;
  WaveReader& operator=(const WaveReader&) = delete;

 private:
  // Parses the chunks up to the start of the audio; leaves the file there.
  void ReadHeader();
  // Checks the "fmt " chunk body and takes the channel count from it.
  void ParseFormat(const std::vector<unsigned char>& format);

  std::string filename_;
  std::ifstream file_;
  int num_channels_ = 0;
  int64 num_samples_ = 0;
  int64 position_ = 0;
  std::streamoff data_offset_ = 0;  // file offset of the first sample
  std::vector<unsigned char> buffer_;
};

// Reads all the audio of a WAV file (see WaveReader).
std::vector<int16_t> ReadWaveFile(const std::string& filename);

}  // namespace kestrel

KESTREL_PUBLIC_END

#endif  // KESTREL_FRONTEND_WAVE_READER_H_
