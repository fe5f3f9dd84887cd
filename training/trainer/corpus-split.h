// CorpusSplit: one split of a corpus (the clips of its manifest and their
// features), as both the trainer and the evaluator load it.
#ifndef KESTREL_TRAINING_TRAINER_CORPUS_SPLIT_H_
#define KESTREL_TRAINING_TRAINER_CORPUS_SPLIT_H_

#include <functional>
#include <string>
#include <vector>

#include "corpus-manifest.h"
#include "feature-set.h"

namespace kestrel {

struct CorpusSplit {
  std::string name;
  std::vector<CorpusClip> clips;
  FeatureSet features;

  int NumPositives() const;
  double Hours() const;  // total duration of the clips
};

// Reads <corpus_dir>/<name>.jsonl and the features of its clips, cached as
// <cache_dir>/features-<name>.bin (see LoadOrComputeFeatures).
CorpusSplit LoadCorpusSplit(const std::string& corpus_dir, const std::string& name,
                            const std::string& cache_dir, int num_threads,
                            const std::function<void(const std::string&)>& progress);

}  // namespace kestrel

#endif  // KESTREL_TRAINING_TRAINER_CORPUS_SPLIT_H_
