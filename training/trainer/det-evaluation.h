// Scoring of detections against a corpus: hits, misses and false alarms,
// operating points over a sensitivity sweep, and the reports (markdown table,
// DET curve plotted with gnuplot).
//
// A detection is a hit when it falls inside a positive's hotword span, or
// up to `tolerance_seconds` after its end (the detector decides once the
// last unit has been heard and smoothed); a positive with at least one hit
// is detected. Confusable phrases ("hay kestrel", "hey kevin": confusable
// clips, and the confusable utterances inside long negative recordings) are
// scored on their own: a confusable with a detection in it (or up to the
// tolerance after it) is an accepted confusable. Some are homophones of the
// hotword, so they say how selective a model is rather than how often it
// fires on everyday audio. Every other detection is a false alarm, in
// negatives and in the speech around a positive's hotword alike. False alarms
// per hour are counted over all audio outside hotwords and confusables.
#ifndef KESTREL_TRAINING_TRAINER_DET_EVALUATION_H_
#define KESTREL_TRAINING_TRAINER_DET_EVALUATION_H_

#include <functional>
#include <string>
#include <vector>

#include "corpus-manifest.h"

namespace kestrel {

struct OperatingPoint {
  float sensitivity = 0.0f;
  int positives = 0;
  int detected = 0;
  int false_alarms = 0;
  double hours = 0.0;  // audio outside the hotword spans and confusables
  int confusables = 0;
  int confusables_accepted = 0;

  double FalseRejectionRate() const {
    return positives > 0 ? 1.0 - static_cast<double>(detected) / positives : 0.0;
  }
  double FalseAlarmsPerHour() const { return hours > 0 ? false_alarms / hours : 0.0; }
  double ConfusableAcceptRate() const {
    return confusables > 0 ? static_cast<double>(confusables_accepted) / confusables : 0.0;
  }
};

// `detections[i]`: frames of clip i at which the hotword was reported.
OperatingPoint CountOperatingPoint(const std::vector<CorpusClip>& clips,
                                   const std::vector<std::vector<int>>& detections,
                                   double tolerance_seconds);

// The lowest false rejection rate among points with at most
// `max_false_alarms_per_hour`; 1.0 when no point qualifies.
double FrrAtFalseAlarmRate(const std::vector<OperatingPoint>& curve,
                           double max_false_alarms_per_hour);

// The point with the largest sensitivity whose false alarm rate is at most
// `max_false_alarms_per_hour`; null when none qualifies.
const OperatingPoint* MostSensitiveWithin(const std::vector<OperatingPoint>& curve,
                                          double max_false_alarms_per_hour);

struct NamedCurve {
  std::string name;  // e.g. "Viterbi (3)"
  std::vector<OperatingPoint> points;
};

// Markdown: one row per operating point of one curve.
std::string OperatingPointTable(const NamedCurve& curve);
// Markdown: for one setting's `detections`, the false rejections of the
// positives in groups named by `group_of` (rows in name order; an empty name
// leaves the clip out), so that a kind of speech the model generalises
// poorly to is not hidden in the total. `title` heads the first column.
std::string FrrByGroupTable(const std::vector<CorpusClip>& clips,
                            const std::vector<std::vector<int>>& detections, double tolerance,
                            const std::string& title,
                            const std::function<std::string(const CorpusClip&)>& group_of);
// FrrByGroupTable by voice. Engines with many voices (eSpeak's variants)
// are one row.
std::string FrrByVoiceTable(const std::vector<CorpusClip>& clips,
                            const std::vector<std::vector<int>>& detections, double tolerance);
// Markdown: how often each near phrase (the confusable clips' texts, and the
// confusable utterances of long recordings) was accepted, most accepted
// first, with the total.
std::string NearPhraseTable(const std::vector<CorpusClip>& clips,
                            const std::vector<std::vector<int>>& detections, double tolerance);
// Markdown: FRR of each curve at the given false alarm rates.
std::string ComparisonTable(const std::vector<NamedCurve>& curves,
                            const std::vector<double>& false_alarm_rates);

// Writes the curves as gnuplot data and a script next to `png_path`
// (same name, ".dat" and ".gp"), and runs gnuplot to draw the DET picture
// (false rejection rate against false alarms per hour, log scales). Returns
// false, with the reason in *error, when gnuplot is missing or fails; the
// data and script stay for a later run.
bool WriteDetPlot(const std::vector<NamedCurve>& curves, const std::string& png_path,
                  std::string* error);

}  // namespace kestrel

#endif  // KESTREL_TRAINING_TRAINER_DET_EVALUATION_H_
