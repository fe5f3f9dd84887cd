#include "wyoming-event.h"

namespace kestrel {

std::string EncodeEvent(const Event& event) {
  nlohmann::json header = {{"type", event.type}};
  if (!event.data.empty()) header["data"] = event.data;
  if (!event.payload.empty()) header["payload_length"] = event.payload.size();
  std::string bytes = header.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  bytes += '\n';
  bytes += event.payload;
  return bytes;
}

Event ErrorEvent(const std::string& text, const std::string& code) {
  Event event;
  event.type = "error";
  event.data = {{"text", text}, {"code", code}};
  return event;
}

}  // namespace kestrel
