// libFuzzer target for the server's event reader and the session behind it.
//
// The input is what a client sends, handed to the reader in pieces whose
// size comes from the first byte, so events straddle reads in every way.
// Reading must end cleanly, cut off or malformed; anything else (a crash, a
// sanitizer report, an exception, a hang, a huge allocation) is a finding.
// Every event read must read back unchanged after EncodeEvent, and a session
// over the bundled model (KESTREL_FUZZ_MODEL overrides its path) must answer
// it without throwing.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "event-reader.h"
#include "facade/hotword-detector.h"
#include "model/hotword-model.h"
#include "wake-service.h"
#include "wake-session.h"

namespace {

using kestrel::Event;
using kestrel::EventReader;

// Reads `bytes` in pieces of at most `piece` bytes.
EventReader::ReadFunction PieceReader(const std::string* bytes, size_t piece) {
  auto at = std::make_shared<size_t>(0);
  return [bytes, piece, at](char* buffer, size_t size) {
    const size_t n = std::min({size, piece, bytes->size() - *at});
    std::memcpy(buffer, bytes->data() + *at, n);
    *at += n;
    return n;
  };
}

const kestrel::WakeService* Service() {
  static const kestrel::WakeService* service = [] {
    kestrel::HotwordDetectorOptions options;
    const char* model = std::getenv("KESTREL_FUZZ_MODEL");
    options.models.push_back(
        kestrel::HotwordModel::ReadFile(model != nullptr ? model : "models/hey-kestrel.kmodel"));
    return new kestrel::WakeService(options);
  }();
  return service;
}

void CheckRoundTrip(const Event& event) {
  const std::string bytes = EncodeEvent(event);
  EventReader again(PieceReader(&bytes, bytes.size()));
  Event copy;
  std::string error;
  const EventReader::Status status = again.Next(&copy, &error);
  // Data that arrived after the header may sit one level deeper inside it,
  // and a long one may not fit a header line.
  if (status == EventReader::Status::kMalformed &&
      (error.find("nested") != std::string::npos || error.find("longer") != std::string::npos)) {
    return;
  }
  if (status != EventReader::Status::kEvent || copy.type != event.type ||
      copy.data != event.data || copy.payload != event.payload) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t piece = 1 + data[0] % 64;
  const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  EventReader reader(PieceReader(&bytes, piece));
  kestrel::WakeSession session(Service());
  Event event;
  std::string error;
  while (reader.Next(&event, &error) == EventReader::Status::kEvent) {
    CheckRoundTrip(event);
    session.Handle(event);
  }
  if (reader.BytesRead() > bytes.size()) std::abort();
  return 0;
}
