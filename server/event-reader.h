// EventReader: parses Wyoming events from a byte stream (a socket, or memory
// for the fuzz target), refusing anything that could make one client cost
// the server more than its share.
//
// Limits: a header line of at most kMaxHeaderBytes (without its newline),
// data of at most kMaxDataBytes, a payload of at most kMaxPayloadBytes, JSON
// nested at most kMaxJsonDepth deep. A header that breaks them, is not a
// JSON object with a string "type", or gives a length that is not a
// non-negative integer makes the event malformed; so does extra data that is
// not a JSON object. The payload grows as its bytes arrive, so a client that
// announces 16 MiB and vanishes never had 16 MiB reserved for it.
//
// Owned and used by one thread (the connection's).
#ifndef KESTREL_SERVER_EVENT_READER_H_
#define KESTREL_SERVER_EVENT_READER_H_

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "wyoming-event.h"

namespace kestrel {

class EventReader {
 public:
  static constexpr size_t kMaxHeaderBytes = 64 * 1024;
  static constexpr size_t kMaxDataBytes = 1024 * 1024;
  static constexpr size_t kMaxPayloadBytes = 16 * 1024 * 1024;
  static constexpr int kMaxJsonDepth = 32;

  // Reads at most `size` bytes into `buffer` and returns how many; 0 means
  // the stream ended (or failed: to the reader, the same).
  using ReadFunction = std::function<size_t(char* buffer, size_t size)>;

  enum class Status {
    kEvent,      // *event holds the next event
    kEnd,        // the stream ended cleanly, between two events
    kCutOff,     // the stream ended inside an event
    kMalformed,  // *error says what was wrong; nothing after it can be trusted
  };

  explicit EventReader(ReadFunction read);

  // Reads the next event into *event (whose payload buffer is reused).
  Status Next(Event* event, std::string* error);

  // Bytes taken from the stream so far.
  size_t BytesRead() const { return bytes_read_; }

 private:
  // Fills [end_, buffer_.size()) with whatever one read gives; false at the
  // end of the stream.
  bool Fill();
  // Moves `n` bytes of the stream to *out, first from the buffer; false when
  // the stream ends first.
  bool ReadExactly(size_t n, std::string* out);
  // Parses `text` as a JSON object into *out; false with *error otherwise.
  static bool ParseObject(const std::string& text, const char* what, nlohmann::json* out,
                          std::string* error);
  // Reads header[key] as a length no larger than `limit` (absent or null is
  // 0); false with *error otherwise.
  static bool ReadLength(const nlohmann::json& header, const char* key, size_t limit,
                         size_t* length, std::string* error);

  ReadFunction read_;
  // Holds a whole header line at most, so a line too long shows as a full
  // buffer without a newline.
  std::vector<char> buffer_;
  size_t begin_ = 0, end_ = 0;  // the unconsumed bytes of buffer_
  size_t bytes_read_ = 0;
  std::string data_text_;
};

}  // namespace kestrel

#endif  // KESTREL_SERVER_EVENT_READER_H_
