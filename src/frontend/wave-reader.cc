#include "frontend/wave-reader.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "frontend/audio-format.h"
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

std::string EncodingName(uint16_t code, int bits) {
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

}  // namespace

#define WAVE_ERR KESTREL_ERR("wave-reader") << filename_ << ": "

WaveReader::WaveReader(const std::string& filename)
    : filename_(filename), file_(filename, std::ios::binary) {
  if (!file_.is_open()) WAVE_ERR << "cannot open file.";
  ReadHeader();
}

void WaveReader::ReadHeader() {
  file_.seekg(0, std::ios::end);
  const std::streamoff file_size = file_.tellg();
  file_.seekg(0, std::ios::beg);

  unsigned char riff[12];
  if (!file_.read(reinterpret_cast<char*>(riff), sizeof(riff)) ||
      std::memcmp(riff, "RIFF", 4) != 0 || std::memcmp(riff + 8, "WAVE", 4) != 0) {
    WAVE_ERR << "not a WAV file (no RIFF/WAVE header).";
  }
  bool have_format = false;
  for (;;) {
    unsigned char header[8];
    if (!file_.read(reinterpret_cast<char*>(header), sizeof(header))) {
      if (!have_format) WAVE_ERR << "malformed WAV file: no \"fmt \" chunk.";
      WAVE_ERR << "malformed WAV file: no \"data\" chunk.";
    }
    const std::string name = ChunkName(header);
    const uint32_t size = Le32(header + 4);
    const std::streamoff body = file_.tellg();
    if (static_cast<std::streamoff>(size) > file_size - body) {
      WAVE_ERR << "truncated file: the \"" << name << "\" chunk declares " << size
               << " bytes but only " << static_cast<long>(file_size - body) << " follow.";
    }
    if (name == "fmt ") {
      // Only the first 40 bytes (the extensible layout) matter.
      std::vector<unsigned char> format(std::min<uint32_t>(size, 40));
      file_.read(reinterpret_cast<char*>(format.data()), format.size());
      ParseFormat(format);
      have_format = true;
    } else if (name == "data") {
      if (!have_format) WAVE_ERR << "malformed WAV file: \"data\" chunk before \"fmt \" chunk.";
      const uint32_t frame_bytes = 2u * num_channels_;
      if (size % frame_bytes != 0) {
        WAVE_ERR << "malformed WAV file: data chunk of " << size
                 << " bytes is not a whole number of " << frame_bytes << "-byte sample frames.";
      }
      num_samples_ = size / frame_bytes;
      data_offset_ = body;
      Rewind();
      return;
    }
    // Chunks are padded to an even length.
    file_.seekg(body + static_cast<std::streamoff>(size) + (size & 1u), std::ios::beg);
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
  if (code != kFormatPcm || bits != 16 || rate != static_cast<uint32_t>(kSampleRate)) {
    WAVE_ERR << "unsupported audio: " << static_cast<unsigned long>(rate) << " Hz, " << channels
             << (channels == 1 ? " channel, " : " channels, ") << EncodingName(code, bits)
             << "; kestrel reads " << kSampleRate << " Hz 16-bit PCM. Convert it first, "
             << "for example: sox " << filename_ << " -r " << kSampleRate
             << " -c 1 -b 16 -e signed-integer out.wav";
  }
  if (block_align != 2 * channels) {
    WAVE_ERR << "malformed WAV file: block align " << block_align << " for " << channels
             << " channels of 16 bits (" << 2 * channels << " expected).";
  }
  num_channels_ = channels;
}

size_t WaveReader::Read(int16_t* samples, size_t max_samples) {
  const size_t n = static_cast<size_t>(
      std::min<int64>(static_cast<int64>(max_samples), num_samples_ - position_));
  if (n == 0) return 0;
  const size_t frame_bytes = 2u * num_channels_;
  buffer_.resize(n * frame_bytes);
  if (!file_.read(reinterpret_cast<char*>(buffer_.data()), buffer_.size())) {
    WAVE_ERR << "read failed after " << static_cast<long>(position_) << " samples.";
  }
  const unsigned char* p = buffer_.data();
  if (num_channels_ == 1) {
    for (size_t i = 0; i < n; ++i, p += 2) samples[i] = static_cast<int16_t>(Le16(p));
  } else {
    for (size_t i = 0; i < n; ++i) {
      long sum = 0;
      for (int c = 0; c < num_channels_; ++c, p += 2) sum += static_cast<int16_t>(Le16(p));
      samples[i] = static_cast<int16_t>(std::lround(static_cast<double>(sum) / num_channels_));
    }
  }
  position_ += static_cast<int64>(n);
  return n;
}

void WaveReader::Rewind() {
  file_.clear();
  file_.seekg(data_offset_, std::ios::beg);
  position_ = 0;
}

#undef WAVE_ERR

std::vector<int16_t> ReadWaveFile(const std::string& filename) {
  WaveReader reader(filename);
  std::vector<int16_t> samples(static_cast<size_t>(reader.NumSamples()));
  reader.Read(samples.data(), samples.size());
  return samples;
}

}  // namespace kestrel
