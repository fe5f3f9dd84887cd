// How a model does on a user's own recordings at each sensitivity of a
// sweep, found by running the real detector (HotwordDetector) over them
// again at every sensitivity: recordings of the phrase should each wake it
// (a recording with no detection is a miss), background audio should not
// (every detection in it is a false alarm). An hour of audio costs about two
// seconds per sensitivity on one core.
//
// Ownership: plain values. The sweep runs on `threads` threads of its own
// and returns when they are done.
#ifndef KESTREL_TOOLS_SENSITIVITY_SWEEP_H_
#define KESTREL_TOOLS_SENSITIVITY_SWEEP_H_

#include <cstdint>
#include <string>
#include <vector>

#include "facade/hotword-detector.h"

namespace kestrel {

// One audio file, as 16 kHz samples.
struct Recording {
  std::string path;
  std::vector<int16_t> samples;
};

// The .wav files named by `list`: comma-separated files and directories
// (every *.wav directly inside, in name order). Throws KestrelError naming
// the file or directory that cannot be read, has no .wav files or no audio;
// `what` ("--positives") leads the message for an empty list.
std::vector<Recording> ReadRecordings(const std::string& list, const std::string& what);

struct SweepPoint {
  float sensitivity = 0.0f;
  int misses = 0;      // positive recordings without a detection
  int false_alarms = 0;  // detections in the negative recordings
  double negative_hours = 0.0;
  double FalseAlarmsPerHour() const {
    return negative_hours > 0.0 ? false_alarms / negative_hours : 0.0;
  }
};

// One point per sensitivity, in the given order; `options` gives the models
// and every other detector setting (its sensitivities are replaced).
std::vector<SweepPoint> SweepSensitivity(const HotwordDetectorOptions& options,
                                         const std::vector<Recording>& positives,
                                         const std::vector<Recording>& negatives,
                                         const std::vector<float>& sensitivities, int threads);

// The recommended point (an index into `points`, which ascend in
// sensitivity). Among the points whose false alarms per hour are within
// `max_false_alarms_per_hour`, those that miss fewest form a range; its
// middle leaves room both ways for voices and rooms the recordings lack, but
// no point above `trained` (the model's own sensitivity, which hours of
// speech and near phrases set) is taken where one at or below it misses as
// few: minutes of background audio cannot show false alarms that rare. When
// no point is within budget, the least sensitive. `rule` (if given) gets the
// reason in words.
size_t RecommendSensitivity(const std::vector<SweepPoint>& points,
                            double max_false_alarms_per_hour, float trained, std::string* rule);

}  // namespace kestrel

#endif  // KESTREL_TOOLS_SENSITIVITY_SWEEP_H_
