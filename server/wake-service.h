// WakeService: what one `kestrel serve` offers, shared by all its
// connections: the hotwords and their names, the info event that describes
// them to Home Assistant, and a new detector for each connection.
//
// Every hotword needs a name, since the protocol knows hotwords only by name:
// the names given, or else, when each model file holds one hotword, the file
// names without directory and extension ("hey-kestrel").
//
// Built once before serving; afterwards only const members are used, from
// any number of connection threads at once.
#ifndef KESTREL_SERVER_WAKE_SERVICE_H_
#define KESTREL_SERVER_WAKE_SERVICE_H_

#include <memory>
#include <string>
#include <vector>

#include "facade/hotword-detector.h"
#include "wyoming-event.h"

namespace kestrel {

class WakeService {
 public:
  // Loads the models once to check them and count their hotwords. Throws
  // KestrelError for unreadable models or bad options, std::runtime_error
  // for missing or repeated names.
  explicit WakeService(const HotwordDetectorOptions& options);

  // A detector of its own for one connection; may throw KestrelError (say,
  // when the model files changed on disk since).
  std::unique_ptr<HotwordDetector> NewDetector() const;

  const std::vector<std::string>& HotwordNames() const { return options_.hotword_names; }
  // The answer to `describe`.
  const Event& Info() const { return info_; }

 private:
  HotwordDetectorOptions options_;
  Event info_;
};

}  // namespace kestrel

#endif  // KESTREL_SERVER_WAKE_SERVICE_H_
