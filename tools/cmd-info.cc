// kestrel info: what a set of model files holds.
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "detect/piece-layouts.h"
#include "detect/universal-detect-stream.h"
#include "model/hotword-model.h"
#include "nnet/nnet-component.h"
#include "nnet/nnet-splice.h"
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

// Hotwords are numbered on from `first_hotword`, as the detector numbers
// them over its models.
void PrintModel(const HotwordModel& model, int first_hotword) {
  std::cout << model.name << "\n"
            << "  windows: smoothing " << Frames(model.smooth_window) << ", search "
            << Frames(model.slide_window) << "\n";
  const bool piecewise = IsPiecewiseModel(model);
  for (size_t k = 0; k < model.hotwords.size(); ++k) {
    const HotwordRecord& hotword = model.hotwords[k];
    std::cout << "  hotword " << first_hotword + k
              << (hotword.name.empty() ? "" : " \"" + hotword.name + "\"") << ": units [";
    for (size_t i = 0; i < hotword.keyword.size(); ++i) {
      std::cout << (i ? " " : "") << hotword.keyword[i];
    }
    std::cout << "], sensitivity " << hotword.sensitivity << ", search "
              << hotword.search_method << " (" << SearchMethodName(hotword.search_method) << ")";
    if (piecewise) {
      // As the detector derives them with its default number of layouts.
      int32 num_searched = 0;
      const auto layouts =
          MakePieceLayouts(static_cast<int64>(hotword.keyword.size()), hotword.num_pieces,
                           UniversalDetectStreamOptions().num_piece_layouts, &num_searched);
      if (!layouts.empty()) {
        std::cout << ", " << num_searched << " piece layouts of " << layouts[0].size()
                  << " pieces";
      }
    }
    std::cout << "\n";
  }
  const Nnet& nnet = model.nnet;
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
  int status = kExitOk;
  if (!parser.ParseCommand(argc, argv, &models, &status)) return status;
  if (models.empty()) return UsageError("info", "no model files given");

  // All are read before any is shown, so a bad file prints nothing.
  std::vector<HotwordModel> loaded;
  for (const std::string& path : models) {
    try {
      loaded.push_back(HotwordModel::ReadFile(path));
    } catch (const KestrelError& e) {
      return Failure("cannot load " + path + ": " + e.what());
    }
  }
  int first_hotword = 1;
  for (const HotwordModel& model : loaded) {
    PrintModel(model, first_hotword);
    first_hotword += static_cast<int>(model.hotwords.size());
  }
  return kExitOk;
}

}  // namespace kestrel
