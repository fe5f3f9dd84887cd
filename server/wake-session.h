// WakeSession: the wake-word side of the Wyoming protocol for one
// connection, events in, events out; no sockets, so what it answers does not
// depend on how the bytes arrived.
//
//   describe            -> info
//   detect              sets the hotwords to report ("names"; absent or
//                       empty: all) until the next detect
//   audio-start         begins a stream (16-bit PCM at 8 to 48 kHz, any
//                       channels: resampled and mixed down)
//   audio-chunk         PCM; -> a detection {name, timestamp} for each
//                       hotword found, timestamp in ms since the stream began
//   audio-stop          ends the stream; -> not-detected when it had none
//   anything else       ignored
//
// A chunk without audio-start begins a stream in its own format. Audio in
// another format, or chunks that disagree with their stream's format, get an
// error event and the rest of that stream is dropped (until audio-stop or
// the next audio-start); the connection stays usable. The detector is made
// at the first stream, so connections that only ask for the info cost
// nothing.
//
// Owned and used by one thread (the connection's); the service is shared.
#ifndef KESTREL_SERVER_WAKE_SESSION_H_
#define KESTREL_SERVER_WAKE_SESSION_H_

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "facade/hotword-detector.h"
#include "wake-service.h"
#include "wyoming-event.h"

namespace kestrel {

class WakeSession {
 public:
  explicit WakeSession(const WakeService* service);

  // The events to send back for `event`, in order.
  std::vector<Event> Handle(const Event& event);

  // For the connection's log line.
  int64_t SamplesHeard() const { return samples_heard_; }
  int NumDetections() const { return num_detections_; }

 private:
  enum class StreamState { kIdle, kListening, kRefused };
  struct AudioFormat {
    int64_t rate = 0, width = 0, channels = 0;
  };

  // Reads the format fields of an audio event; false with *error when one
  // is missing or not an integer.
  static bool ReadFormat(const nlohmann::json& data, AudioFormat* format, std::string* error);
  // Starts a stream in `format`, or refuses it with an error event.
  void StartStream(const AudioFormat& format, std::vector<Event>* out);
  void ProcessChunk(const Event& event, std::vector<Event>* out);
  void StopStream(std::vector<Event>* out);
  // Turns detections into events, keeping those the client asked for.
  void Report(const std::vector<Detection>& detections, std::vector<Event>* out);
  // Sends an error event and drops the rest of the stream.
  void Refuse(const std::string& text, const std::string& code, std::vector<Event>* out);

  const WakeService* service_;
  std::unique_ptr<HotwordDetector> detector_;
  std::set<std::string> wanted_names_;  // empty: all
  StreamState state_ = StreamState::kIdle;
  AudioFormat format_;
  int stream_detections_ = 0;
  std::vector<int16_t> samples_;
  int64_t samples_heard_ = 0;
  int num_detections_ = 0;
};

}  // namespace kestrel

#endif  // KESTREL_SERVER_WAKE_SESSION_H_
