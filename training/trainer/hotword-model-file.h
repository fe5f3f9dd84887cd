// HotwordModelSettings and WriteHotwordModelFile: the settings block of a
// universal model file (.kmodel) and the writer that puts it, with a network,
// into a file the detector stage loads.
//
// Every optional group of a hotword record is written, as the detector's own
// writer does, so a file from here and one rewritten by the detector agree.
// The reader is for tools that need the settings themselves (the detector
// keeps them private); the detector stage remains the reference loader.
#ifndef KESTREL_TOOLS_TRAIN_HOTWORD_MODEL_FILE_H_
#define KESTREL_TOOLS_TRAIN_HOTWORD_MODEL_FILE_H_

#include <string>
#include <vector>

#include "nnet/nnet.h"
#include "utils/kestrel-types.h"

namespace kestrel {

struct HotwordSettings {
  std::vector<int32> keyword;  // network output columns, in spoken order
  float sensitivity = 0.5f;
  int32 search_method = 3;
  int32 search_neighbour = 0;
  std::vector<int32> search_mask;  // keyword.size() + 1 frame offsets; the last is the span
  std::vector<float> search_floor;  // one per keyword unit
  bool search_max = false;
  int32 num_pieces = 1;
  int32 duration_pass = 0;
  int32 floor_pass = 0;
};

struct HotwordModelSettings {
  int32 smooth_window = 1;
  int32 slide_window = 100;
  std::vector<HotwordSettings> hotwords;
};

// Writes "<UniversalModel> <KwInfo> ... </KwInfo>" and `nnet` to `path`.
void WriteHotwordModelFile(const std::string& path, const HotwordModelSettings& settings,
                           const Nnet& nnet, bool binary);

// Reads a universal model file (binary or text) into `settings` and `nnet`.
// Absent optional groups take the detector's defaults, except the search
// mask, which is then spread evenly over the slide window as the detector
// derives it. Errors name the file and the token.
void ReadHotwordModelFile(const std::string& path, HotwordModelSettings* settings, Nnet* nnet);

// A search mask of `unit_seconds.size() + 1` offsets that places each unit's
// nominal interval by its share of the total duration, the last offset
// being `span`.
std::vector<int32> MaskFromDurations(const std::vector<double>& unit_seconds, int32 span);

}  // namespace kestrel

#endif  // KESTREL_TOOLS_TRAIN_HOTWORD_MODEL_FILE_H_
