#include "event-reader.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace kestrel {
namespace {

// Thrown from the parser's callback to stop at the first level too deep,
// before a deep document is built.
struct TooDeep {};

}  // namespace

EventReader::EventReader(ReadFunction read)
    : read_(std::move(read)), buffer_(kMaxHeaderBytes + 1) {}

bool EventReader::Fill() {
  if (begin_ > 0) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  const size_t got = read_(buffer_.data() + end_, buffer_.size() - end_);
  end_ += got;
  bytes_read_ += got;
  return got > 0;
}

bool EventReader::ReadExactly(size_t n, std::string* out) {
  out->clear();
  // One large event should not keep its memory for the connection's life.
  if (out->capacity() > kMaxDataBytes) std::string().swap(*out);
  const size_t buffered = std::min(n, end_ - begin_);
  out->append(buffer_.data() + begin_, buffered);
  begin_ += buffered;
  // The rest goes straight to *out, one buffer's worth per read, so memory
  // follows what actually arrives.
  char chunk[16 * 1024];
  while (out->size() < n) {
    const size_t got = read_(chunk, std::min(sizeof(chunk), n - out->size()));
    if (got == 0) return false;
    bytes_read_ += got;
    out->append(chunk, got);
  }
  return true;
}

bool EventReader::ParseObject(const std::string& text, const char* what, nlohmann::json* out,
                              std::string* error) {
  const nlohmann::json::parser_callback_t limit_depth =
      [](int depth, nlohmann::json::parse_event_t, nlohmann::json&) {
        if (depth > kMaxJsonDepth) throw TooDeep();
        return true;
      };
  try {
    *out = nlohmann::json::parse(text, limit_depth);
  } catch (const TooDeep&) {
    *error = std::string(what) + " is nested more than " + std::to_string(kMaxJsonDepth) +
             " levels deep";
    return false;
  } catch (const nlohmann::json::exception& e) {
    // The parser quotes the offending bytes, which need not be text.
    std::string reason = e.what();
    for (char& c : reason) {
      const unsigned char byte = static_cast<unsigned char>(c);
      if (byte < 0x20 || byte >= 0x7F) c = '?';
    }
    *error = std::string(what) + " is not valid JSON: " + reason;
    return false;
  }
  if (!out->is_object()) {
    *error = std::string(what) + " is not a JSON object";
    return false;
  }
  return true;
}

bool EventReader::ReadLength(const nlohmann::json& header, const char* key, size_t limit,
                             size_t* length, std::string* error) {
  *length = 0;
  const auto it = header.find(key);
  if (it == header.end() || it->is_null()) return true;
  if (it->is_number_unsigned()) {
    const auto value = it->get<nlohmann::json::number_unsigned_t>();
    if (value > limit) {
      *error = std::string(key) + " " + std::to_string(value) + " is over the limit of " +
               std::to_string(limit) + " bytes";
      return false;
    }
    *length = static_cast<size_t>(value);
    return true;
  }
  if (it->is_number_integer()) {  // unsigned values took the branch above
    *error = std::string(key) + " is negative: " + it->dump();
  } else {
    *error = std::string(key) + " is not a non-negative integer: " +
             it->dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  }
  return false;
}

EventReader::Status EventReader::Next(Event* event, std::string* error) {
  const char* newline = nullptr;
  size_t scanned = 0;  // bytes already known to hold no newline
  for (;;) {
    newline = static_cast<const char*>(
        std::memchr(buffer_.data() + begin_ + scanned, '\n', end_ - begin_ - scanned));
    if (newline != nullptr) break;
    scanned = end_ - begin_;
    if (scanned > kMaxHeaderBytes) {
      *error = "header line longer than " + std::to_string(kMaxHeaderBytes) + " bytes";
      return Status::kMalformed;
    }
    if (!Fill()) return scanned == 0 ? Status::kEnd : Status::kCutOff;
  }
  const std::string line(buffer_.data() + begin_, newline - (buffer_.data() + begin_));
  begin_ = newline + 1 - buffer_.data();

  nlohmann::json header;
  if (!ParseObject(line, "header", &header, error)) return Status::kMalformed;
  const auto type = header.find("type");
  if (type == header.end() || !type->is_string()) {
    *error = "header has no string \"type\"";
    return Status::kMalformed;
  }
  event->type = type->get<std::string>();
  event->data = nlohmann::json::object();
  const auto data = header.find("data");
  if (data != header.end() && !data->is_null()) {
    if (!data->is_object()) {
      *error = "\"data\" of a " + event->type + " event is not a JSON object";
      return Status::kMalformed;
    }
    event->data = std::move(*data);
  }
  size_t data_length = 0, payload_length = 0;
  if (!ReadLength(header, "data_length", kMaxDataBytes, &data_length, error) ||
      !ReadLength(header, "payload_length", kMaxPayloadBytes, &payload_length, error)) {
    return Status::kMalformed;
  }
  if (data_length > 0) {
    if (!ReadExactly(data_length, &data_text_)) return Status::kCutOff;
    nlohmann::json extra;
    if (!ParseObject(data_text_, "extra data", &extra, error)) return Status::kMalformed;
    event->data.update(extra);
  }
  if (!ReadExactly(payload_length, &event->payload)) return Status::kCutOff;
  return Status::kEvent;
}

}  // namespace kestrel
