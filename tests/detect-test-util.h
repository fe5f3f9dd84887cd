// Test helpers for the detector stage: tiny universal model files written on
// the fly, and an upstream stage that plays back scripted blocks.
//
// The default network of a test model is one identity affine layer, so the
// detector's posteriors are exactly the feature values a test feeds in.
#ifndef KESTREL_TESTS_DETECT_TEST_UTIL_H_
#define KESTREL_TESTS_DETECT_TEST_UTIL_H_

#include <atomic>
#include <deque>
#include <filesystem>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "detect/universal-detect-stream.h"
#include "nnet-test-util.h"
#include "stream/stream-itf.h"
#include "test-audio.h"
#include "utils/kestrel-globals.h"
#include "utils/kestrel-matrix.h"

namespace kestrel {

// The optional groups of a hotword record; a group left unset is not written,
// so the reader's defaults apply.
struct TestSearchGroup {
  int32 method = 1;
  int32 neighbour = 0;
  std::vector<int32> mask;
  std::vector<float> floor;
};

struct TestHotword {
  TestHotword(std::vector<int32> units = {}, float sensitivity = 0.5f)
      : keyword(std::move(units)), sensitivity(sensitivity) {}
  std::vector<int32> keyword;
  float sensitivity;
  std::optional<TestSearchGroup> search;
  std::optional<bool> search_max;
  std::optional<int32> num_pieces;
  std::optional<std::pair<int32, int32>> passes;  // duration pass, floor pass
};

struct TestModel {
  int32 smooth_window = 1;
  int32 slide_window = 100;
  std::vector<TestHotword> hotwords;
  int num_outputs = 3;    // size of the identity network
  std::string nnet_text;  // replaces the identity network when not empty
};

// "<Nnet> <AffineTransform> dim dim" with identity weights and zero bias.
inline std::string IdentityNnetText(int dim) {
  std::ostringstream os;
  os << "<Nnet> <AffineTransform> " << dim << " " << dim << " [";
  for (int i = 0; i < dim * dim; ++i) os << (i % dim == 0 ? "\n " : " ") << (i % (dim + 1) == 0);
  os << " ]\n [";
  for (int c = 0; c < dim; ++c) os << " 0";
  os << " ]\n</Nnet>\n";
  return os.str();
}

// The text form of a universal model file.
inline std::string TestModelText(const TestModel& model) {
  std::ostringstream os;
  auto list = [&os](const auto& values) {
    os << "[ ";
    for (auto x : values) os << x << " ";
    os << "]\n";
  };
  os << "<UniversalModel> <KwInfo>\n<SmoothWindow> " << model.smooth_window
     << " <SlideWindow> " << model.slide_window << " <NumKws> "
     << model.hotwords.size() << "\n";
  for (const TestHotword& hw : model.hotwords) {
    os << "<Kw> ";
    list(hw.keyword);
    os << "<Sensitivity> " << hw.sensitivity << "\n";
    if (hw.search) {
      os << "<SearchMethod> " << hw.search->method << " <SearchNeighbour> "
         << hw.search->neighbour << " <SearchMask> ";
      list(hw.search->mask);
      os << "<SearchFloor> ";
      list(hw.search->floor);
    }
    if (hw.search_max) os << "<SearchMax> " << (*hw.search_max ? "T" : "F") << "\n";
    if (hw.num_pieces) os << "<NumPieces> " << *hw.num_pieces << "\n";
    if (hw.passes) {
      os << "<DurationPass> " << hw.passes->first << " <FloorPass> "
         << hw.passes->second << "\n";
    }
  }
  os << "</KwInfo>\n"
     << (model.nnet_text.empty() ? IdentityNnetText(model.num_outputs) : model.nnet_text);
  return os.str();
}

// A fresh directory of its own in the test temporary directory (which goes
// when the process ends).
class TestDir {
 public:
  TestDir() : path_(TempPath("dir-" + std::to_string(counter_++))) {
    std::filesystem::create_directories(path_);
  }
  std::string Path(const std::string& name) const { return (path_ / name).string(); }

  // Writes `contents` to the file `name` and returns its path.
  std::string WriteFile(const std::string& name, const std::string& contents) const {
    WriteBytes(Path(name), contents);
    return Path(name);
  }
  std::string WriteModel(const std::string& name, const TestModel& model) const {
    return WriteFile(name, TestModelText(model));
  }

 private:
  static inline std::atomic<int> counter_{0};
  std::filesystem::path path_;
};

// Paths joined by the global delimiter, as a model string.
inline std::string JoinModelPaths(const std::vector<std::string>& paths) {
  std::string joined;
  for (size_t i = 0; i < paths.size(); ++i) {
    if (i > 0) joined += global_kestrel_string_delimiter;
    joined += paths[i];
  }
  return joined;
}

// Writes `models` into `dir` as m0, m1, ... and returns their model string.
inline std::string WriteModels(const TestDir& dir, const std::vector<TestModel>& models) {
  std::vector<std::string> paths;
  for (size_t i = 0; i < models.size(); ++i) {
    paths.push_back(dir.WriteModel("m" + std::to_string(i), models[i]));
  }
  return JoinModelPaths(paths);
}

// An upstream stage that returns queued blocks in order, one per Read, and
// kSignalEnd with no data once the queue is empty. Frame ids run on from
// call to call unless a test sets the next one.
class ScriptedStream : public StreamItf {
 public:
  // Queues `rows` (one feature row per frame) to be returned with `signal`.
  void Push(const std::vector<std::vector<float>>& rows, int signal = 0) {
    Block block{MatrixFromRows(rows), {}, signal};
    for (size_t i = 0; i < rows.size(); ++i) block.info.push_back(FrameInfo{next_frame_id_++});
    blocks_.push_back(std::move(block));
  }
  void SetNextFrameId(int32 id) { next_frame_id_ = id; }

  int Read(Matrix* data, std::vector<FrameInfo>* frame_info) override {
    Block block{Matrix(), {}, kSignalEnd};
    if (!blocks_.empty()) {
      block = std::move(blocks_.front());
      blocks_.pop_front();
    }
    *data = std::move(block.data);
    if (frame_info != nullptr) *frame_info = std::move(block.info);
    return block.signal;
  }
  bool Reset() override { return true; }
  std::string Name() const override { return "ScriptedStream"; }

 private:
  struct Block {
    Matrix data;
    std::vector<FrameInfo> info;
    int signal;
  };
  std::deque<Block> blocks_;
  int32 next_frame_id_ = 0;
};

}  // namespace kestrel

#endif  // KESTREL_TESTS_DETECT_TEST_UTIL_H_
