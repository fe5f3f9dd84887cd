// Corpus manifests: the JSON-lines files (train.jsonl, dev.jsonl, test.jsonl)
// that list a corpus's clips, one object per line.
//
// Fields read: "wav" (path relative to the manifest's directory), "kind"
// ("positive", "negative", "confusable" or "noise"), "duration" (seconds) and,
// for positives, "hotword" ([start, end] seconds) and the phoneme timings
// "phonemes_arpa" (engine-independent symbols; "phonemes" when absent), each
// [symbol, start, end]. For long negative recordings, the [start, end] of
// each entry of "utterances" whose type (third item) is "confusable", and its
// text (sixth). For near-phrase ("confusable") clips, the phrase's "span"
// and the "differs" spans where it sounds unlike the hotword (both
// optional). "split", "engine", "voice", "text", "placement", "speed" and
// "noise" are kept for reports.
// Other fields are ignored, so the generator may add more.
#ifndef KESTREL_TRAINING_TRAINER_CORPUS_MANIFEST_H_
#define KESTREL_TRAINING_TRAINER_CORPUS_MANIFEST_H_

#include <string>
#include <utility>
#include <vector>

namespace kestrel {

enum class ClipKind { kPositive, kNegative, kConfusable, kNoise };

struct PhoneSpan {
  std::string symbol;
  double start = 0.0;  // seconds from the start of the clip
  double end = 0.0;
};

struct CorpusClip {
  std::string wav;  // absolute, or relative to the working directory
  ClipKind kind = ClipKind::kNegative;
  double duration = 0.0;
  // Positives only: where the hotword is spoken, and its phonemes.
  double hotword_start = 0.0;
  double hotword_end = 0.0;
  std::vector<PhoneSpan> phones;
  // Negatives only: where confusable phrases are spoken inside the clip, and
  // what each says.
  std::vector<std::pair<double, double>> confusable_spans;
  std::vector<std::string> confusable_texts;
  // Confusables only: where the near phrase is said (both 0 when not given),
  // and the parts of it that sound unlike the hotword.
  double span_start = 0.0;
  double span_end = 0.0;
  std::vector<std::pair<double, double>> differs;
  std::string split, engine, voice, text, placement, noise;
  // Speaking rate relative to the engine's normal (> 1 faster); 0 if unknown.
  double speed = 0.0;
};

// Reads a manifest. Errors (a missing file, bad JSON, a missing or ill-typed
// field, a positive without timings) throw KestrelError naming the file,
// the line and the field, with what was expected and what was found.
std::vector<CorpusClip> ReadManifest(const std::string& path);

// Parses one manifest line; `where` ("file:line") labels its errors and
// `base_dir` is prefixed to the relative "wav" path.
CorpusClip ParseManifestLine(const std::string& line, const std::string& where,
                             const std::string& base_dir);

}  // namespace kestrel

#endif  // KESTREL_TRAINING_TRAINER_CORPUS_MANIFEST_H_
