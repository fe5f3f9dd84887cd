#include "feature-set.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <exception>
#include <filesystem>
#include <mutex>
#include <sstream>
#include <thread>

#include "frontend/filterbank-stream.h"
#include "frontend/pcm-source-stream.h"
#include "frontend/wave-reader.h"
#include "utils/kestrel-io.h"
#include "utils/kestrel-log.h"

namespace kestrel {
namespace {

// What identifies a WAV file's contents well enough to trust a cache: its
// size and modification time.
struct FileStamp {
  int64 bytes = -1;
  int64 mtime = 0;
  bool operator==(const FileStamp& o) const { return bytes == o.bytes && mtime == o.mtime; }
};

FileStamp StampOf(const std::string& path) {
  std::error_code ec;
  FileStamp s;
  auto size = std::filesystem::file_size(path, ec);
  if (ec) return s;
  auto time = std::filesystem::last_write_time(path, ec);
  if (ec) return s;
  s.bytes = static_cast<int64>(size);
  s.mtime = static_cast<int64>(time.time_since_epoch().count());
  return s;
}

std::vector<FileStamp> StampsOf(const std::vector<CorpusClip>& clips) {
  std::vector<FileStamp> stamps;
  for (const CorpusClip& c : clips) stamps.push_back(StampOf(c.wav));
  return stamps;
}

void WriteStamps(const std::vector<FileStamp>& stamps, std::ostream* os) {
  WriteToken(true, "<Stamps>", os);
  WriteBasicType<int32>(true, static_cast<int32>(stamps.size()), os);
  for (const FileStamp& s : stamps) {
    WriteBasicType<int64>(true, s.bytes, os);
    WriteBasicType<int64>(true, s.mtime, os);
  }
}

std::vector<FileStamp> ReadStamps(std::istream* is) {
  ExpectToken(true, "<Stamps>", is);
  int32 n = 0;
  ReadBasicType<int32>(true, &n, is);
  std::vector<FileStamp> stamps(std::max(0, n));
  for (FileStamp& s : stamps) {
    ReadBasicType<int64>(true, &s.bytes, is);
    ReadBasicType<int64>(true, &s.mtime, is);
  }
  return stamps;
}

}  // namespace

Matrix FeatureSet::ClipMatrix(int clip) const {
  int n = NumFrames(clip);
  Matrix m(n, dim_, kUndefined);
  for (int t = 0; t < n; ++t) std::memcpy(m.RowData(t), Frame(clip, t), sizeof(float) * dim_);
  return m;
}

void FeatureSet::Append(const MatrixBase& frames) {
  if (NumClips() == 0 && dim_ == 0) dim_ = frames.NumCols();
  if (frames.NumRows() > 0 && frames.NumCols() != dim_) {
    KESTREL_ERR("feature-set") << "clip " << NumClips() << " has " << frames.NumCols()
                               << " feature columns, expected " << dim_;
  }
  for (int t = 0; t < frames.NumRows(); ++t) {
    data_.insert(data_.end(), frames.RowData(t), frames.RowData(t) + dim_);
  }
  offsets_.push_back(offsets_.back() + frames.NumRows());
}

void FeatureSet::Write(const std::string& path) const {
  Output out(path, true);
  std::ostream* os = out.Stream();
  WriteToken(true, "<FeatureSet>", os);
  WriteBasicType<int32>(true, dim_, os);
  WriteBasicType<int32>(true, NumClips(), os);
  for (int c = 0; c < NumClips(); ++c) ClipMatrix(c).Write(true, os);
  WriteToken(true, "</FeatureSet>", os);
  out.Close();
}

void FeatureSet::Read(const std::string& path) {
  Input in(path);
  std::istream* is = in.Stream();
  ExpectToken(in.Binary(), "<FeatureSet>", is);
  int32 dim = 0, n = 0;
  ReadBasicType<int32>(in.Binary(), &dim, is);
  ReadBasicType<int32>(in.Binary(), &n, is);
  *this = FeatureSet();
  dim_ = dim;
  Matrix m;
  for (int32 c = 0; c < n; ++c) {
    m.Read(in.Binary(), is);
    Append(m);
  }
  ExpectToken(in.Binary(), "</FeatureSet>", is);
}

Matrix ComputeWaveFeatures(const std::string& wav) { return ComputeSampleFeatures(ReadWaveFile(wav)); }

Matrix ComputeSampleFeatures(const std::vector<int16_t>& samples) {
  // One block for the whole file: the front end's output does not depend on
  // how the audio is chunked.
  PcmSourceStream source(static_cast<int>(std::max<size_t>(samples.size(), 1)));
  FilterbankStream filterbank;
  filterbank.Connect(&source);
  source.Push(samples.data(), samples.size());
  source.MarkEnd();
  Matrix features(0, FilterbankStream::kNumBins);
  Matrix block;
  for (;;) {
    int signal = filterbank.Read(&block, nullptr);
    if (block.NumRows() > 0) {
      Matrix joined(features.NumRows() + block.NumRows(), block.NumCols(), kUndefined);
      if (features.NumRows() > 0) joined.RowRange(0, features.NumRows()).CopyFromMat(features);
      joined.RowRange(features.NumRows(), block.NumRows()).CopyFromMat(block);
      features = std::move(joined);
    }
    if (signal & (kSignalStopMask | kSignalFlushMask)) break;
  }
  return features;
}

FeatureSet LoadOrComputeFeatures(const std::vector<CorpusClip>& clips,
                                 const std::string& cache_path, int num_threads,
                                 const std::function<void(const std::string&)>& progress) {
  auto say = [&progress](const std::string& line) {
    if (progress) progress(line);
  };
  std::vector<FileStamp> stamps = StampsOf(clips);
  std::string stamp_path = cache_path + ".stamps";
  if (std::filesystem::exists(cache_path) && std::filesystem::exists(stamp_path)) {
    Input in(stamp_path);
    if (ReadStamps(in.Stream()) == stamps) {
      FeatureSet set;
      set.Read(cache_path);
      if (set.NumClips() == static_cast<int>(clips.size())) {
        say("features: read " + std::to_string(set.NumClips()) + " clips from " + cache_path);
        return set;
      }
    }
  }

  std::vector<Matrix> features(clips.size());
  std::atomic<size_t> next{0}, done{0};
  std::mutex error_mutex;
  std::exception_ptr first_error;
  auto compute = [&](size_t i) {
    try {
      features[i] = ComputeWaveFeatures(clips[i].wav);
    } catch (...) {
      std::lock_guard<std::mutex> lock(error_mutex);
      if (!first_error) first_error = std::current_exception();
      next = clips.size();  // stop every thread early
    }
    ++done;
  };
  std::vector<std::thread> threads;
  for (int t = 1; t < num_threads; ++t) {
    threads.emplace_back([&]() {
      for (size_t i; (i = next++) < clips.size();) compute(i);
    });
  }
  // The calling thread works too, and reports progress between clips.
  auto start = std::chrono::steady_clock::now();
  size_t last_report = 0;
  for (size_t i; (i = next++) < clips.size();) {
    compute(i);
    if (done - last_report >= 2000) {
      last_report = done;
      double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      std::ostringstream line;
      line << "features: " << done << "/" << clips.size() << " clips (" << static_cast<int>(s)
           << " s)";
      say(line.str());
    }
  }
  for (std::thread& t : threads) t.join();
  if (first_error) std::rethrow_exception(first_error);

  FeatureSet set;
  for (Matrix& m : features) {
    set.Append(m);
    m.ReleaseMatrixMemory();
  }
  set.Write(cache_path);
  Output out(stamp_path, true);
  WriteStamps(stamps, out.Stream());
  out.Close();
  say("features: computed " + std::to_string(set.NumClips()) + " clips, " +
      std::to_string(set.TotalFrames()) + " frames; cached in " + cache_path);
  return set;
}

}  // namespace kestrel
