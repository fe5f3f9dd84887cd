#include "corpus-split.h"

#include <filesystem>
#include <sstream>

namespace kestrel {

int CorpusSplit::NumPositives() const {
  int n = 0;
  for (const CorpusClip& c : clips) n += c.kind == ClipKind::kPositive;
  return n;
}

double CorpusSplit::Hours() const {
  double seconds = 0.0;
  for (const CorpusClip& c : clips) seconds += c.duration;
  return seconds / 3600.0;
}

CorpusSplit LoadCorpusSplit(const std::string& corpus_dir, const std::string& name,
                            const std::string& cache_dir, int num_threads,
                            const std::function<void(const std::string&)>& progress) {
  CorpusSplit split;
  split.name = name;
  split.clips = ReadManifest((std::filesystem::path(corpus_dir) / (name + ".jsonl")).string());
  if (progress) {
    std::ostringstream line;
    line.setf(std::ios::fixed);
    line.precision(2);
    line << name << ": " << split.clips.size() << " clips, " << split.NumPositives()
         << " positives, " << split.Hours() << " h";
    progress(line.str());
  }
  std::filesystem::create_directories(cache_dir);
  split.features = LoadOrComputeFeatures(
      split.clips, (std::filesystem::path(cache_dir) / ("features-" + name + ".bin")).string(),
      num_threads, progress);
  return split;
}

}  // namespace kestrel
