#include "connection.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "event-reader.h"
#include "frontend/audio-format.h"
#include "wake-session.h"

namespace kestrel {
namespace {

// A socket read: what arrived, 0 at the end or on any failure (a reset
// connection is a client gone, like an orderly close).
size_t ReadSocket(int fd, char* buffer, size_t size) {
  for (;;) {
    const ssize_t got = recv(fd, buffer, size, 0);
    if (got >= 0) return static_cast<size_t>(got);
    if (errno != EINTR) return 0;
  }
}

// False when the client can no longer be written to.
bool WriteSocket(int fd, const std::string& bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    // MSG_NOSIGNAL: a vanished client is an error here, not SIGPIPE.
    const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

// Closing a socket that still has unread input makes the kernel reset the
// connection, and the client may lose our last event with it. So after that
// event: end our side, and read what the client still sends, for a second
// at most.
void FinishBeforeClose(int fd) {
  shutdown(fd, SHUT_WR);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  char discard[16 * 1024];
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd p = {fd, POLLIN, 0};
    if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0) return;
    if (ReadSocket(fd, discard, sizeof(discard)) == 0) return;
  }
}

// An event for the debug log: type, data (shortened) and payload size.
std::string Describe(const Event& event) {
  constexpr size_t kMaxShown = 200;
  std::string text = event.type;
  if (!event.data.empty()) {
    std::string data = event.data.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    if (data.size() > kMaxShown) data = data.substr(0, kMaxShown) + "...";
    text += " " + data;
  }
  if (!event.payload.empty()) text += " +" + std::to_string(event.payload.size()) + " bytes";
  return text;
}

}  // namespace

void ServeConnection(int fd, const std::string& peer, const WakeService& service, ServerLog* log) {
  const auto start = std::chrono::steady_clock::now();
  log->Debug(peer + ": connected");
  EventReader reader([fd](char* buffer, size_t size) { return ReadSocket(fd, buffer, size); });
  WakeSession session(&service);
  Event event;
  std::string error;
  int num_events = 0;
  std::string ending;
  for (;;) {
    const EventReader::Status status = reader.Next(&event, &error);
    if (status == EventReader::Status::kEnd) {
      ending = "closed";
      break;
    }
    if (status == EventReader::Status::kCutOff) {
      ending = "gone in the middle of an event";
      break;
    }
    if (status == EventReader::Status::kMalformed) {
      ending = "malformed event: " + error;
      WriteSocket(fd, EncodeEvent(ErrorEvent("malformed event: " + error, "malformed-event")));
      FinishBeforeClose(fd);
      break;
    }
    ++num_events;
    if (log->Debugging()) log->Debug(peer + " -> " + Describe(event));
    bool written = true;
    for (const Event& answer : session.Handle(event)) {
      if (log->Debugging()) log->Debug(peer + " <- " + Describe(answer));
      written = written && WriteSocket(fd, EncodeEvent(answer));
    }
    if (!written) {
      ending = "stopped reading";
      break;
    }
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  char summary[256];
  std::snprintf(summary, sizeof(summary),
                ": %d events, %.1f s of audio, %d detections in %.1f s; ", num_events,
                static_cast<double>(session.SamplesHeard()) / kSampleRate,
                session.NumDetections(), seconds);
  log->Info(peer + summary + ending);
}

}  // namespace kestrel
