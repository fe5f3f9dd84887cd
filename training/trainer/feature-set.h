// FeatureSet: the log-mel features of every clip of a corpus split, computed
// with the library's own front end (FilterbankStream) so that training and
// detection see identical features, and cached on disk so that re-runs skip
// the front end.
//
// All frames live in one array (a split is millions of frames; one block
// keeps them compact). Immutable once built; any thread may read it.
#ifndef KESTREL_TRAINING_TRAINER_FEATURE_SET_H_
#define KESTREL_TRAINING_TRAINER_FEATURE_SET_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "corpus-manifest.h"
#include "utils/kestrel-matrix.h"

namespace kestrel {

class FeatureSet {
 public:
  int Dim() const { return dim_; }
  int NumClips() const { return static_cast<int>(offsets_.size()) - 1; }
  int NumFrames(int clip) const { return static_cast<int>(offsets_[clip + 1] - offsets_[clip]); }
  size_t TotalFrames() const { return offsets_.back(); }
  const float* Frame(int clip, int t) const {
    return data_.data() + (offsets_[clip] + static_cast<size_t>(t)) * dim_;
  }
  // A copy of one clip's frames as a matrix.
  Matrix ClipMatrix(int clip) const;

  // Appends a clip's frames (rows of Dim() columns; the first clip sets Dim()).
  void Append(const MatrixBase& frames);

  // Binary file, through the library's token format.
  void Write(const std::string& path) const;
  void Read(const std::string& path);

 private:
  int dim_ = 0;
  std::vector<float> data_;
  std::vector<size_t> offsets_{0};
};

// The front end's features of a WAV file (16 kHz mono 16-bit), every frame
// of the file. Errors name the file.
Matrix ComputeWaveFeatures(const std::string& wav);

// The front end's features of 16 kHz 16-bit samples, every frame of them.
Matrix ComputeSampleFeatures(const std::vector<int16_t>& samples);

// Features of `clips`, in order. If `cache_path` holds features of exactly
// these WAV files (same count, sizes and modification times) they are read
// from it; otherwise they are computed on `num_threads` threads and the cache
// is rewritten. `progress` (may be empty) receives lines to print.
FeatureSet LoadOrComputeFeatures(const std::vector<CorpusClip>& clips,
                                 const std::string& cache_path, int num_threads,
                                 const std::function<void(const std::string&)>& progress);

}  // namespace kestrel

#endif  // KESTREL_TRAINING_TRAINER_FEATURE_SET_H_
