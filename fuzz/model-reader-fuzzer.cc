// libFuzzer target for universal model files.
//
// Every input is written to a file and loaded as a detector's only model. It
// must end in a loaded detector or a KestrelError: anything else (a crash, a
// sanitizer report, another exception, a hang, a huge allocation) is a
// finding. A model that loads must also survive what a host does next: being
// written back and reloaded unchanged, and scoring a few frames.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "detect/universal-detect-stream.h"
#include "stream/stream-itf.h"
#include "utils/kestrel-log.h"

namespace {

using kestrel::FrameInfo;
using kestrel::KestrelError;
using kestrel::Matrix;
using kestrel::UniversalDetectStream;
using kestrel::UniversalDetectStreamOptions;

// Inputs wider than this are not run: the network's own layers decide their
// cost, and the reader is what is under test.
constexpr int kMaxRunInputDim = 64;
constexpr int kRunFrames = 8;

std::string TempPath(const std::string& name) {
  return (std::filesystem::temp_directory_path() /
          ("kestrel-fuzz-" + std::to_string(getpid()) + "-" + name))
      .string();
}

const std::string& InputPath() {
  static const std::string path = TempPath("input.kmodel");
  return path;
}
const std::string& CopyPath(int i) {
  static const std::string paths[2] = {TempPath("copy0.kmodel"), TempPath("copy1.kmodel")};
  return paths[i];
}

void RemoveTempFiles() {
  std::remove(InputPath().c_str());
  std::remove(CopyPath(0).c_str());
  std::remove(CopyPath(1).c_str());
}

std::string FileBytes(const std::string& path) {
  std::ifstream is(path, std::ios::binary);
  std::ostringstream os;
  os << is.rdbuf();
  return os.str();
}

UniversalDetectStreamOptions OptionsFor(const std::string& path) {
  UniversalDetectStreamOptions options;
  options.model_str = path;
  return options;
}

// Returns a block of frames with the given signal, then the end of stream.
class FixedStream : public kestrel::StreamItf {
 public:
  FixedStream(int cols, int signal) : cols_(cols), signal_(signal) {}
  int Read(Matrix* data, std::vector<FrameInfo>* frame_info) override {
    if (done_) {
      data->Resize(0, 0);
      frame_info->clear();
      return kestrel::kSignalEnd;
    }
    done_ = true;
    data->Resize(kRunFrames, cols_);
    frame_info->clear();
    for (int r = 0; r < kRunFrames; ++r) {
      for (int c = 0; c < cols_; ++c) (*data)(r, c) = static_cast<float>((r * 7 + c) % 10) / 10;
      frame_info->push_back(FrameInfo{r});
    }
    return signal_;
  }
  bool Reset() override { return true; }
  std::string Name() const override { return "FixedStream"; }

 private:
  int cols_;
  int signal_;
  bool done_ = false;
};

void CheckRoundTrip(const UniversalDetectStream& det) {
  det.WriteHotwordModel(true, CopyPath(0));
  UniversalDetectStream reloaded(OptionsFor(CopyPath(0)));
  reloaded.WriteHotwordModel(true, CopyPath(1));
  if (FileBytes(CopyPath(0)) != FileBytes(CopyPath(1))) {
    std::fprintf(stderr, "a loaded model changed when written and read back\n");
    std::abort();
  }
}

void RunFrames(UniversalDetectStream* det) {
  const int cols = det->GetNnet(0).InputDim();
  if (cols < 1 || cols > kMaxRunInputDim) return;
  for (int signal : {0, static_cast<int>(kestrel::kSignalFlush)}) {
    FixedStream upstream(cols, signal);
    det->Connect(&upstream);
    Matrix data;
    std::vector<FrameInfo> info;
    det->Read(&data, &info);
    det->Disconnect();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  // Thousands of rejected inputs a second: keep them off the console.
  kestrel::SetLogHandler([](kestrel::KestrelLogType, const std::string&, int,
                            const std::string&, const std::string&) {});
  std::atexit(RemoveTempFiles);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  {
    std::ofstream os(InputPath(), std::ios::binary | std::ios::trunc);
    os.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  try {
    UniversalDetectStream det(OptionsFor(InputPath()));
    CheckRoundTrip(det);
    RunFrames(&det);
  } catch (const KestrelError&) {
    // A refused model, or a loaded one that a Read refuses: both are answers.
  }
  return 0;
}
