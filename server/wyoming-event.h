// Event: one message of the Wyoming protocol, as Home Assistant's voice
// pipeline exchanges them with wake-word services.
//
// On the wire an event is one line of UTF-8 JSON, {"type": ..., "data":
// {...}, "data_length": N, "payload_length": M}, followed by N bytes of JSON
// (merged over "data") and M bytes of payload (for audio, the PCM samples).
// EventReader parses that form; EncodeEvent writes the simplest one (data in
// the header line, no extra data bytes).
#ifndef KESTREL_SERVER_WYOMING_EVENT_H_
#define KESTREL_SERVER_WYOMING_EVENT_H_

#include <string>

#include <nlohmann/json.hpp>

namespace kestrel {

struct Event {
  std::string type;
  // Always an object (empty when the event carries no data).
  nlohmann::json data = nlohmann::json::object();
  std::string payload;
};

// The bytes of `event` on the wire. Strings that are not valid UTF-8 are
// written with replacement characters rather than refused.
std::string EncodeEvent(const Event& event);

// The protocol's error event: `text` for people, `code` for programs.
Event ErrorEvent(const std::string& text, const std::string& code);

}  // namespace kestrel

#endif  // KESTREL_SERVER_WYOMING_EVENT_H_
