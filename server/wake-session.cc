#include "wake-session.h"

#include "frontend/audio-format.h"
#include "frontend/resampler.h"
#include "utils/kestrel-log.h"

namespace kestrel {
namespace {

constexpr int64_t kSampleWidth = 2;
// More channels than any capture device offers is a garbled header.
constexpr int64_t kMaxChannels = 32;

}  // namespace

WakeSession::WakeSession(const WakeService* service) : service_(service) {}

std::vector<Event> WakeSession::Handle(const Event& event) {
  std::vector<Event> out;
  if (event.type == "describe") {
    out.push_back(service_->Info());
  } else if (event.type == "detect") {
    const auto names = event.data.find("names");
    std::set<std::string> wanted;
    if (names != event.data.end() && !names->is_null()) {
      bool strings = names->is_array();
      for (const auto& name : *names) {
        strings = strings && name.is_string();
        if (strings) wanted.insert(name.get<std::string>());
      }
      if (!strings) {
        out.push_back(ErrorEvent("detect: \"names\" is not a list of strings", "bad-event"));
        return out;
      }
    }
    wanted_names_ = std::move(wanted);
  } else if (event.type == "audio-start") {
    AudioFormat format;
    std::string error;
    if (ReadFormat(event.data, &format, &error)) {
      StartStream(format, &out);
    } else {
      Refuse("audio-start: " + error, "bad-event", &out);
    }
  } else if (event.type == "audio-chunk") {
    ProcessChunk(event, &out);
  } else if (event.type == "audio-stop") {
    StopStream(&out);
  }
  return out;
}

bool WakeSession::ReadFormat(const nlohmann::json& data, AudioFormat* format,
                             std::string* error) {
  for (const auto& field : {std::make_pair("rate", &format->rate),
                            std::make_pair("width", &format->width),
                            std::make_pair("channels", &format->channels)}) {
    const auto it = data.find(field.first);
    if (it == data.end() || !it->is_number_integer()) {
      *error = std::string("\"") + field.first + "\" is missing or not an integer";
      return false;
    }
    *field.second = it->get<int64_t>();
  }
  return true;
}

void WakeSession::StartStream(const AudioFormat& format, std::vector<Event>* out) {
  if (format.rate < Resampler::kMinRate || format.rate > Resampler::kMaxRate ||
      format.width != kSampleWidth || format.channels < 1 || format.channels > kMaxChannels) {
    Refuse("unsupported audio format: " + std::to_string(format.rate) + " Hz, " +
               std::to_string(format.width) + "-byte samples, " +
               std::to_string(format.channels) + " channels; kestrel takes " +
               std::to_string(Resampler::kMinRate) + " to " +
               std::to_string(Resampler::kMaxRate) + " Hz, 2-byte samples, 1 to " +
               std::to_string(kMaxChannels) + " channels",
           "unsupported-audio-format", out);
    return;
  }
  try {
    // Streams of one connection mostly share a rate; a new rate needs a
    // detector whose resampler takes it.
    if (detector_ == nullptr || detector_->SampleRate() != format.rate) {
      detector_ = service_->NewDetector(static_cast<int>(format.rate));
    }
  } catch (const KestrelError& e) {
    Refuse(std::string("cannot make a detector: ") + e.what(), "detector-error", out);
    return;
  }
  // A new start in mid-stream abandons the old stream.
  detector_->Reset();
  format_ = format;
  state_ = StreamState::kListening;
  stream_detections_ = 0;
}

void WakeSession::ProcessChunk(const Event& event, std::vector<Event>* out) {
  if (state_ == StreamState::kRefused) return;
  AudioFormat format;
  std::string error;
  if (!ReadFormat(event.data, &format, &error)) {
    Refuse("audio-chunk: " + error, "bad-event", out);
    return;
  }
  if (state_ == StreamState::kIdle) {
    StartStream(format, out);
    if (state_ != StreamState::kListening) return;
  }
  if (format.rate != format_.rate || format.width != format_.width ||
      format.channels != format_.channels) {
    Refuse("audio-chunk: its format differs from the stream's", "unsupported-audio-format", out);
    return;
  }
  const std::string& bytes = event.payload;
  const size_t frame_bytes = static_cast<size_t>(kSampleWidth * format_.channels);
  if (bytes.size() % frame_bytes != 0) {
    Refuse("audio-chunk: " + std::to_string(bytes.size()) +
               " bytes is not a whole number of 16-bit frames of " +
               std::to_string(format_.channels) + " channels",
           "bad-event", out);
    return;
  }
  // Little-endian on the wire; channels are averaged into one.
  const size_t channels = static_cast<size_t>(format_.channels);
  samples_.resize(bytes.size() / frame_bytes);
  for (size_t i = 0; i < samples_.size(); ++i) {
    int32_t sum = 0;
    for (size_t c = 0; c < channels; ++c) {
      const size_t at = 2 * (i * channels + c);
      sum += static_cast<int16_t>(static_cast<unsigned char>(bytes[at]) |
                                  static_cast<unsigned char>(bytes[at + 1]) << 8);
    }
    samples_[i] = static_cast<int16_t>(sum / static_cast<int32_t>(channels));
  }
  samples_heard_ += static_cast<int64_t>(samples_.size());
  try {
    Report(detector_->Process(samples_.data(), samples_.size()), out);
  } catch (const KestrelError& e) {
    detector_->Reset();
    Refuse(std::string("detector: ") + e.what(), "detector-error", out);
  }
}

void WakeSession::StopStream(std::vector<Event>* out) {
  if (state_ == StreamState::kListening) {
    try {
      Report(detector_->Flush(), out);
    } catch (const KestrelError& e) {
      detector_->Reset();
      out->push_back(ErrorEvent(std::string("detector: ") + e.what(), "detector-error"));
    }
  }
  if (state_ != StreamState::kRefused && stream_detections_ == 0) {
    Event not_detected;
    not_detected.type = "not-detected";
    out->push_back(not_detected);
  }
  state_ = StreamState::kIdle;
  stream_detections_ = 0;
}

void WakeSession::Report(const std::vector<Detection>& detections, std::vector<Event>* out) {
  for (const Detection& d : detections) {
    if (!wanted_names_.empty() && wanted_names_.count(d.name) == 0) continue;
    Event event;
    event.type = "detection";
    event.data = {{"name", d.name}, {"timestamp", d.sample * 1000 / format_.rate}};
    out->push_back(std::move(event));
    ++stream_detections_;
    ++num_detections_;
  }
}

void WakeSession::Refuse(const std::string& text, const std::string& code,
                         std::vector<Event>* out) {
  out->push_back(ErrorEvent(text, code));
  state_ = StreamState::kRefused;
}

}  // namespace kestrel
