#include "frontend/wave-reader.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>

#include "frontend/audio-format.h"
#include "frontend/resampler.h"
#include "utils/kestrel-log.h"

namespace kestrel {

namespace {

constexpr uint16_t kFormatPcm = 1;
constexpr uint16_t kFormatFloat = 3;
constexpr uint16_t kFormatAlaw = 6;
constexpr uint16_t kFormatMulaw = 7;
constexpr uint16_t kFormatExtensible = 0xFFFE;
// Bytes 2..15 of every KSDATAFORMAT_SUBTYPE GUID; bytes 0..1 hold the format code.
constexpr unsigned char kSubformatGuidTail[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80,
                                                  0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

uint16_t Le16(const unsigned char* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

uint32_t Le32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// A chunk id as readable text: "fmt " stays "fmt ", bytes that are not
// printable become '?'.
std::string ChunkName(const unsigned char* id) {
  std::string name(4, '?');
  for (int i = 0; i < 4; ++i) {
    if (id[i] >= 0x20 && id[i] < 0x7F) name[i] = static_cast<char>(id[i]);
  }
  return name;
}

std::string DescribeEncoding(uint16_t code, int bits) {
  switch (code) {
    case kFormatPcm:
      return std::to_string(bits) + "-bit PCM";
    case kFormatFloat:
      return std::to_string(bits) + "-bit float";
    case kFormatAlaw:
      return "A-law";
    case kFormatMulaw:
      return "mu-law";
    default: {
      static const char kHex[] = "0123456789abcdef";
      std::string hex = "0x";
      for (int shift = 12; shift >= 0; shift -= 4) hex += kHex[(code >> shift) & 0xF];
      return "encoding with format code " + hex;
    }
  }
}

bool Supported(uint16_t code, int bits) {
  if (code == kFormatPcm) return bits == 8 || bits == 16 || bits == 24 || bits == 32;
  return code == kFormatFloat && (bits == 32 || bits == 64);
}

}  // namespace

#define WAVE_ERR KESTREL_ERR("wave-reader") << filename_ << ": "

WaveReader::WaveReader(const std::string& filename)
    : WaveReader(std::make_unique<std::ifstream>(filename, std::ios::binary), filename) {}

WaveReader::WaveReader(std::unique_ptr<std::istream> input, const std::string& name)
    : filename_(name), input_(std::move(input)) {
  if (!*input_) WAVE_ERR << "cannot open file.";
  ReadHeader();
}

void WaveReader::ReadHeader() {
  input_->seekg(0, std::ios::end);
  const std::streamoff file_size = input_->tellg();
  input_->seekg(0, std::ios::beg);

  unsigned char riff[12];
  if (!input_->read(reinterpret_cast<char*>(riff), sizeof(riff)) ||
      std::memcmp(riff, "RIFF", 4) != 0 || std::memcmp(riff + 8, "WAVE", 4) != 0) {
    WAVE_ERR << "not a WAV file (no RIFF/WAVE header).";
  }
  bool have_format = false;
  for (;;) {
    unsigned char header[8];
    if (!input_->read(reinterpret_cast<char*>(header), sizeof(header))) {
      if (!have_format) WAVE_ERR << "malformed WAV file: no \"fmt \" chunk.";
      WAVE_ERR << "malformed WAV file: no \"data\" chunk.";
    }
    const std::string name = ChunkName(header);
    const uint32_t size = Le32(header + 4);
    const std::streamoff body = input_->tellg();
    const std::streamoff available = file_size - body;
    if (name == "data") {
      if (!have_format) WAVE_ERR << "malformed WAV file: \"data\" chunk before \"fmt \" chunk.";
      const int64 frame_bytes = static_cast<int64>(bytes_per_sample_) * num_channels_;
      int64 bytes = size;
      if (bytes > available) {
        KESTREL_WARN("wave-reader") << filename_ << ": truncated file: the \"data\" chunk declares "
                                    << size << " bytes but only " << static_cast<long>(available)
                                    << " follow; reading those.";
        bytes = available;
      }
      if (bytes % frame_bytes != 0 && bytes == size) {
        KESTREL_WARN("wave-reader") << filename_ << ": the \"data\" chunk of " << size
                                    << " bytes ends inside a " << frame_bytes
                                    << "-byte sample frame; ignoring its last "
                                    << static_cast<long>(bytes % frame_bytes) << " bytes.";
      }
      num_samples_ = bytes / frame_bytes;
      data_offset_ = body;
      Rewind();
      return;
    }
    if (static_cast<std::streamoff>(size) > available) {
      WAVE_ERR << "truncated file: the \"" << name << "\" chunk declares " << size
               << " bytes but only " << static_cast<long>(available) << " follow.";
    }
    if (name == "fmt ") {
      // Only the first 40 bytes (the extensible layout) matter.
      std::vector<unsigned char> format(std::min<uint32_t>(size, 40));
      input_->read(reinterpret_cast<char*>(format.data()), format.size());
      ParseFormat(format);
      have_format = true;
    }
    // Chunks are padded to an even length.
    input_->seekg(body + static_cast<std::streamoff>(size) + (size & 1u), std::ios::beg);
  }
}

void WaveReader::ParseFormat(const std::vector<unsigned char>& format) {
  if (format.size() < 16) {
    WAVE_ERR << "malformed WAV file: \"fmt \" chunk of " << format.size()
             << " bytes (at least 16 expected).";
  }
  uint16_t code = Le16(&format[0]);
  const int channels = Le16(&format[2]);
  const uint32_t rate = Le32(&format[4]);
  const int block_align = Le16(&format[12]);
  const int bits = Le16(&format[14]);
  if (code == kFormatExtensible) {
    if (format.size() < 40) {
      WAVE_ERR << "malformed WAV file: extensible \"fmt \" chunk of " << format.size()
               << " bytes (40 expected).";
    }
    code = std::memcmp(&format[26], kSubformatGuidTail, sizeof(kSubformatGuidTail)) == 0
               ? Le16(&format[24])
               : 0;
  }
  if (channels == 0) WAVE_ERR << "malformed WAV file: 0 channels.";
  if (!Supported(code, bits) || rate < static_cast<uint32_t>(Resampler::kMinRate) ||
      rate > static_cast<uint32_t>(Resampler::kMaxRate)) {
    WAVE_ERR << "unsupported audio: " << static_cast<unsigned long>(rate) << " Hz, " << channels
             << (channels == 1 ? " channel, " : " channels, ") << DescribeEncoding(code, bits)
             << "; kestrel reads 8-, 16-, 24- and 32-bit PCM and 32- and 64-bit float at "
             << Resampler::kMinRate << " to " << Resampler::kMaxRate
             << " Hz. Convert it first, for example: sox " << filename_ << " -r " << kSampleRate
             << " -c 1 -b 16 -e signed-integer out.wav";
  }
  // Extensible files may hold fewer valid bits than the container (the
  // samples are left-justified), so the container size is what is read.
  if (block_align != bits / 8 * channels) {
    WAVE_ERR << "malformed WAV file: block align " << block_align << " for " << channels
             << " channels of " << bits << " bits (" << bits / 8 * channels << " expected).";
  }
  sample_rate_ = static_cast<int>(rate);
  num_channels_ = channels;
  format_code_ = code;
  bytes_per_sample_ = bits / 8;
}

std::string WaveReader::EncodingName() const {
  return DescribeEncoding(format_code_, 8 * bytes_per_sample_);
}

double WaveReader::Decode(const unsigned char* p) const {
  if (format_code_ == kFormatFloat) {
    double value;
    if (bytes_per_sample_ == 4) {
      float f;
      const uint32_t bits = Le32(p);
      std::memcpy(&f, &bits, 4);
      value = f;
    } else {
      const uint64_t bits = Le32(p) | (static_cast<uint64_t>(Le32(p + 4)) << 32);
      std::memcpy(&value, &bits, 8);
    }
    // Clipped like integers, so that a mixdown of huge values stays finite.
    return std::isfinite(value) ? std::clamp(value, -1.0, 1.0) : 0.0;
  }
  switch (bytes_per_sample_) {
    case 1:
      return (p[0] - 128) / 128.0;
    case 2:
      return static_cast<int16_t>(Le16(p)) / 32768.0;
    case 3:
      // The top byte's sign carries into the 32-bit value, scaled back down.
      return static_cast<int32_t>(static_cast<uint32_t>(p[0]) << 8 |
                                  static_cast<uint32_t>(p[1]) << 16 |
                                  static_cast<uint32_t>(p[2]) << 24) /
             2147483648.0;
    default:
      return static_cast<int32_t>(Le32(p)) / 2147483648.0;
  }
}

size_t WaveReader::Read(float* samples, size_t max_samples) {
  const size_t n = static_cast<size_t>(
      std::min<int64>(static_cast<int64>(max_samples), num_samples_ - position_));
  if (n == 0) return 0;
  const size_t frame_bytes = static_cast<size_t>(bytes_per_sample_) * num_channels_;
  buffer_.resize(n * frame_bytes);
  if (!input_->read(reinterpret_cast<char*>(buffer_.data()), buffer_.size())) {
    WAVE_ERR << "read failed after " << static_cast<long>(position_) << " samples.";
  }
  const unsigned char* p = buffer_.data();
  for (size_t i = 0; i < n; ++i) {
    double sum = 0.0;
    for (int c = 0; c < num_channels_; ++c, p += bytes_per_sample_) sum += Decode(p);
    samples[i] = static_cast<float>(sum / num_channels_);
  }
  position_ += static_cast<int64>(n);
  return n;
}

void WaveReader::Rewind() {
  input_->clear();
  input_->seekg(data_offset_, std::ios::beg);
  position_ = 0;
}

#undef WAVE_ERR

std::vector<int16_t> ReadWaveFile(const std::string& filename) {
  WaveReader reader(filename);
  std::vector<float> audio(static_cast<size_t>(reader.NumSamples()));
  audio.resize(reader.Read(audio.data(), audio.size()));
  for (float& v : audio) v *= 32768.0f;
  std::vector<float> resampled;
  Resampler resampler(reader.SampleRate(), kSampleRate);
  resampler.Process(audio.data(), audio.size(), &resampled);
  resampler.Flush(&resampled);
  std::vector<int16_t> samples(resampled.size());
  for (size_t i = 0; i < samples.size(); ++i) {
    samples[i] = static_cast<int16_t>(std::lround(std::clamp(resampled[i], -32768.0f, 32767.0f)));
  }
  return samples;
}

}  // namespace kestrel
