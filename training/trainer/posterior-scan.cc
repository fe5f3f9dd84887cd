#include "posterior-scan.h"

#include <sstream>

#include "parallel-ranges.h"
#include "stream/stream-itf.h"
#include "utils/kestrel-log.h"

namespace kestrel {
namespace {

// Frame ids of consecutive clips are this far apart (about 20 minutes of
// frames), more than any clip plus any refractory span, so a detection in
// one clip never suppresses one in the next. A fresh detector every
// kClipsPerDetector clips keeps the ids below 2^23, where the detector's
// float distance tests are still exact.
constexpr int32 kClipFrameGap = 1 << 17;
constexpr int kClipsPerDetector = 64;
constexpr int kBlockFrames = 100;

// Plays back one clip's stored rows, kBlockFrames per Read, the last block
// with kSignalFlush, then kSignalEnd.
class PlaybackStream : public StreamItf {
 public:
  void Start(const FeatureSet* set, int clip, int32 first_frame_id) {
    set_ = set;
    clip_ = clip;
    next_ = 0;
    first_frame_id_ = first_frame_id;
    ended_ = false;
  }

  int Read(Matrix* data, std::vector<FrameInfo>* frame_info) override {
    if (frame_info != nullptr) frame_info->clear();
    int total = set_->NumFrames(clip_);
    if (ended_) {
      data->Resize(0, 0);
      return kSignalEnd;
    }
    int n = std::min(kBlockFrames, total - next_);
    data->Resize(n, set_->Dim(), kUndefined);
    for (int r = 0; r < n; ++r) {
      const float* row = set_->Frame(clip_, next_ + r);
      std::copy(row, row + set_->Dim(), data->RowData(r));
      if (frame_info != nullptr) {
        FrameInfo info;
        info.frame_id = first_frame_id_ + next_ + r;
        frame_info->push_back(info);
      }
    }
    next_ += n;
    if (next_ < total) return 0;
    ended_ = true;
    return kSignalFlush;
  }
  bool Reset() override { return true; }
  std::string Name() const override { return "PlaybackStream"; }

 private:
  const FeatureSet* set_ = nullptr;
  int clip_ = 0;
  int next_ = 0;
  int32 first_frame_id_ = 0;
  bool ended_ = true;
};

Nnet IdentityNnet(int dim) {
  std::ostringstream text;
  text << "<Nnet> <Rescale> " << dim << " " << dim << " [";
  for (int i = 0; i < dim; ++i) text << " 1";
  text << " ] </Nnet>";
  std::istringstream is(text.str());
  Nnet nnet;
  nnet.Read(false, &is);
  return nnet;
}

}  // namespace

FeatureSet ComputePosteriors(const Nnet& nnet, const FeatureSet& features, int num_threads) {
  std::vector<Matrix> outputs(features.NumClips());
  ParallelRanges(features.NumClips(), num_threads, [&](int first, int end) {
    Nnet local(nnet);
    std::vector<FrameInfo> info, out_info;
    for (int c = first; c < end; ++c) {
      Matrix input = features.ClipMatrix(c);
      info.assign(input.NumRows(), FrameInfo());
      for (int t = 0; t < input.NumRows(); ++t) info[t].frame_id = t;
      local.ResetComputation();
      local.FlushOutput(input, info, &outputs[c], &out_info);
    }
  });
  FeatureSet set;
  for (Matrix& m : outputs) {
    set.Append(m);
    m.ReleaseMatrixMemory();
  }
  return set;
}

std::vector<std::vector<int>> ScanDetections(const FeatureSet& posteriors,
                                             const HotwordModel& settings,
                                             UniversalDetectStreamOptions options,
                                             int num_threads) {
  HotwordModel model = settings;
  model.nnet = IdentityNnet(posteriors.Dim());
  model.name = "search settings";
  options.model_str.clear();
  options.sensitivity_str.clear();
  options.high_sensitivity_str.clear();
  options.smooth_window_str.clear();
  options.slide_window_str.clear();

  std::vector<std::vector<int>> detections(posteriors.NumClips());
  ParallelRanges(posteriors.NumClips(), num_threads, [&](int first, int end) {
    PlaybackStream playback;
    Matrix out;
    std::vector<FrameInfo> info;
    for (int batch = first; batch < end; batch += kClipsPerDetector) {
      UniversalDetectStream detector(options, {model});
      detector.Connect(&playback);
      for (int c = batch; c < std::min(end, batch + kClipsPerDetector); ++c) {
        if (posteriors.NumFrames(c) >= kClipFrameGap) {
          KESTREL_ERR("posterior-scan") << "clip " << c << " has " << posteriors.NumFrames(c)
                                        << " frames; at most " << kClipFrameGap - 1
                                        << " can be scanned";
        }
        const int32 base = (c - batch) * kClipFrameGap;
        playback.Start(&posteriors, c, base);
        detector.Reset();
        for (;;) {
          int signal = detector.Read(&out, &info);
          if (out.NumRows() > 0 && !info.empty()) detections[c].push_back(info[0].frame_id - base);
          if (signal & kSignalStopMask) break;
        }
      }
    }
  });
  return detections;
}

}  // namespace kestrel
