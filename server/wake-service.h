// WakeService: what one `kestrel serve` offers, shared by all its
// connections: the hotwords and their names, the info event that describes
// them to Home Assistant, and a new detector for each connection.
//
// Every hotword needs a name, since the protocol knows hotwords only by name:
// the names given, or else its model's file name without directory and
// extension ("hey-kestrel"), with its number in the model appended when the
// model holds several ("two-words-1", "two-words-2").
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
  // Keeps the options (the models loaded) and makes one detector to check
  // them. Throws KestrelError for unusable models or bad options,
  // std::runtime_error for empty or repeated names.
  explicit WakeService(const HotwordDetectorOptions& options);

  // A detector of its own for one connection, on copies of the models, for
  // audio at `sample_rate` Hz.
  std::unique_ptr<HotwordDetector> NewDetector(int sample_rate = kSampleRate) const;

  const std::vector<std::string>& HotwordNames() const { return options_.hotword_names; }
  // The answer to `describe`.
  const Event& Info() const { return info_; }

 private:
  HotwordDetectorOptions options_;
  Event info_;
};

}  // namespace kestrel

#endif  // KESTREL_SERVER_WAKE_SERVICE_H_
