// kestrel info: what a set of model files holds.
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "detect/universal-detect-stream.h"
#include "nnet/nnet-component.h"
#include "nnet/nnet-splice.h"
#include "utils/kestrel-globals.h"
#include "utils/kestrel-log.h"

namespace kestrel {
namespace {

std::string Frames(int32 frames) {
  std::ostringstream os;
  os << frames << " frames (" << frames / 100.0 << " s)";
  return os.str();
}

// "-10..5" for a run of consecutive offsets, "[0 30]" otherwise.
std::string Offsets(const std::vector<int32>& offsets) {
  bool consecutive = !offsets.empty();
  for (size_t i = 1; i < offsets.size(); ++i) consecutive &= offsets[i] == offsets[i - 1] + 1;
  std::ostringstream os;
  if (consecutive && offsets.size() > 2) {
    os << offsets.front() << ".." << offsets.back();
  } else {
    os << "[";
    for (size_t i = 0; i < offsets.size(); ++i) os << (i ? " " : "") << offsets[i];
    os << "]";
  }
  return os.str();
}

void PrintModel(const UniversalDetectStream& detector, int m, const std::string& file) {
  std::cout << file << "\n"
            << "  windows: smoothing " << Frames(detector.SmoothWindow(m)) << ", search "
            << Frames(detector.SlideWindow(m)) << "\n";
  for (int k = 0; k < detector.NumHotwords(m); ++k) {
    std::cout << "  hotword " << detector.HotwordId(m, k) << ": units [";
    const std::vector<int32>& units = detector.Keyword(m, k);
    for (size_t i = 0; i < units.size(); ++i) std::cout << (i ? " " : "") << units[i];
    const int32 method = detector.SearchMethod(m, k);
    std::cout << "], sensitivity " << detector.Sensitivity(m, k) << ", search " << method << " ("
              << SearchMethodName(method) << ")";
    const auto& layouts = detector.PieceLayouts(m, k);
    if (!layouts.empty()) {
      std::cout << ", " << detector.NumPieceLayouts(m, k) << " piece layouts of "
                << layouts[0].size() << " pieces";
    }
    std::cout << "\n";
  }
  const Nnet& nnet = detector.GetNnet(m);
  std::cout << "  network: " << nnet.InputDim() << " inputs, " << nnet.OutputDim()
            << " outputs, " << nnet.NumComponents() << " components\n";
  for (int i = 0; i < nnet.NumComponents(); ++i) {
    const Component& c = nnet.GetComponent(i);
    std::cout << "    " << i + 1 << " " << c.Token() << " " << c.InputDim() << " -> "
              << c.OutputDim();
    if (const auto* splice = dynamic_cast<const Splice*>(&c)) {
      std::cout << ", offsets " << Offsets(splice->Offsets());
    }
    if (c.NumParams() > 0) std::cout << ", " << c.NumParams() << " parameters";
    std::cout << "\n";
  }
}

}  // namespace

int RunInfo(int argc, char** argv) {
  ArgParser parser("kestrel info MODEL.kmodel ...",
                   "Shows what model files hold: each model's windows; each hotword's number\n"
                   "(as `kestrel detect` numbers them when given the same files in the same\n"
                   "order), units, sensitivity and search method; and the network's layers\n"
                   "with their dimensions. Windows are in 10 ms feature frames.");
  std::vector<std::string> models;
  std::string error;
  if (!parser.Parse(argc, argv, 2, &models, &error)) return UsageError("info", error);
  if (parser.HelpRequested()) {
    std::cout << parser.Help();
    return kExitOk;
  }
  if (models.empty()) return UsageError("info", "no model files given");

  UniversalDetectStreamOptions options;
  for (size_t i = 0; i < models.size(); ++i) {
    options.model_str += (i ? global_kestrel_string_delimiter : "") + models[i];
  }
  std::unique_ptr<UniversalDetectStream> detector;
  try {
    detector = std::make_unique<UniversalDetectStream>(options);
  } catch (const KestrelError& e) {
    return Failure("cannot load " + options.model_str + ": " + e.what());
  }
  for (int m = 0; m < detector->NumModels(); ++m) PrintModel(*detector, m, models[m]);
  return kExitOk;
}

}  // namespace kestrel
